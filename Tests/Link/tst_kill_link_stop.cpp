// SPDX-License-Identifier: MIT
#include "LinkProbe.h"
#include "WarningTrap.h"

#include <SignalRecorder.h>

#include <QSemaphore>
#include <QThread>

#include <memory>
#include <thread>
#include <vector>

namespace {

const QStringList killLines = {"stop: watchdog stopped", "stop: communication thread still running",
                               "_stopWorkerThread: communication thread did not stop -> killed",
                               "stop: USB driver closed"};

/** A core that gives its thread little time to end. */
class ImpatientProbe : public LinkProbe
{
public:
    explicit ImpatientProbe(quint32 threadStopTimeout = 50)
    {
        ParamHal param = quietSetup();
        param.threadStopTimeout = threadStopTimeout;
        setupConfig(param);
    }
    ~ImpatientProbe() override { shutDown(); }

    /** A fresh start carries data in both directions, so no lock was left behind. */
    bool worksAgain(int port)
    {
        release();
        driver->setIdleHost(true);
        if (!openConnection(port) || !waitForConnected(5000))
            return false;
        if (write(port, "alive") != 5 || !driver->waitForWrite(dataMessage(port, "alive")))
            return false;
        driver->feed(dataMessage(port, "answer"));
        return waitForReadyRead(port, 5000) && read(port, 100) == "answer";
    }
};

/** Threads that write log lines for as long as they live, and keep others waiting for the log. */
class LogStorm
{
public:
    explicit LogStorm(int count)
    {
        for (int i = 0; i < count; ++i)
            _threads.emplace_back([this] {
                while (!_done)
                    _writeLine();
            });
    }
    ~LogStorm()
    {
        _done = true;
        for (std::thread &thread : _threads)
            thread.join();
    }

private:
    // Slow enough for the log to keep all lines of the test.
    static void _writeLine()
    {
        UsbHalLog::getInstance()->log("storm", 1, "a line of some other thread");
        const QMutexLocker locker(UsbHalLog::getInstance()->getLogMutex());
        QThread::usleep(500);
    }

    std::atomic<bool> _done{false};
    std::vector<std::thread> _threads;
};

} // namespace

/** A stop that has to kill the communication thread, wherever it is. */
class KillLinkStopTest : public QObject
{
    Q_OBJECT

private slots:
    void init() { WarningTrap::set(); }
    void cleanup() { QCOMPARE(WarningTrap::take(), QStringList()); }

    void aThreadStuckInItsDriverIsKilled_data();
    void aThreadStuckInItsDriverIsKilled();
    void aThreadStuckInAnOpenIsKilled();
    void aThreadThatCannotReopenIsKilled();
    void aDriverThatRefusesToCloseAfterTheKillIsReported();
    void aHandlerOfTheErrorMayOpenAgain();
    void aHandlerThatDoesNotReturnIsNotKilled();
    void aThreadMayBeKilledAtAnyMoment();
    void aThreadMayBeKilledAmongLogLines();
    void aThreadMayBeKilledWhileItsOpensFail();
    void theDestructorKillsAsWell();

private:
    // Whether some of the stops had to kill, and all are accounted for.
    static bool _killed(const LinkProbe &core, int stops)
    {
        const int kills = core.log.count(killLines[2]);
        return kills > 0 && core.log.count(killLines[1]) == kills &&
               core.log.count("stop: communication thread stopped") == stops - kills;
    }
};

void KillLinkStopTest::aThreadStuckInItsDriverIsKilled_data()
{
    QTest::addColumn<bool>("write");
    QTest::newRow("in a read") << false;
    QTest::newRow("in a write") << true;
}

void KillLinkStopTest::aThreadStuckInItsDriverIsKilled()
{
    QFETCH(bool, write);
    ImpatientProbe core;
    QVERIFY(core.connectIdle(1));
    SignalRecorder recorder(&core);
    write ? core.driver->blockWrites() : core.driver->blockReads();
    QVERIFY(core.driver->waitForBlockedCall());
    core.stop();
    QStringList lines = core.log.lines();
    const QStringList state = {"_updateStatus: UsbHal switched to DISCONNECTED state"};
    QCOMPARE(lines.mid(lines.indexOf(killLines.first())), killLines + state);
    QCOMPARE(recorder.all(), QStringList("stateChanged(DISCONNECTED)"));
    QCOMPARE(core.driver->cancels(), 1);
    QCOMPARE(core.driver->closes(), 1);
    QVERIFY(!core.isRunning());
    QVERIFY(!core._hwDriver);
    QVERIFY(!core._driverOpened);
    QVERIFY(core.worksAgain(2));
}

