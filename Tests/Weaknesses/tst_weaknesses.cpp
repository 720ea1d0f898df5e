// SPDX-License-Identifier: MIT
#include "LinkProbe.h"
#include "MessageCore.h"

#include <Background.h>
#include <GadgetDriver.h>
#include <SignalRecorder.h>
#include <VirtualTime.h>

#include <QEventLoop>
#include <QFile>
#include <QScopeGuard>

#include <atomic>

namespace {

constexpr int tightReadSize = 1; // the host is asked to wait beyond 30 unread bytes
constexpr int tooMuch = 31;

/** What the communication thread did on its way through the open loop. */
struct OpenLoop
{
    UsbHAL *core = nullptr;
    int attempts = 0;         // left
    QList<qint64> sparedTime; // ms of pauses up to each attempt
};

/** A gadget driver whose node is missing; its last attempt stops the communication. */
class MissingNode : public GadgetDriver
{
public:
    MissingNode(const QString &path, OpenLoop &loop) : _loop(loop)
    {
        _instancePaths = QStringList(path);
    }

    bool open() override
    {
        _loop.sparedTime.append(VirtualTime::sparedTime());
        const bool opened = GadgetDriver::open();
        if (--_loop.attempts == 0)
            _loop.core->stop();
        return opened;
    }

private:
    OpenLoop &_loop;
};

/** A gadget driver over a node that is always silent, which can lose its buffer. */
class SilentNode : public GadgetDriver
{
public:
    SilentNode() { _instancePaths = QStringList(QStringLiteral("/dev/null")); }

    /** What a size does that no memory can be had for. */
    void loseBuffer()
    {
        _readBuffer.reset();
        _readBufferSize = 0;
    }
};

/** A driver that notes what read time-out each open would give to the device. */
class TimeoutDriver : public RecordingDriver
{
public:
    bool open() override
    {
        readTimeouts.append(getRdTimeout());
        return RecordingDriver::open();
    }

    QList<quint32> readTimeouts; // for the time when no thread opens
};

/** Brings the link up, one turn at a time, with a device that takes one byte in a read. */
bool connectTight(LinkProbe &core)
{
    ParamHal param = core.quietSetup();
    param.maxReadSize = tightReadSize;
    core.setupConfig(param);
    return core.connectStepwise();
}

/** Leaves a delay on, and nothing unread: the message that is discarded begins with a zero byte. */
bool leaveRemainder(LinkProbe &core)
{
    return connectTight(core) && core.turn(dataMessage(1, QByteArray(tooMuch, '\0'))) &&
           core.closeConnection(1);
}

QByteArray reopenMessage(int port)
{
    return dataMessage(port, "DEVICE_CONN");
}

QByteArray idleMessage(MessageCore &core)
{
    return core.locked([&](QMutexLocker &) { return core._idleMessage(); });
}

} // namespace

/** What the design costs, exactly as it is, so that advice about it can be relied on. */
class WeaknessesTest : public QObject
{
    Q_OBJECT

private slots:
    void cleanup() { VirtualTime::setPauseDivisor(1); }

    void theOpenLoopHasNoPauseAndLogsEveryAttempt();
    void aRemainderInTheCounterKeepsTheDelayOn();
    void aLostLinkEndsTheRemainder();
    void aRestartEndsTheRemainder();
    void continuousWritersStarveTheControlMessages();
    void theQueueOfAnOpenPortIsNotBoundInBytes();
    void theQueueOfAnUnopenedPortHasNoLimit();
    void aLostLinkEmptiesTheQueueOfAnUnopenedPort();
    void everyPortThatTheHostNamesStaysInTheTables();
    void aPortThatIsOpenedAgainWithoutACloseCostsAClientForGood();
    void theFirstMessageCannotBeReadInItsOwnHandler();
    void theFirstOpenKnowsNoConfiguredTimeout();
    void theLogHoldsReceivedControlCharacters();
    void aDriverWithoutABufferSaysSoAtEveryRead();
    void whatAHandlerWritesToThePortItReopenedIsRemoved();
    void errorsOfOtherThreadsPileUpUntilEventsAreHandled();
    void aRunThatBeganWithoutAnEventLoopStaysWithoutAWatchdog();
    void aHandlerHoldsUpTheLinkButNoClient();
};

