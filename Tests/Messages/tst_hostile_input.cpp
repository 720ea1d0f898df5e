// SPDX-License-Identifier: MIT
//
// Random and damaged buffers against a live core, compared after each with a model of the receive
// path. USBHAL_BUFFERS sets their number, USBHAL_SEED the seed of the first row; each row runs with
// a seed of its own, which its name tells, so that a failing row can be run alone.

#include "HostileTraffic.h"
#include "MessageCore.h"
#include "ReceiveModel.h"

#include <QTest>

#ifndef USBHAL_DEFAULT_BUFFERS
#define USBHAL_DEFAULT_BUFFERS 200000
#endif

namespace {

constexpr qint64 buffersPerRow = 100000;
constexpr quint64 defaultSeed = 20240611;
constexpr int recentBuffers = 5;

qint64 numberFromEnvironment(const char *name, qint64 fallback)
{
    return qEnvironmentVariableIsSet(name) ? qgetenv(name).toLongLong() : fallback;
}

/** A core and its model, which get the same bytes and the same calls. */
class Duel
{
public:
    explicit Duel(quint64 seed) : _traffic(seed)
    {
        _core.setup.maxLogLines = 500;
        QObject::connect(&_core, &UsbHAL::error, [this] { ++_errors; });
        QObject::connect(&_core, QOverload<int>::of(&UsbHAL::readyRead), [this] { ++_announced; });
    }

    bool start()
    {
        bool opened = _core.openPorts({1, 2, 3});
        for (const int port : {1, 2, 3})
            opened = _model.open(port) && opened;
        return opened;
    }

    /** One buffer and what clients do meanwhile. False when the two differ; see difference(). */
    bool step()
    {
        actAsClient();
        if (_traffic.random.oneIn(3) && _model.connected && !_model.openPorts().isEmpty())
            return feedWellFormed();
        return feed(_traffic.hostile());
    }

    /** Fills a port's queue to its limit, and empties it again. */
    bool stepToTheLimit()
    {
        const int port = 1 + _traffic.random.below(3);
        const bool same = feed(_traffic.flood(port));
        drain(port);
        return same && isSame();
    }

    /** Takes what is left and ends the core. */
    bool finish()
    {
        feed("DEVICE_NODATA");
        const QList<int> ports = _model.openPorts();
        for (const int port : ports)
            drain(port);
        const bool same = isSame();
        expect(_core.isRunning(), "the communication thread has ended");
        expect(_core.driver->written().isEmpty(), "something was written");
        _core.stop();
        expect(_core.status() == DriverState::DISCONNECTED, "the core did not stop");
        return same && _difference.isEmpty();
    }

    QString difference() const { return _difference + "\nlast buffers:\n" + _recent.join('\n'); }
    quint64 bytesDelivered() const { return _bytesDelivered; }

private:
    void expect(bool holds, const char *fault)
    {
        if (!holds && _difference.isEmpty())
            _difference = fault;
    }

    bool feed(const QByteArray &buffer)
    {
        remember(buffer);
        const int errors = _errors;
        // A view of bytes that are gone afterwards, as a driver's buffer is.
        QByteArray driverBuffer(buffer.constData(), buffer.size());
        const bool accepted =
            _core.receive(QByteArray::fromRawData(driverBuffer.constData(), driverBuffer.size()));
        driverBuffer.fill('#');
        expect(accepted == _model.receive(buffer), "accepted by one only");
        expect(_errors == errors, "an error was signalled");
        return isSame();
    }

    bool feedWellFormed()
    {
        int framed = 0;
        const QByteArray buffer = _traffic.wellFormed(_model.openPorts(), framed);
        const quint64 before = _core.queuedBytes();
        const bool same = feed(buffer);
        expect(_core.queuedBytes() - before == static_cast<quint64>(framed),
               "the bytes delivered are not the bytes framed");
        return same && _difference.isEmpty();
    }

    void remember(const QByteArray &buffer)
    {
        _recent.append(QString::number(buffer.size()) + " bytes: " + buffer.left(400).toHex());
        if (_recent.size() > recentBuffers)
            _recent.removeFirst();
    }

    void actAsClient()
    {
        const int port = _traffic.random.below(7);
        const int action = _traffic.random.below(200);
        if (action < 50)
            drain(port);
        else if (action < 90)
            read(port, static_cast<unsigned int>(_traffic.random.below(12)));
        else if (action < 120)
            look(port);
        else if (action < 124)
            open(port);
        else if (action < 127)
            expect(_core.closeConnection(port) == _model.close(port), "closed by one only");
        else if (action < 129)
            peerDisconnect(port);
        else if (action < 130)
            loseLink();
    }

    void read(int port, unsigned int maxSize)
    {
        const QByteArray taken = _core.read(port, maxSize);
        expect(taken == _model.read(port, maxSize), "read gives other bytes");
        _bytesDelivered += static_cast<quint64>(taken.size());
    }