void KillLinkStopTest::aThreadStuckInAnOpenIsKilled()
{
    ImpatientProbe core;
    core.driver->blockOpens();
    QVERIFY(core.openConnection(1));
    QVERIFY(core.driver->waitForBlockedCall());
    core.stop();
    const QStringList lines = core.log.lines();
    QCOMPARE(lines.mid(lines.indexOf(killLines.first())), killLines);
    QCOMPARE(core.driver->cancels(), 0);
    QCOMPARE(core.driver->closes(), 0);
    QVERIFY(core.worksAgain(2));
}

void KillLinkStopTest::aThreadThatCannotReopenIsKilled()
{
    ImpatientProbe core;
    core.driver->setCloseDriverAfterConnectionError(true);
    QVERIFY(core.connectIdle());
    core.driver->failOpens(-1);
    core.driver->failWrites(5);
    QVERIFY(core.log.waitFor("_connectedFunc: Unable to open driver, wait before retry", 2));
    core.stop();
    QVERIFY(core.log.contains(killLines[2]));
    QCOMPARE(core.driver->closes(), 1);
    core.driver->failOpens(0);
    QVERIFY(core.worksAgain(2));
}

void KillLinkStopTest::aDriverThatRefusesToCloseAfterTheKillIsReported()
{
    ImpatientProbe core;
    QVERIFY(core.connectIdle());
    SignalRecorder recorder(&core);
    core.driver->blockReads();
    core.driver->failCloses(1);
    QVERIFY(core.driver->waitForBlockedCall());
    core.stop();
    QCOMPARE(recorder.all(), QStringList({"error(8,0)", "stateChanged(DISCONNECTED)"}));
    QCOMPARE(core.logged("stop").last(), QString("ERROR: could not close USB driver !"));
    QVERIFY(core.log.contains("_onError: Failed to close driver ! Param = 0"));
    QCOMPARE(core._hwDriver, core.driver.data());
    QVERIFY(core._driverOpened);
    QVERIFY(core.worksAgain(2));
}

void KillLinkStopTest::aHandlerOfTheErrorMayOpenAgain()
{
    ImpatientProbe core(5000);
    QVERIFY(core.connectStepwise(1));
    core.locked([&](QMutexLocker &) { core._param.threadStopTimeout = 50; });
    core.driver->blockReads();
    QVERIFY(core.turn());
    QVERIFY(core.driver->waitForBlockedCall());
    core.driver->failCloses(1);
    int opened = -1;
    const auto handler = QObject::connect(
        &core, &UsbHAL::error, &core,
        [&](int code) {
            if (code == 8)
                opened = core.openConnection(2);
        },
        Qt::DirectConnection);
    core.stop();
    QVERIFY(QObject::disconnect(handler));
    QCOMPARE(opened, 1);
    core.release();
    core.driver->setIdleHost(true);
    QVERIFY(core.waitForConnected(5000));
    QCOMPARE(core.socketStatus(2), SocketState::OPENED);
    core.locked([&](QMutexLocker &) { core._param.threadStopTimeout = 5000; });
}