void WeaknessesTest::theOpenLoopHasNoPauseAndLogsEveryAttempt()
{
    constexpr int attempts = 200;
    VirtualTime::setPauseDivisor(0);
    const LogCapture log;
    OpenLoop loop;
    const QString node = log.folder() + "/missing";
    UsbHAL core({QSharedPointer<MissingNode>::create(node, loop),
                 QSharedPointer<MissingNode>::create(node, loop)});
    loop.core = &core;
    loop.attempts = attempts;
    ParamHal param;
    core.getDefaultSetup(param);
    param.logDir = log.folder();
    core.setupConfig(param);
    QVERIFY(core.openConnection(1));
    QTRY_VERIFY(!core.isRunning());
    QCOMPARE(loop.attempts, 0);
    QCOMPARE(loop.sparedTime.size(), attempts);
    QCOMPARE(loop.sparedTime.count(0), attempts);
    QCOMPARE(log.count("_openDrvInstance: Error: unable to open driver instance: " + node +
                       "( 2: No such file or directory )"),
             attempts);
    QCOMPARE(log.count("_connectedFunc: Failed to open driver !"), 1);
}

void WeaknessesTest::aRemainderInTheCounterKeepsTheDelayOn()
{
    constexpr int turns = 10;
    LinkProbe core;
    QVERIFY(leaveRemainder(core));
    QCOMPARE(core.queuedBytes(), quint64(0));
    QCOMPARE(core.bytesWaiting(), quint32(tooMuch));
    core.driver->clearWritten();
    for (int i = 0; i < turns; ++i)
        QVERIFY(core.turn());
    QVERIFY(core.openConnection(1));
    QCOMPARE(core.read(1, 100), QByteArray());
    QVERIFY(core.turn());
    QCOMPARE(core.driver->written().size(), turns + 1);
    QCOMPARE(core.driver->written().count("DEVICE_WTSEND"), turns + 1);
    QCOMPARE(core.bytesWaiting(), quint32(tooMuch));
}

void WeaknessesTest::aLostLinkEndsTheRemainder()
{
    LinkProbe core;
    QVERIFY(leaveRemainder(core));
    const int reads = core.driver->reads();
    core.driver->failReads(5);
    QVERIFY(core.turn());
    QVERIFY(core.driver->waitForReads(reads + 6)); // five fail, and the next one waits
    QCOMPARE(core.status(), DriverState::DISCONNECTED);
    core.driver->clearWritten();
    QVERIFY(core.turn());
    QCOMPARE(core.bytesWaiting(), 0u);
    QCOMPARE(core.driver->written(), QList<QByteArray>{"DEVICE_NODATA00001"});
}

void WeaknessesTest::aRestartEndsTheRemainder()
{
    LinkProbe core;
    QVERIFY(leaveRemainder(core));
    core.driver->blockReads();
    QVERIFY(core.turn());
    core.driver->setReadWait(5);
    core.driver->setHonoursCancel(true);
    core.stop();
    QCOMPARE(core.bytesWaiting(), quint32(tooMuch));
    QVERIFY(core.openConnection(1));
    QCOMPARE(core.bytesWaiting(), 0u);
}

void WeaknessesTest::continuousWritersStarveTheControlMessages()
{
    constexpr int turns = 30;
    LinkProbe core;
    QVERIFY(connectTight(core));
    core.driver->clearWritten();
    QList<QByteArray> expected;
    for (int i = 0; i < turns; ++i) {
        const QByteArray data = QByteArray::number(i);
        QCOMPARE(core.write(1, data), data.size());
        expected.append(dataMessage(1, data));
        QVERIFY(core.turn(dataMessage(1, QByteArray(tooMuch, 'x'))));
    }
    QCOMPARE(core.driver->written(), expected);
    QCOMPARE(core.bytesWaiting(), quint32(turns * tooMuch));
    const QString asked = QStringLiteral("_connectedFunc: Ask host to delay further writes");
    QVERIFY(!core.log.contains(asked));
    // The first turn without a message of a client carries the request.
    QVERIFY(core.turn());
    QCOMPARE(core.driver->written().last(), QByteArray("DEVICE_WTSEND"));
    QCOMPARE(core.log.count(asked), 1);
}

void WeaknessesTest::theQueueOfAnOpenPortIsNotBoundInBytes()
{
    constexpr int messages = 100;
    constexpr int size = 9987;
    MessageCore core;
    QVERIFY(core.start());
    for (int i = 0; i < messages; ++i)
        QVERIFY(core.receive(dataMessage(1, QByteArray(size, 'x'))));
    QCOMPARE(core.queuedMessages(1), messages);
    QCOMPARE(core.bytesWaiting(), quint32(messages * size));
    QCOMPARE(idleMessage(core), QByteArray("DEVICE_WTSEND"));
}

