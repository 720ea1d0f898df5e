// SPDX-License-Identifier: MIT
#include "LinkProbe.h"
#include "WarningTrap.h"

#include <SignalRecorder.h>

#include <QSemaphore>

namespace {

const QString killed = "_stopWorkerThread: communication thread did not stop -> killed";

} // namespace

/** A watchdog that has to kill the communication thread, and what comes after. */
class KillLinkWatchdogTest : public QObject
{
    Q_OBJECT

private slots:
    void init() { WarningTrap::set(); }
    void cleanup() { QCOMPARE(WarningTrap::take(), QStringList()); }

    void aStuckThreadIsKilledAndStartedAfresh_data();
    void aStuckThreadIsKilledAndStartedAfresh();
    void theRestartReportsTheLoss();
    void aThreadThatSticksAgainIsKilledAgain();
    void aDeviceThatAnswersTheCancelGoesOn();
    void aStopInAHandlerOfTheRestartWins();
    void aHandlersWaitEndsBeforeTheKill();
    void aDestructorThatOutlastsTheKillMayCallTheCore();
    void theDefaultsGiveAThreadAboutFourSeconds();

private:
    static ParamHal _setup(const LinkProbe &core)
    {
        ParamHal param = core.testSetup();
        param.maxWatchdogErrors = 3;
        param.threadStopTimeout = 50;
        return param;
    }
    // The blocked calls go on before the watchdog starts the thread afresh.
    static void _releaseOnLoss(LinkProbe &core)
    {
        QObject::connect(
            &core, &UsbHAL::stateChanged, &core,
            [&core](DriverState state) {
                if (state == DriverState::DISCONNECTED)
                    core.release();
            },
            Qt::DirectConnection);
    }
};

void KillLinkWatchdogTest::aStuckThreadIsKilledAndStartedAfresh_data()
{
    QTest::addColumn<bool>("write");
    QTest::newRow("in a read") << false;
    QTest::newRow("in a write") << true;
}

void KillLinkWatchdogTest::aStuckThreadIsKilledAndStartedAfresh()
{
    QFETCH(bool, write);
    LinkProbe core;
    core.setupConfig(_setup(core));
    QVERIFY(core.connectIdle());
    _releaseOnLoss(core);
    write ? core.driver->blockWrites() : core.driver->blockReads();
    QTRY_COMPARE(core.driver->opens(), 2);
    QStringList lines = core.log.lines();
    lines = lines.mid(lines.indexOf("_mainLoop: watchdog errors: 4"), 6);
    const QStringList expected = {
        "_mainLoop: watchdog errors: 4",
        "_mainLoop: max watchdog errors: 3",
        killed,
        "_updateStatus: UsbHal switched to DISCONNECTED state",
        "_changeAllSocketsState: emit disconnected",
        "_onDisconnected: socket #1DISCONNECTED",
    };
    QCOMPARE(lines, expected);
    QCOMPARE(core.driver->cancels(), 1);
    QCOMPARE(core.driver->closes(), 1);
    QVERIFY(core.isRunning());
    QTRY_COMPARE(core.socketStatus(1), SocketState::OPENED);
    QTRY_COMPARE(core.write(1, "alive"), 5);
    QVERIFY(core.driver->waitForWrite(dataMessage(1, "alive")));
    QVERIFY(core._mainLoopTimer.isActive());
}

void KillLinkWatchdogTest::theRestartReportsTheLoss()
{
    LinkProbe core;
    core.setupConfig(_setup(core));
    QVERIFY(core.connectIdle());
    SignalRecorder recorder(&core);
    _releaseOnLoss(core);
    core.driver->blockReads();
    QVERIFY(recorder.waitFor("socketStateChanged(1,OPENED)"));
    const QStringList expected = {
        "stateChanged(DISCONNECTED)",  "disconnected(1)", "socketStateChanged(1,DISCONNECTED)",
        "stateChanged(CONNECTED)",     "connected",       "connected(1)",
        "socketStateChanged(1,OPENED)"};
    QCOMPARE(recorder.all(), expected);
}

void KillLinkWatchdogTest::aThreadThatSticksAgainIsKilledAgain()
{
    LinkProbe core;
    core.setupConfig(_setup(core));
    QVERIFY(core.connectIdle());
    core.driver->blockReads();
    QVERIFY(core.log.waitFor(killed, 3));
    core.release();
    QTRY_COMPARE(core.status(), DriverState::CONNECTED);
    QTRY_COMPARE(core.write(1, "alive"), 5);
    QVERIFY(core.driver->waitForWrite(dataMessage(1, "alive")));
}

