// SPDX-License-Identifier: MIT
#include "PortFixture.h"

#include <QDataStream>
#include <QSignalSpy>
#include <QTextStream>
#include <QThread>
#include <QTimer>

#include <atomic>

/** What a port's user sees while the link stands, and how a port is opened and closed. */
class PortLibTest : public QObject
{
    Q_OBJECT

private slots:
    void openingIsRefusedWithASentence();
    void theDefaultsFitEachOther();
    void bytesPassBothWays();
    void theVeryFirstMessageIsRead();
    void aMessageWithoutBytesHidesNothing();
    void linesAndTransactionsSpanMessages();
    void aFullQueueDropsNothing();
    void theReadBufferIsBounded();
    void theReadBufferIsBoundedOnASlowNode();
    void aLargerReadBufferIsFilled();
    void withoutAnEventLoop();
    void theModesReadOrWriteOnly();
    void nothingRunsWhileIdle();
    void tenThousandOpensAndCloses();
    void tenObjectsInTenThreads();

private:
    void _readInPieces(PortFixture &fixture);
};

namespace {

QByteArray readUntil(UsbHalPort &port, int size)
{
    QByteArray bytes;
    while (bytes.size() < size && (port.bytesAvailable() > 0 || port.waitForReadyRead(20000)))
        bytes += port.readAll();
    return bytes;
}

} // namespace

void PortLibTest::openingIsRefusedWithASentence()
{
    PortFixture fixture;
    UsbHalPort port(1);
    QSignalSpy errors(&port, &UsbHalPort::errorOccurred);
    QCOMPARE(port.state(), UsbHalPort::UnconnectedState);
    QVERIFY(port.open(QIODevice::ReadWrite));
    QCOMPARE(port.state(), UsbHalPort::ConnectingState);
    QVERIFY(port.openMode() & QIODevice::Unbuffered);
    QVERIFY(!UsbHalPort::setConfiguration(ParamHal()));

    const auto refused = [](UsbHalPort &other, QIODevice::OpenMode mode) {
        const bool opened = other.open(mode);
        return !opened && other.errorString().endsWith('.') ? other.error() : UsbHalPort::NoError;
    };
    QCOMPARE(refused(port, QIODevice::ReadWrite), UsbHalPort::AlreadyOpenError);
    QCOMPARE(errors.count(), 1);
    UsbHalPort same(1);
    QCOMPARE(refused(same, QIODevice::ReadWrite), UsbHalPort::AlreadyOpenError);
    UsbHalPort none(10000);
    QCOMPARE(refused(none, QIODevice::ReadWrite), UsbHalPort::InvalidPortError);
    UsbHalPort second(2);
    QCOMPARE(refused(second, QIODevice::NotOpen), UsbHalPort::InvalidPortError);
    // Who uses the facade beside has that port to himself, also when it is cut off.
    UsbHALIntf *const hal = UsbHALIntf::getInstance();
    QVERIFY(hal->openConnection(3));
    hal->peerDisconnected(3);
    UsbHalPort third(3);
    QCOMPARE(refused(third, QIODevice::ReadWrite), UsbHalPort::AlreadyOpenError);
    QCOMPARE(hal->nbClients(), 2u);
    for (const int number : {4, 5, 6})
        QVERIFY(hal->openConnection(number));
    UsbHalPort seventh(7);
    QCOMPARE(refused(seventh, QIODevice::ReadWrite), UsbHalPort::TooManyPortsError);
    seventh.clearError();
    QCOMPARE(seventh.error(), UsbHalPort::NoError);
    port.close();
    QVERIFY(seventh.open(QIODevice::ReadWrite));
}

void PortLibTest::theDefaultsFitEachOther()
{
    const ParamHal param = UsbHalPort::configuration();
    const quint32 silentRead = param.rdTimeout + 1000;
    const quint32 watchdogPeriod = 100; // ms, of a configuration that names none
    QVERIFY(param.threadStopTimeout > silentRead);
    QVERIFY(param.maxWatchdogErrors * watchdogPeriod > silentRead);
    // What the first open programs into the node whatever is configured.
    QCOMPARE(param.rdTimeout, 2000u);
    QCOMPARE(param.wrTimeout, 2000u);
}