void KillLinkStopTest::aHandlerThatDoesNotReturnIsNotKilled()
{
    ImpatientProbe core;
    QVERIFY(core.connectStepwise(1));
    QSemaphore entered;
    std::atomic<bool> mayReturn{false};
    std::atomic<bool> returned{false};
    std::atomic<bool> opened{true};
    const auto handler = QObject::connect(
        &core, QOverload<int>::of(&UsbHAL::readyRead), &core,
        [&] {
            entered.release();
            while (!mayReturn)
                QThread::msleep(1);
            opened = core.openConnection(2);
            returned = true;
        },
        Qt::DirectConnection);
    core.driver->feed(dataMessage(1, "data"));
    QVERIFY(entered.tryAcquire(1, 5000));
    core.stop();
    QVERIFY(core.log.contains("_stopWorkerThread: ERROR: could not stop communication thread !"));
    QVERIFY(core.isRunning());
    mayReturn = true;
    QVERIFY(core.waitForEndOfThread());
    QVERIFY(returned);
    QVERIFY(!opened); // the kill strikes as the handler returns
    QCOMPARE(core.socketStatus(2), SocketState::CLOSED);
    QVERIFY(QObject::disconnect(handler));
    QVERIFY(core.worksAgain(2));
}

void KillLinkStopTest::aThreadMayBeKilledAtAnyMoment()
{
    ImpatientProbe core(0);
    for (int i = 0; i < 60; ++i) {
        core.driver->setIdleHost(true);
        core.transfers->clearCalls();
        QVERIFY(core.openConnection(1));
        QVERIFY(core.transfers->waitForCalls(i % 4));
        core.stop();
        QVERIFY(!core.isRunning());
        QVERIFY(!core._hwDriver);
        QVERIFY(core.closeConnection(1));
    }
    QVERIFY(_killed(core, 60));
    core._param.threadStopTimeout = 5000;
    QVERIFY(core.worksAgain(2));
}

void KillLinkStopTest::aThreadMayBeKilledAmongLogLines()
{
    ImpatientProbe core(0);
    {
        const LogStorm storm(3);
        for (int i = 0; i < 20; ++i) {
            // Each block takes three lines.
            for (int j = 0; j < 10; ++j)
                core.driver->feed("a message that is not valid");
            core.transfers->clearCalls();
            QVERIFY(core.openConnection(1));
            QVERIFY(core.transfers->waitForCalls(1));
            core.stop();
            QVERIFY(!core.isRunning());
            QVERIFY(core.closeConnection(1));
        }
    }
    QVERIFY(_killed(core, 20));
    QByteArray leftOver;
    while (core.driver->unreadBlocks() > 0)
        QVERIFY(core.driver->read(&leftOver) > 0);
    core._param.threadStopTimeout = 5000;
    QVERIFY(core.worksAgain(2));
    // No line was torn.
    const QList<LogEntry> entries = core.log.entries();
    for (const LogEntry &entry : entries)
        QVERIFY2(entry.function != "storm" || entry.message == "a line of some other thread",
                 qPrintable(entry.message));
}

void KillLinkStopTest::aThreadMayBeKilledWhileItsOpensFail()
{
    ImpatientProbe core(0);
    core.driver->failOpens(-1);
    for (int i = 0; i < 40; ++i) {
        const int opens = core.driver->opens();
        QVERIFY(core.openConnection(1));
        QTRY_VERIFY(core.driver->opens() > opens + i % 3);
        core.stop();
        QVERIFY(!core.isRunning());
        QVERIFY(core.closeConnection(1));
    }
    QVERIFY(_killed(core, 40));
    core.driver->failOpens(0);
    core._param.threadStopTimeout = 5000;
    QVERIFY(core.worksAgain(2));
}

void KillLinkStopTest::theDestructorKillsAsWell()
{
    const LogCapture log;
    const auto driver = QSharedPointer<RecordingDriver>::create();
    auto core = std::make_unique<UsbHAL>(
        QList<QSharedPointer<AbstractDriver>>{driver.staticCast<AbstractDriver>()});
    ParamHal param;
    core->getDefaultSetup(param);
    param.logDir = log.folder();
    param.threadStopTimeout = 50;
    core->setupConfig(param);
    driver->blockReads();
    QVERIFY(core->openConnection(1));
    QVERIFY(driver->waitForBlockedCall());
    core.reset();
    const QStringList lines = log.lines();
    QCOMPARE(lines.mid(lines.indexOf(killLines.first())), killLines);
    QCOMPARE(driver->closes(), 1);
    driver->releaseReads();
    ImpatientProbe next(5000);
    QVERIFY(next.worksAgain(1));
}

QTEST_GUILESS_MAIN(KillLinkStopTest)
#include "tst_kill_link_stop.moc"
