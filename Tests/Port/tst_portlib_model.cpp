// SPDX-License-Identifier: MIT
#include "PortFixture.h"

#include <Campaign.h>

#include <QElapsedTimer>
#include <QRandomGenerator>

/**
 * Random sequences of operations against what a byte stream promises: while the link stands nothing
 * is lost, doubled or out of order, and over a loss every byte written is told as written or lost.
 */
class PortLibModelTest : public QObject
{
    Q_OBJECT

private slots:
    void aStreamKeepsItsBytes();
};

namespace {

constexpr int largestPiece = 30000; // bytes

class Stream
{
public:
    Stream(PortFixture &fixture, quint32 seed)
        : _fixture(fixture), _random(seed), _written(countedBytes(4000000)), _sent(_written)
    {
        QObject::connect(&port, &UsbHalPort::bytesWritten, [this](qint64 size) { _told += size; });
        QObject::connect(&port, &UsbHalPort::bytesLost, [this](qint64 size) { _lost += size; });
    }

    void step()
    {
        switch (_random.bounded(12)) {
        case 0:
            return port.setReadBufferSize(_random.bounded(1, 50000));
        case 1:
            return port.setWriteBufferSize(_random.bounded(1, 100000));
        case 2:
            port.flush();
            return;
        case 3:
            port.waitForReadyRead(_random.bounded(20));
            return;
        case 4:
            port.waitForBytesWritten(_random.bounded(20));
            return;
        case 5:
            return QCoreApplication::processEvents();
        case 6:
        case 7:
            return send();
        case 8:
        case 9:
            return write();
        default:
            return read();
        }
    }

    /** Waits until both ways are empty. */
    bool drain()
    {
        port.setReadBufferSize(100000);
        QElapsedTimer timer;
        timer.start();
        while (timer.elapsed() < 30000 && (_readSize < _sentSize || port.bytesToWrite() > 0)) {
            port.waitForReadyRead(5);
            read();
        }
        return _readSize == _sentSize && port.bytesToWrite() == 0;
    }

    bool hostHasAll() const
    {
        return _fixture.host.waitForReceived(port.portNumber(), _written.left(_writtenSize));
    }

    bool isBalanced() const
    {
        return isRight && _told + _lost + port.bytesToWrite() == _writtenSize;
    }
    qint64 lost() const { return _lost; }

    UsbHalPort port{1};
    bool isRight = true;

private:
    int piece()
    {
        return _random.bounded(4) == 0 ? _random.bounded(1, largestPiece) : _random.bounded(1, 50);
    }

    void write()
    {
        const QByteArray bytes = _written.mid(_writtenSize, piece());
        const qint64 size = port.write(bytes);
        isRight = isRight && size >= 0 && size <= bytes.size();
        _writtenSize += static_cast<int>(size);
    }

    void send()
    {
        const int size = piece();
        _fixture.host.send(port.portNumber(), _sent.mid(_sentSize, size));
        _sentSize += size;
    }

    void read()
    {
        const qint64 before = port.bytesAvailable();
        const QByteArray bytes = readSomehow();
        isRight = isRight && bytes == _sent.mid(_readSize, bytes.size()) &&
                  port.bytesAvailable() == before - bytes.size();
        _readSize += bytes.size();
    }

    QByteArray readSomehow()
    {
        switch (_random.bounded(5)) {
        case 0:
            return port.readAll();
        case 1:
            return port.readLine();
        case 2: {
            const QByteArray peeked = port.peek(piece());
            const QByteArray bytes = port.read(peeked.size());
            isRight = isRight && bytes == peeked;
            return bytes;
        }
        case 3: {
            port.startTransaction();
            const QByteArray bytes = port.read(piece());
            port.rollbackTransaction();
            port.startTransaction();
            isRight = isRight && port.read(bytes.size()) == bytes;
            port.commitTransaction();
            return bytes;
        }
        default:
            return port.read(piece());
        }
    }

    PortFixture &_fixture;
    QRandomGenerator _random;
    const QByteArray _written;
    const QByteArray _sent;
    int _writtenSize = 0;
    int _sentSize = 0;
    int _readSize = 0;
    qint64 _told = 0;
    qint64 _lost = 0;
};

} // namespace

void PortLibModelTest::aStreamKeepsItsBytes()
{
    PortFixture fixture;
    const quint32 seed = Campaign::seed();
    const QByteArray name = "seed " + QByteArray::number(seed);
    Stream stream(fixture, seed);
    QVERIFY(fixture.connect(stream.port));
    for (int i = 0; i < 600; ++i) {
        stream.step();
        QVERIFY2(stream.isBalanced(), name);
    }
    QVERIFY2(stream.drain(), name);
    QVERIFY2(stream.isBalanced(), name);
    QVERIFY2(stream.hostHasAll(), name);
    QCOMPARE(stream.lost(), 0);
    QCOMPARE(stream.port.droppedBytes(), 0);
}

QTEST_GUILESS_MAIN(PortLibModelTest)
#include "tst_portlib_model.moc"
