// SPDX-License-Identifier: MIT
#include "LinkProbe.h"
#include "WarningTrap.h"

#include <Background.h>
#include <SignalRecorder.h>

namespace {

/** A core whose watchdog acts soon, with its ticks counted. */
class WatchedProbe : public LinkProbe
{
public:
    WatchedProbe()
    {
        QObject::connect(&_mainLoopTimer, &QTimer::timeout, [this] { ++ticks; });
    }
    ~WatchedProbe() override { shutDown(); }

    void configureWatchdog(quint32 maxErrors)
    {
        ParamHal param = testSetup();
        param.maxWatchdogErrors = maxErrors;
        param.threadStopTimeout = 20000;
        setupConfig(param);
    }
    bool waitForTicks(int count)
    {
        const int end = ticks + count;
        return QTest::qWaitFor([&] { return ticks >= end; }, 10000);
    }
    quint32 errors()
    {
        return locked([this](QMutexLocker &) { return _watchdogErrors; });
    }
    void tick() { QMetaObject::invokeMethod(this, "_mainLoop", Qt::DirectConnection); }

    int ticks = 0;
};

const QString gaveUp = "_mainLoop: max watchdog errors: 3";

} // namespace

/** What the watchdog takes for a stuck thread, and what keeps it quiet. */
class LinkWatchdogTest : public QObject
{
    Q_OBJECT

private slots:
    void init() { WarningTrap::set(); }
    void cleanup() { QCOMPARE(WarningTrap::take(), QStringList()); }

    void aThreadAtWorkIsLeftAlone();
    void eachTickWithoutProgressCounts();
    void progressEndsTheCount();
    void theTimerActsOncePerTickAfterEveryStart();
    void aTickBeforeItsTimeDoesNothing();
    void aThreadWithoutADriverIsNotWatched();
    void aHandshakeThatMustNotBeClosedIsNotWatched();
    void theWrapOfThePassCounterIsProgress();
    void aStoppedCoreIsNotWatched();

    void aCancelledHostThreadIsStartedAfresh();
    void theRestartReportsTheLoss();
    void aStopDuringTheRestartWins();
    void aHandlerMayStopDuringTheRestart();
};

void LinkWatchdogTest::aThreadAtWorkIsLeftAlone()
{
    WatchedProbe core;
    core.configureWatchdog(100);
    QVERIFY(core.connectIdle());
    QVERIFY(core.waitForTicks(20));
    QVERIFY(core.locked([&](QMutexLocker &) { return core._lastLoopCounter; }) > 0);
    QCOMPARE(core.logged("_mainLoop"), QStringList());
    QCOMPARE(core.driver->opens(), 1);
}

void LinkWatchdogTest::eachTickWithoutProgressCounts()
{
    WatchedProbe core;
    core.configureWatchdog(1000000);
    QVERIFY(core.connectIdle());
    core.driver->blockReads();
    QVERIFY(core.driver->waitForBlockedCall());
    QVERIFY(core.waitForTicks(2));
    const quint32 before = core.errors();
    const int ticks = core.ticks;
    QVERIFY(core.waitForTicks(40));
    const quint32 counted = core.errors() - before;
    // A late tick shortens the time to the next one, which then does not act.
    QVERIFY(counted >= 20);
    QVERIFY(counted <= quint32(core.ticks - ticks));
}

void LinkWatchdogTest::progressEndsTheCount()
{
    WatchedProbe core;
    core.configureWatchdog(1000000);
    QVERIFY(core.connectIdle());
    core.driver->blockReads();
    QTRY_VERIFY(core.errors() >= 3);
    core.driver->releaseReads();
    QTRY_COMPARE(core.errors(), 0u);
    QCOMPARE(core.logged("_mainLoop"), QStringList());
}

void LinkWatchdogTest::theTimerActsOncePerTickAfterEveryStart()
{
    WatchedProbe core;
    core.configureWatchdog(1000000);
    for (int port = 1; port <= 4; ++port) {
        QVERIFY(core.connectIdle(port));
        if (port < 4)
            core.stop();
    }
    core.driver->blockReads();
    QVERIFY(core.driver->waitForBlockedCall());
    QVERIFY(core.waitForTicks(2));
    const quint32 before = core.errors();
    const int ticks = core.ticks;
    QVERIFY(core.waitForTicks(20));
    QVERIFY(core.errors() - before <= quint32(core.ticks - ticks));
    QVERIFY(core.errors() > before);
}

void LinkWatchdogTest::aTickBeforeItsTimeDoesNothing()
{
    WatchedProbe core;
    ParamHal param = core.quietSetup();
    param.mainLoopPeriod = 3600000;
    core.setupConfig(param);
    QVERIFY(core.connectIdle());
    core.driver->blockReads();
    QVERIFY(core.driver->waitForBlockedCall());
    for (int i = 0; i < 10; ++i)
        core.tick();
    QCOMPARE(core.errors(), 0u);
    QCOMPARE(core.locked([&](QMutexLocker &) { return core._lastLoopCounter; }), 0u);
}

void LinkWatchdogTest::aThreadWithoutADriverIsNotWatched()
{
    WatchedProbe core;
    core.configureWatchdog(0);
    core.driver->blockOpens();
    QVERIFY(core.openConnection(1));
    QVERIFY(core.driver->waitForBlockedCall());
    QVERIFY(core.waitForTicks(20));
    QCOMPARE(core.errors(), 0u);
    QCOMPARE(core.logged("_mainLoop"), QStringList());
    QVERIFY(core.isRunning());
}