    void drain(int port)
    {
        while (_model.isUsable(port) && !_model.port(port).queue.isEmpty() && _difference.isEmpty())
            read(port, 0xffffffffU);
    }

    void look(int port)
    {
        const auto maxSize = static_cast<unsigned int>(_traffic.random.below(20));
        expect(_core.peek(port, maxSize) == _model.peek(port, maxSize), "peek gives other bytes");
        expect(_core.nbBytesReceived(port) == _model.headSize(port), "another head size");
        const bool ready = _model.isUsable(port) && _model.headSize(port) > 0;
        expect(_core.waitForReadyRead(port, 0) == ready, "ready in one only");
    }

    // A disconnected port is closed first: opened again it would count twice for ever.
    void open(int port)
    {
        if (_model.port(port).state == SocketState::DISCONNECTED)
            expect(_core.closeConnection(port) == _model.close(port), "closed by one only");
        expect(_core.openConnection(port) == _model.open(port), "opened by one only");
    }

    void peerDisconnect(int port)
    {
        _core.peerDisconnected(port);
        _model.peerDisconnect(port);
    }

    void loseLink()
    {
        _core.loseLink();
        _model.loseLink();
    }

    bool isSame()
    {
        compareLink();
        comparePorts();
        const quint64 queued = _core.queuedBytes();
        expect(queued == _model.bytesHeld(), "the queues hold other bytes");
        expect(_core.bytesWaiting() == static_cast<quint32>(queued) + _model.remainder,
               "the counter is not what the queues hold");
        expect(_announced == _model.announced, "readyRead was not emitted once for each payload");
        return _difference.isEmpty();
    }

    void compareLink()
    {
        _core.locked([this](QMutexLocker &) {
            expect((_core._driverState == DriverState::CONNECTED) == _model.connected,
                   "connected in one only");
            expect(_core._peerBusy == _model.peerBusy, "busy in one only");
            expect(_core._clientCount == _model.clients, "another number of clients");
            expect(_core._writeFifo.isEmpty(), "something waits to be written");
        });
    }

    void comparePorts()
    {
        _core.locked([this](QMutexLocker &) {
            int states = 0;
            int queues = 0;
            for (const auto &entry : _model.ports) {
                states += entry.second.known ? 1 : 0;
                queues += entry.second.hasQueue ? 1 : 0;
                expect(_core._socketStates.value(entry.first) == entry.second.state,
                       "a port has another state");
                const auto queue = _core._readQueues.value(entry.first);
                expect(queue && *queue == entry.second.queue, "a queue holds other messages");
            }
            expect(_core._socketStates.size() == states, "another number of port states");
            expect(_core._readQueues.size() == queues, "another number of queues");
        });
    }

    MessageCore _core;
    ReceiveModel _model;
    HostileTraffic _traffic;
    QString _difference;
    QStringList _recent;
    int _errors = 0;
    quint64 _announced = 0;
    quint64 _bytesDelivered = 0;
};

} // namespace

class HostileInputTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void anyBytesLeaveTheCoreConsistent_data();
    void anyBytesLeaveTheCoreConsistent();
};

void HostileInputTest::initTestCase()
{
    // Without a zone of its own the C library looks at the system's zone file once a second for
    // each thread that logs.
    qputenv("TZ", "UTC0");
}

void HostileInputTest::anyBytesLeaveTheCoreConsistent_data()
{
    QTest::addColumn<quint64>("seed");
    QTest::addColumn<qint64>("buffers");
    auto seed = static_cast<quint64>(numberFromEnvironment("USBHAL_SEED", defaultSeed));
    qint64 left = numberFromEnvironment("USBHAL_BUFFERS", USBHAL_DEFAULT_BUFFERS);
    QVERIFY(left > 0);
    for (; left > 0; left -= buffersPerRow, ++seed) {
        const qint64 buffers = qMin(left, buffersPerRow);
        QTest::addRow("USBHAL_SEED=%llu USBHAL_BUFFERS=%lld", seed, buffers) << seed << buffers;
    }
}

void HostileInputTest::anyBytesLeaveTheCoreConsistent()
{
    QFETCH(quint64, seed);
    QFETCH(qint64, buffers);
    Duel duel(seed);
    QVERIFY(duel.start());
    QVERIFY2(duel.stepToTheLimit(), qPrintable(duel.difference()));
    for (qint64 i = 1; i < buffers; ++i)
        QVERIFY2(duel.step(), qPrintable(QString::number(i) + ": " + duel.difference()));
    QVERIFY2(duel.finish(), qPrintable(duel.difference()));
    QVERIFY(duel.bytesDelivered() > 0);
}

QTEST_GUILESS_MAIN(HostileInputTest)
#include "tst_hostile_input.moc"