void PortLibTest::bytesPassBothWays()
{
    PortFixture fixture;
    QStringList seen;
    UsbHalPort port(1);
    watchSignals(&port, [&](const QString &text) { seen += text; });
    fixture.host.plugIn();
    QVERIFY(port.open(QIODevice::ReadWrite));
    QCOMPARE(port.write("before"), 6);
    QTRY_VERIFY_WITH_TIMEOUT(seen.contains("connected"), 20000);
    QTRY_COMPARE_WITH_TIMEOUT(port.bytesToWrite(), 0, 20000);
    QVERIFY(fixture.host.waitForReceived(1, "before"));
    fixture.host.send(1, "hello");
    QTRY_COMPARE_WITH_TIMEOUT(port.bytesAvailable(), 5, 20000);
    QCOMPARE(port.peek(2), QByteArray("he"));
    QCOMPARE(port.read(3), QByteArray("hel"));
    QCOMPARE(port.bytesAvailable(), 2);
    QCOMPARE(port.readAll(), QByteArray("lo"));
    QCOMPARE(port.readAll(), QByteArray());
    QCOMPARE(port.droppedBytes(), 0);
    port.close();
    QCOMPARE(seen, QStringList({"state 1", "state 2", "connected", "written 6", "readyRead",
                                "aboutToClose", "state 0", "finished", "disconnected"}));
}

void PortLibTest::theVeryFirstMessageIsRead()
{
    PortFixture fixture;
    QStringList seen;
    UsbHalPort port(1);
    watchSignals(&port, [&](const QString &text) { seen += text; });
    // The read before it empties the node while that is opened.
    const QByteArray message("FADA000090001first");
    QVERIFY(fixture.command("on read 2 inject " + message.toHex().toStdString()));
    QVERIFY(port.open(QIODevice::ReadWrite));
    QTRY_COMPARE_WITH_TIMEOUT(port.bytesAvailable(), 5, 20000);
    QCOMPARE(seen, QStringList({"state 1", "state 2", "connected", "readyRead"}));
    QCOMPARE(port.readAll(), QByteArray("first"));
}

void PortLibTest::aMessageWithoutBytesHidesNothing()
{
    PortFixture fixture;
    UsbHalPort port(1);
    QVERIFY(fixture.connect(port));
    QVERIFY(fixture.host.pause());
    const QByteArray messages("FADA000040001FADA000040001FADA000070001abc");
    QVERIFY(fixture.command("inject " + messages.toHex().toStdString()));
    QVERIFY(port.waitForReadyRead(20000));
    QCOMPARE(port.readAll(), QByteArray("abc"));
    // Nor when the read buffer is full before it.
    port.setReadBufferSize(3);
    const QByteArray more("FADA000070001abcFADA000040001FADA000070001def");
    QVERIFY(fixture.command("inject " + more.toHex().toStdString()));
    QTRY_COMPARE_WITH_TIMEOUT(port.bytesAvailable(), 3, 20000);
    QCOMPARE(port.readAll(), QByteArray("abc"));
    QTRY_COMPARE_WITH_TIMEOUT(port.bytesAvailable(), 3, 20000);
    QCOMPARE(port.readAll(), QByteArray("def"));
}

void PortLibTest::linesAndTransactionsSpanMessages()
{
    PortFixture fixture;
    UsbHalPort port(1);
    QVERIFY(fixture.connect(port));
    fixture.host.send(1, "one\ntw");
    QVERIFY(port.waitForReadyRead(20000));
    QVERIFY(port.canReadLine());
    QCOMPARE(port.readLine(), QByteArray("one\n"));
    QVERIFY(!port.canReadLine());
    QCOMPARE(port.peek(10), QByteArray("tw")); // QIODevice keeps these now
    fixture.host.send(1, "o\nthree\n");
    QVERIFY(port.waitForReadyRead(20000));
    QCOMPARE(port.bytesAvailable(), 10);
    QVERIFY(port.canReadLine());
    QTextStream lines(&port);
    QCOMPARE(lines.readLine(), QString("two"));
    QCOMPARE(lines.readLine(), QString("three"));

    QByteArray message;
    QDataStream out(&message, QIODevice::WriteOnly);
    out << QString("a text") << 4711 << QByteArray(500, 'x');
    QDataStream in(&port);
    QString text;
    int number = 0;
    QByteArray bytes;
    const auto readMessage = [&] {
        in.startTransaction();
        in >> text >> number >> bytes;
        return in.commitTransaction();
    };
    for (const int cut : {3, 20, 300}) {
        fixture.host.send(1, message.left(cut));
        QVERIFY(port.waitForReadyRead(20000));
        QVERIFY(!readMessage());
        fixture.host.send(1, message.mid(cut));
        while (!readMessage())
            QVERIFY(port.waitForReadyRead(20000));
        QCOMPARE(text, QString("a text"));
        QCOMPARE(number, 4711);
        QCOMPARE(bytes, QByteArray(500, 'x'));
        QCOMPARE(port.bytesAvailable(), 0);
    }
}