void LinkWatchdogTest::aHandshakeThatMustNotBeClosedIsNotWatched()
{
    WatchedProbe core;
    core.configureWatchdog(1000000);
    core.driver->setAvoidClosingDuringHandshake(true);
    core.driver->setReadWait(600000);
    QVERIFY(core.openConnection(1));
    QVERIFY(core.driver->waitForReads(1));
    QVERIFY(core.waitForTicks(20));
    QCOMPARE(core.errors(), 0u);
    QVERIFY(core.turn());
    QTRY_VERIFY(core.errors() > 0);
}

void LinkWatchdogTest::theWrapOfThePassCounterIsProgress()
{
    WatchedProbe core;
    core.configureWatchdog(100);
    QVERIFY(core.connectIdle());
    core.locked([&](QMutexLocker &) {
        core._loopCounter = 0xFFFFFFFE;
        core._lastLoopCounter = 0xFFFFFFFD;
    });
    const auto last = [&] {
        return core.locked([&](QMutexLocker &) { return core._lastLoopCounter; });
    };
    QTRY_VERIFY(last() >= 0xFFFFFFFE || last() < 1000);
    QTRY_VERIFY(last() > 5 && last() < 0xFFFF0000);
    QVERIFY(core.waitForTicks(5));
    QCOMPARE(core.logged("_mainLoop"), QStringList());
    QCOMPARE(core.driver->opens(), 1);
    QVERIFY(core.errors() < 100);
}

void LinkWatchdogTest::aStoppedCoreIsNotWatched()
{
    WatchedProbe core;
    ParamHal param = core.testSetup();
    param.maxWatchdogErrors = 0;
    param.mainLoopPeriod = 1000;
    core.setupConfig(param);
    QVERIFY(core.connectIdle());
    core.driver->failCloses(1);
    core.stop();
    QVERIFY(core._driverOpened);
    core._param.mainLoopPeriod = 0;
    for (int i = 0; i < 100; ++i)
        core.tick();
    QVERIFY(!core.isRunning());
    QCOMPARE(core.driver->opens(), 1);
    QCOMPARE(core.logged("_mainLoop"), QStringList());
}

void LinkWatchdogTest::aCancelledHostThreadIsStartedAfresh()
{
    WatchedProbe core;
    core.playsHost = true;
    core.configureWatchdog(3);
    core.driver->setHonoursCancel(true);
    QVERIFY(core.connectIdle());
    core.driver->blockReads();
    QVERIFY(core.log.waitFor(gaveUp));
    QTRY_COMPARE(core.driver->opens(), 2);
    QCOMPARE(core.logged("_mainLoop"),
             QStringList({"watchdog errors: 4", "max watchdog errors: 3"}));
    QCOMPARE(core.logged("_stopWorkerThread"), QStringList());
    QVERIFY(core.log.contains("_endOfConnectedThread: clean exit of communication thread"));
    QTRY_COMPARE(core.status(), DriverState::CONNECTED);
    QTRY_COMPARE(core.write(1, "alive"), 5);
    QVERIFY(core.driver->waitForWrite(dataMessage(1, "alive")));
}

void LinkWatchdogTest::theRestartReportsTheLoss()
{
    WatchedProbe core;
    core.playsHost = true;
    core.configureWatchdog(3);
    core.driver->setHonoursCancel(true);
    QVERIFY(core.connectIdle());
    SignalRecorder recorder(&core);
    core.driver->blockReads();
    QVERIFY(recorder.waitFor("socketStateChanged(1,OPENED)"));
    const QStringList expected = {
        "stateChanged(DISCONNECTED)",  "disconnected(1)", "socketStateChanged(1,DISCONNECTED)",
        "stateChanged(CONNECTED)",     "connected",       "connected(1)",
        "socketStateChanged(1,OPENED)"};
    QCOMPARE(recorder.all(), expected);
}

void LinkWatchdogTest::aStopDuringTheRestartWins()
{
    WatchedProbe core;
    core.configureWatchdog(3);
    QVERIFY(core.connectIdle());
    core.driver->blockReads();
    std::atomic<bool> stopped{false};
    auto stopping = inBackground([&] {
        core.log.waitFor(gaveUp, 1, 20000);
        core.stop();
        stopped = true;
    });
    auto releasing = inBackground([&] {
        core.log.waitFor("stop: watchdog stopped", 1, 20000);
        core.driver->releaseReads();
    });
    QTRY_VERIFY_WITH_TIMEOUT(stopped, 30000);
    stopping.get();
    releasing.get();
    QVERIFY(core.waitForTicks(0));
    QVERIFY(!core.isRunning());
    QCOMPARE(core.driver->opens(), 1);
    QCOMPARE(core.status(), DriverState::DISCONNECTED);
    QCOMPARE(core.socketStatus(1), SocketState::OPENED);
    QVERIFY(!core._running);
}

void LinkWatchdogTest::aHandlerMayStopDuringTheRestart()
{
    WatchedProbe core;
    core.playsHost = true;
    core.configureWatchdog(3);
    core.driver->setHonoursCancel(true);
    QVERIFY(core.connectIdle());
    QObject::connect(
        &core, QOverload<int>::of(&UsbHAL::disconnected), &core, [&] { core.stop(); },
        Qt::DirectConnection);
    core.driver->blockReads();
    QVERIFY(core.log.waitFor("stop: communication thread stopped"));
    QVERIFY(!core.isRunning());
    QCOMPARE(core.driver->opens(), 1);
    QVERIFY(!core._running);
}

QTEST_GUILESS_MAIN(LinkWatchdogTest)
#include "tst_link_watchdog.moc"