void WeaknessesTest::theQueueOfAnUnopenedPortHasNoLimit()
{
    constexpr int limitOfOpenPorts = 124000;
    constexpr int beyond = 100;
    MessageCore core;
    QVERIFY(core.start());
    QVERIFY(core.receive(reopenMessage(42)));
    core.locked([&](QMutexLocker &) {
        for (int i = 1; i < limitOfOpenPorts; ++i)
            core._readQueues.value(42)->enqueue("DEVICE_CONN");
        core._totalBytesWaitingRead = 11 * limitOfOpenPorts;
    });
    for (int i = 0; i < beyond; ++i)
        QVERIFY(core.receive(reopenMessage(42)));
    QCOMPARE(core.queuedMessages(42), limitOfOpenPorts + beyond);
    QCOMPARE(core.bytesWaiting(), quint32(11 * (limitOfOpenPorts + beyond)));
    // No client can read them, and yet they keep the host from sending.
    QCOMPARE(core.read(42, 100), QByteArray());
    QCOMPARE(idleMessage(core), QByteArray("DEVICE_WTSEND"));
    QVERIFY(core.openConnection(42));
    QCOMPARE(core.bytesWaiting(), 0u);
    QCOMPARE(idleMessage(core), QByteArray("DEVICE_NODATA10000"));
}

void WeaknessesTest::aLostLinkEmptiesTheQueueOfAnUnopenedPort()
{
    MessageCore core;
    QVERIFY(core.start());
    QVERIFY(core.receive(reopenMessage(42)));
    QCOMPARE(core.bytesWaiting(), 11u);
    core.loseLink();
    QCOMPARE(core.bytesWaiting(), 0u);
    QCOMPARE(core.queuedMessages(42), 0);
}

void WeaknessesTest::everyPortThatTheHostNamesStaysInTheTables()
{
    constexpr int ports = 10000;
    MessageCore core;
    QVERIFY(core.start());
    for (int port = 0; port < ports; ++port)
        QVERIFY(core.receive(reopenMessage(port)));
    core.loseLink();
    QCOMPARE(core.locked([&](QMutexLocker &) { return core._readQueues.size(); }), ports);
    QCOMPARE(core.locked([&](QMutexLocker &) { return core._socketStates.size(); }), ports);
    QCOMPARE(core.nbClients(), 1u);
}

void WeaknessesTest::aPortThatIsOpenedAgainWithoutACloseCostsAClientForGood()
{
    MessageCore core;
    core.setup.maxClients = 2;
    QVERIFY(core.start());
    core.loseLink();
    QVERIFY(core.openConnection(1));
    QCOMPARE(core.nbClients(), 2u);
    QVERIFY(core.closeConnection(1));
    QVERIFY(!core.closeConnection(1));
    QCOMPARE(core.nbClients(), 1u);
    core.stop();
    QCOMPARE(core.nbClients(), 1u);
    SignalRecorder record(&core);
    QVERIFY(core.openConnection(1));
    QVERIFY(!core.openConnection(2));
    QCOMPARE(record.count("error(5,2)"), 1);
}

void WeaknessesTest::theFirstMessageCannotBeReadInItsOwnHandler()
{
    MessageCore core;
    QVERIFY(core.openPorts());
    QStringList events;
    const auto readIn = [&](const char *handler) {
        events.append(QString(handler) + ": " + core.read(1, 100));
    };
    QObject::connect(&core, QOverload<int>::of(&UsbHAL::readyRead), [&] { readIn("readyRead"); });
    QObject::connect(&core, QOverload<>::of(&UsbHAL::connected), [&] { readIn("connected"); });
    QVERIFY(core.receive(dataMessage(1, "abc")));
    QCOMPARE(events, (QStringList{"readyRead: ", "connected: abc"}));
    QVERIFY(core.receive(dataMessage(1, "def")));
    QCOMPARE(events.last(), QString("readyRead: def"));
}

void WeaknessesTest::theFirstOpenKnowsNoConfiguredTimeout()
{
    const auto driver = QSharedPointer<TimeoutDriver>::create();
    LinkProbe core(driver);
    ParamHal param = core.quietSetup();
    param.rdTimeout = 500;
    core.setupConfig(param);
    QVERIFY(core.connectIdle());
    core.stop();
    QCOMPARE(driver->readTimeouts, QList<quint32>{2000});
    QVERIFY(core.closeConnection(1));
    QVERIFY(core.connectIdle());
    core.stop();
    QCOMPARE(driver->readTimeouts, (QList<quint32>{2000, 500}));
}