void PortLibTest::aFullQueueDropsNothing()
{
    PortFixture fixture;
    UsbHalPort port(1);
    QVERIFY(fixture.connect(port));
    QVERIFY(fixture.host.pause());
    UsbHALIntf *const hal = UsbHALIntf::getInstance();
    QVERIFY(hal->openConnection(2));
    // Others may have filled the queue of the library.
    while (hal->write(2, "x") == 1) {
    }
    const QByteArray bytes = countedBytes(250000);
    port.setWriteBufferSize(200000);
    QCOMPARE(port.write(bytes), 200000);
    QCOMPARE(port.write("x"), 0);
    QCOMPARE(port.bytesToWrite(), 200000);
    QVERIFY(!port.flush());
    QVERIFY(!port.waitForBytesWritten(1));
    QCOMPARE(port.error(), UsbHalPort::TimeoutError);
    qint64 written = 0;
    qint64 atOnce = 0; // the most
    connect(&port, &UsbHalPort::bytesWritten, [&](qint64 size) {
        written += size;
        atOnce = qMax(atOnce, size);
        QVERIFY(written > 200000 || port.bytesToWrite() == 200000 - written);
    });
    fixture.host.resume();
    QTRY_COMPARE_WITH_TIMEOUT(written, 200000, 20000);
    QVERIFY(fixture.host.waitForReceived(1, bytes.left(200000)));
    QVERIFY2(atOnce < 200000, "a message is told when the node has taken it, not all at the end");
    QCOMPARE(port.write("y"), 1);
    QVERIFY(port.waitForBytesWritten(20000));
    QVERIFY(fixture.host.waitForReceived(1, bytes.left(200000) + 'y'));
}

void PortLibTest::theReadBufferIsBounded()
{
    PortFixture fixture;
    _readInPieces(fixture);
}

void PortLibTest::theReadBufferIsBoundedOnASlowNode()
{
    PortFixture fixture;
    fixture.command("latency 100");
    _readInPieces(fixture);
}

void PortLibTest::_readInPieces(PortFixture &fixture)
{
    UsbHalPort port(1);
    QVERIFY(fixture.connect(port));
    port.setReadBufferSize(1000);
    // More than the library takes before it asks the host to wait.
    const QByteArray bytes = countedBytes(600000);
    fixture.host.send(1, bytes);
    // Ports that write on and on let the request pass all the same.
    const QByteArray filling(60000, 'f');
    UsbHalPort second(2);
    UsbHalPort third(3);
    for (UsbHalPort *const other : {&second, &third}) {
        QVERIFY(fixture.connect(*other));
        connect(other, &UsbHalPort::bytesWritten, other, [&filling, other] {
            if (other->bytesToWrite() < filling.size())
                other->write(filling);
        });
        other->write(filling + filling);
    }
    QTRY_VERIFY_WITH_TIMEOUT(fixture.host.isDelayed(), 20000);
    QVERIFY(port.bytesAvailable() <= 1000);
    QVERIFY(!port.waitForReadyRead(20000)); // no room
    QByteArray got;
    connect(&port, &UsbHalPort::readyRead, &port, [&] {
        QVERIFY(port.bytesAvailable() <= 1000);
        got += port.readAll();
    });
    got += port.readAll();
    QTRY_COMPARE_WITH_TIMEOUT(got.size(), bytes.size(), 30000);
    QVERIFY(got == bytes);
}

void PortLibTest::aLargerReadBufferIsFilled()
{
    PortFixture fixture;
    UsbHalPort port(1);
    QVERIFY(fixture.connect(port));
    port.setReadBufferSize(4);
    fixture.host.send(1, "helloworld");
    QTRY_COMPARE_WITH_TIMEOUT(port.bytesAvailable(), 4, 20000);
    // Nothing else arrives that would have the port look.
    port.setReadBufferSize(100);
    QTRY_COMPARE_WITH_TIMEOUT(port.bytesAvailable(), 10, 20000);
    QCOMPARE(port.readAll(), QByteArray("helloworld"));
}

void PortLibTest::withoutAnEventLoop()
{
    PortFixture fixture;
    fixture.host.plugIn();
    // A thread of the standard library, which has no dispatcher for timers.
    bool connected = false;
    QByteArray echoed;
    std::thread thread([&] {
        UsbHalPort port(1);
        connected = port.open(QIODevice::ReadWrite) && port.waitForConnected(20000);
        port.write(countedBytes(30000));
        while (port.bytesToWrite() > 0 && port.waitForBytesWritten(20000)) {
        }
        QVERIFY(fixture.host.waitForReceived(1, countedBytes(30000)));
        fixture.host.send(1, countedBytes(30000));
        echoed = readUntil(port, 30000);
        QVERIFY(!port.waitForReadyRead(1));
        QCOMPARE(port.error(), UsbHalPort::TimeoutError);
        QVERIFY(!port.waitForDisconnected(1));
        QVERIFY(!port.waitForBytesWritten(1));
    });
    thread.join();
    QVERIFY(connected);
    QCOMPARE(echoed, countedBytes(30000));
}