void KillLinkWatchdogTest::aDeviceThatAnswersTheCancelGoesOn()
{
    LinkProbe core;
    core.setupConfig(_setup(core));
    core.driver->setHonoursCancel(true);
    QVERIFY(core.connectIdle());
    core.driver->blockReads();
    // The device's thread was not asked to end, so it works again while the watchdog waits for it.
    QVERIFY(core.log.waitFor(killed));
    QCOMPARE(core.driver->cancels(), 1);
    QTRY_COMPARE(core.driver->opens(), 2);
    QTRY_COMPARE(core.status(), DriverState::CONNECTED);
}

void KillLinkWatchdogTest::aStopInAHandlerOfTheRestartWins()
{
    LinkProbe core;
    core.setupConfig(_setup(core));
    QVERIFY(core.connectIdle());
    QObject::connect(
        &core, &UsbHAL::stateChanged, &core, [&] { core.stop(); }, Qt::DirectConnection);
    core.driver->blockReads();
    QVERIFY(core.log.waitFor("stop: communication thread stopped"));
    QTRY_VERIFY(!core._mainLoopTimer.isActive());
    QVERIFY(!core.isRunning());
    QCOMPARE(core.driver->opens(), 1);
    QVERIFY(!core._running);
}

void KillLinkWatchdogTest::aHandlersWaitEndsBeforeTheKill()
{
    LinkProbe core;
    core.setupConfig(_setup(core));
    QVERIFY(core.connectIdle());
    std::atomic<int> reached{-1};
    const auto handler = QObject::connect(
        &core, QOverload<int>::of(&UsbHAL::readyRead), &core,
        [&](int port) {
            core.read(port, 100);
            reached = core.waitForReadyRead(port, 600000);
        },
        Qt::DirectConnection);
    core.driver->feed(dataMessage(1, "data"));
    QTRY_COMPARE(int(reached), 0);
    QVERIFY(QObject::disconnect(handler));
    QVERIFY(core.log.waitFor(killed));
    QTRY_COMPARE(core.driver->opens(), 2);
    QTRY_COMPARE(core.status(), DriverState::CONNECTED);
}

void KillLinkWatchdogTest::aDestructorThatOutlastsTheKillMayCallTheCore()
{
    LinkProbe core;
    core.setupConfig(_setup(core));
    QVERIFY(core.connectIdle());
    std::atomic<int> answered{-1};
    QSemaphore handled;
    QObject::connect(
        &core, QOverload<int>::of(&UsbHAL::readyRead), &core,
        [&](int port) {
            core.read(port, 100);
            deleteWithThread([&] {
                core.log.waitFor("_stopWorkerThread: ERROR: could not stop communication thread !",
                                 1, 20000);
                answered = core.bytesToWrite();
                core.release();
            });
            handled.release();
        },
        Qt::DirectConnection);
    core.driver->feed(dataMessage(1, "data"));
    QVERIFY(handled.tryAcquire(1, 5000));
    core.driver->blockReads();
    QTRY_COMPARE_WITH_TIMEOUT(int(answered), 0, 30000);
    QTRY_COMPARE(core.driver->opens(), 2);
    QTRY_COMPARE(core.status(), DriverState::CONNECTED);
}

void KillLinkWatchdogTest::theDefaultsGiveAThreadAboutFourSeconds()
{
    LinkProbe core;
    ParamHal param = core.testSetup();
    param.mainLoopPeriod = 0;
    core.setupConfig(param);
    QVERIFY(core.connectIdle());
    _releaseOnLoss(core);
    core.driver->blockReads();
    QVERIFY(core.driver->waitForBlockedCall());
    QElapsedTimer timer;
    timer.start();
    QTRY_COMPARE_WITH_TIMEOUT(core.driver->cancels(), 1, 20000);
    QVERIFY(timer.elapsed() >= 4000);
    QVERIFY(core.log.contains("_mainLoop: watchdog errors: 41"));
    QVERIFY(core.log.contains("_mainLoop: max watchdog errors: 40"));
    QTRY_COMPARE(core.driver->opens(), 2);
}

QTEST_GUILESS_MAIN(KillLinkWatchdogTest)
#include "tst_kill_link_watchdog.moc"