void WeaknessesTest::theLogHoldsReceivedControlCharacters()
{
    MessageCore core;
    QVERIFY(core.start());
    const QByteArray received = "bad\x1b[2J\n01-01-2001 00:00:00:000 [THREAD 1] [stop:1] forged";
    QVERIFY(!core.receive(received));
    QFile file(core.log.folder() + "/UsbHal1.log");
    QVERIFY(file.open(QIODevice::ReadOnly));
    QVERIFY(file.readAll().contains("ERROR: Message received is not valid: " + received + '\n'));
    QVERIFY(core.log.contains("stop: forged"));
}

void WeaknessesTest::aDriverWithoutABufferSaysSoAtEveryRead()
{
    VirtualTime::setPauseDivisor(0);
    const LogCapture log;
    QVERIFY(UsbHalLog::getInstance()->open(log.folder(), QStringLiteral("UsbHal")));
    SilentNode driver;
    QVERIFY(driver.open());
    driver.loseBuffer();
    QByteArray data;
    for (int i = 0; i < 3; ++i)
        QCOMPARE(driver.read(&data), 0);
    QCOMPARE(log.count("_read: Error: raw data is null"), 3);
    QVERIFY(driver.close());
}

void WeaknessesTest::whatAHandlerWritesToThePortItReopenedIsRemoved()
{
    MessageCore core;
    QVERIFY(core.start());
    int written = 0;
    QObject::connect(&core, QOverload<int>::of(&UsbHAL::disconnected), [&](int port) {
        if (core.openConnection(port))
            written = core.write(port, "lost");
    });
    QVERIFY(core.closeConnection(1));
    QCOMPARE(core.socketStatus(1), SocketState::OPENED);
    QCOMPARE(written, 4);
    QCOMPARE(core.bytesToWrite(), 0);
    QVERIFY(core.log.contains("_onDisconnected: 1 messages removed from Write FIFO for port 1"));
}

void WeaknessesTest::errorsOfOtherThreadsPileUpUntilEventsAreHandled()
{
    constexpr int errors = 50;
    MessageCore core;
    QVERIFY(core.start());
    inBackground([&] {
        for (int i = 0; i < errors; ++i)
            core.openConnection(1);
    }).get();
    const QString line =
        QStringLiteral("_onError: Tried to open a port already opened ! Param = 1");
    QCOMPARE(core.log.count(line), 0);
    QCoreApplication::processEvents();
    QCOMPARE(core.log.count(line), errors);
}

void WeaknessesTest::aRunThatBeganWithoutAnEventLoopStaysWithoutAWatchdog()
{
    const auto run = [] {
        QList<bool> active;
        LinkProbe core;
        core.connectIdle(1);
        QEventLoop loop;
        loop.processEvents();
        active.append(core._mainLoopTimer.isActive());
        core.stop();
        core.connectIdle(2);
        active.append(core._mainLoopTimer.isActive());
        return active;
    };
    const QList<bool> watched = inBackground(run).get();
    QCOMPARE(watched, (QList<bool>{false, true}));
}

void WeaknessesTest::aHandlerHoldsUpTheLinkButNoClient()
{
    LinkProbe core;
    QVERIFY(core.connectStepwise());
    std::atomic<bool> entered{false};
    std::atomic<bool> held{true};
    const auto release = qScopeGuard([&] { held = false; });
    QObject::connect(
        &core, QOverload<int>::of(&UsbHAL::readyRead), &core,
        [&] {
            entered = true;
            while (held)
                QThread::msleep(1);
        },
        Qt::DirectConnection);
    const int reads = core.driver->reads();
    core.driver->feed(dataMessage(1, "one"));
    core.driver->feed(dataMessage(1, "two"));
    QTRY_VERIFY(entered);
    QCOMPARE(core.driver->reads(), reads);
    QCOMPARE(core.driver->unreadBlocks(), 1);
    QCOMPARE(core.read(1, 100), QByteArray("one"));
    QCOMPARE(core.write(1, "answer"), 6);
    held = false;
    QVERIFY(core.waitForReadyRead(1, 5000));
    QCOMPARE(core.read(1, 100), QByteArray("two"));
}

QTEST_GUILESS_MAIN(WeaknessesTest)
#include "tst_weaknesses.moc"