void PortLibTest::theModesReadOrWriteOnly()
{
    PortFixture fixture;
    UsbHalPort reader(1);
    UsbHalPort writer(2);
    fixture.host.plugIn();
    QVERIFY(reader.open(QIODevice::ReadOnly));
    QVERIFY(writer.open(QIODevice::WriteOnly));
    QVERIFY(reader.waitForConnected(20000) && writer.waitForConnected(20000));
    QTest::ignoreMessage(QtWarningMsg, "QIODevice::write (UsbHalPort): ReadOnly device");
    QCOMPARE(reader.write("x"), -1);
    fixture.host.send(2, "unread");
    fixture.host.send(1, "read");
    QVERIFY(reader.waitForReadyRead(20000));
    QCOMPARE(reader.readAll(), QByteArray("read"));
    QTRY_COMPARE_WITH_TIMEOUT(writer.droppedBytes(), 6, 20000);
    QCOMPARE(writer.write("x"), 1);
    QVERIFY(fixture.host.waitForReceived(2, "x"));
}

void PortLibTest::nothingRunsWhileIdle()
{
    PortFixture fixture;
    UsbHalPort port(1);
    QVERIFY(fixture.connect(port));
    QTimer *const timer = port.findChild<QTimer *>();
    QVERIFY(timer && !timer->isActive());
    QVERIFY(fixture.host.pause());
    port.write("x");
    QVERIFY(timer->isActive());
    fixture.host.resume();
    QTRY_COMPARE_WITH_TIMEOUT(port.bytesToWrite(), 0, 20000);
    QVERIFY(!timer->isActive());
    // Nor is an event posted, cycle after cycle.
    QCoreApplication::processEvents();
    class Counter : public QObject
    {
    public:
        bool eventFilter(QObject *, QEvent *event) override
        {
            count += event->type() == QEvent::MetaCall || event->type() == QEvent::Timer;
            return false;
        }
        int count = 0;
    } counter;
    port.installEventFilter(&counter);
    const auto writes = [&] { return std::stoi(fixture.node.statusValue("writes")); };
    const int before = writes();
    QTRY_VERIFY_WITH_TIMEOUT(writes() > before + 10, 20000);
    QCOMPARE(counter.count, 0);
}

void PortLibTest::tenThousandOpensAndCloses()
{
    PortFixture fixture;
    UsbHalPort port(1);
    QVERIFY(fixture.connect(port));
    for (int i = 0; i < 10000; ++i) {
        port.close();
        QVERIFY(port.open(QIODevice::ReadWrite));
        QVERIFY(i % 100 != 0 || port.waitForConnected(20000));
    }
    QCOMPARE(UsbHALIntf::getInstance()->nbClients(), 1u);
    QVERIFY(port.waitForConnected(20000));
    port.write("still there");
    QVERIFY(fixture.host.waitForReceived(1, "still there"));
}

void PortLibTest::tenObjectsInTenThreads()
{
    PortFixture fixture;
    fixture.host.plugIn();
    std::atomic<int> echoes{0};
    std::atomic<int> refusals{0};
    std::vector<std::thread> threads;
    // Five ports for ten objects: those that come late wait for their turn.
    for (int object = 0; object < 10; ++object) {
        threads.emplace_back([&, object] {
            UsbHalPort port(object);
            while (!port.open(QIODevice::ReadWrite)) {
                refusals += port.error() == UsbHalPort::TooManyPortsError;
                QThread::yieldCurrentThread();
            }
            while (refusals == 0) // until all that can be open are
                QThread::yieldCurrentThread();
            const QByteArray bytes = countedBytes(3000, object * 10000);
            if (!port.waitForConnected(20000))
                return;
            port.write(bytes);
            while (port.bytesToWrite() > 0 && port.waitForBytesWritten(20000)) {
            }
            fixture.host.waitForReceived(object, bytes);
            fixture.host.send(object, bytes);
            echoes += readUntil(port, bytes.size()) == bytes;
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    QCOMPARE(echoes.load(), 10);
    QCOMPARE(UsbHALIntf::getInstance()->nbClients(), 0u);
}

QTEST_GUILESS_MAIN(PortLibTest)
#include "tst_portlib.moc"
