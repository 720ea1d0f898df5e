// SPDX-License-Identifier: MIT
#include "LinkProbe.h"
#include "WarningTrap.h"

#include <Background.h>
#include <SignalRecorder.h>

#include <QThread>

namespace {

const QString threadStopped = "stop: communication thread stopped";
const QString stillRunning = "stop: communication thread still running";
const QString watchdogStopped = "stop: watchdog stopped";

} // namespace

/** stop() in every situation in which the thread ends by itself, and the start after it. */
class LinkStopTest : public QObject
{
    Q_OBJECT

private slots:
    void init() { WarningTrap::set(); }
    void cleanup() { QCOMPARE(WarningTrap::take(), QStringList()); }

    void aCoreThatNeverRanIsStopped();
    void anUnconfiguredCoreIsStopped();
    void aStopWithoutALinkChangesNoState();
    void aStopLeavesThePortsAsTheyAre();
    void aStopLogsItsSteps();
    void aSecondStopFindsNothingToDo();
    void aBlockedDriverIsCancelled_data();
    void aBlockedDriverIsCancelled();
    void twoThreadsMayStopAtOnce();
    void aStopFromAHandlerNeitherWaitsNorKills();
    void aLinkThatAHandlerStoppedDoesNotComeUp();
    void aHandlerMayStopAndOpenAgain();
    void aHandlerMayStopAndOpenAndStopAgain();
    void aStopOfTheNewStartEndsIt();
    void failedOpensEndWithAStop();

    void theCommunicationStartsAgain();
    void aPortThatIsStillOpenIsNotOpenedAgain();
    void aStartEmptiesTheQueues();
    void anOpenDuringAStopStartsAfresh();
    void anOpenGivesUpOnAStopThatDoesNotEnd();
    void anOpenWaitsForTheThreadThatAHandlerStopped();
    void aHandlerCannotOpenWhileAStopWaitsForIt();
};

void LinkStopTest::aCoreThatNeverRanIsStopped()
{
    LinkProbe core;
    core.configure();
    SignalRecorder recorder(&core);
    core.stop();
    QCOMPARE(recorder.all(), QStringList());
    QCOMPARE(core.status(), DriverState::DISCONNECTED);
    const QStringList expected = {"watchdog stopped", "communication thread stopped"};
    QCOMPARE(core.logged("stop"), expected);
    QCOMPARE(core.driver->cancels(), 0);
}

void LinkStopTest::anUnconfiguredCoreIsStopped()
{
    LinkProbe core;
    SignalRecorder recorder(&core);
    core.stop();
    core.stop();
    QCOMPARE(recorder.all(), QStringList());
    QCOMPARE(core.status(), DriverState::DISCONNECTED);
    QVERIFY(!core.isRunning());
}

void LinkStopTest::aStopWithoutALinkChangesNoState()
{
    LinkProbe core;
    core.setupConfig(core.quietSetup());
    QVERIFY(core.openConnection(1));
    QVERIFY(core.driver->waitForReads(3));
    SignalRecorder recorder(&core);
    core.stop();
    QCOMPARE(recorder.all(), QStringList());
    QVERIFY(!core.isRunning());
    QCOMPARE(core.driver->closes(), 1);
}

void LinkStopTest::aStopLeavesThePortsAsTheyAre()
{
    LinkProbe core;
    QVERIFY(core.connectStepwise(1));
    QVERIFY(core.turn(dataMessage(1, "unread")));
    core.write(1, "unsent");
    SignalRecorder recorder(&core);
    core.driver->setReadWait(5);
    core.driver->blockWrites();
    core.driver->failReads(-1);
    core.stop();
    QCOMPARE(recorder.all(), QStringList("stateChanged(DISCONNECTED)"));
    QCOMPARE(core.socketStatus(1), SocketState::OPENED);
    QCOMPARE(core.nbClients(), 1u);
    QCOMPARE(core.nbBytesReceived(1), 6);
    QCOMPARE(core.bytesToWrite(), 1);
    QVERIFY(core.read(1, 100).isEmpty());
    QCOMPARE(core.write(1, "more"), 0);
}

void LinkStopTest::aStopLogsItsSteps()
{
    LinkProbe core;
    QVERIFY(core.connectIdle());
    core.stop();
    const QStringList lines = core.log.lines();
    const QStringList expected = {
        watchdogStopped,
        "_connectedFunc: USB driver closed",
        "_updateStatus: UsbHal switched to DISCONNECTED state",
        "_endOfConnectedThread: clean exit of communication thread",
        "_endOfConnectedThread: watchdog stopped",
        threadStopped,
    };
    QCOMPARE(lines.mid(lines.indexOf(watchdogStopped)), expected);
    QCOMPARE(core.driver->cancels(), 1);
}

void LinkStopTest::aSecondStopFindsNothingToDo()
{
    LinkProbe core;
    QVERIFY(core.connectIdle());
    core.stop();
    SignalRecorder recorder(&core);
    core.stop();
    QCOMPARE(recorder.all(), QStringList());
    QCOMPARE(core.log.count(threadStopped), 2);
    QCOMPARE(core.driver->cancels(), 1);
    QCOMPARE(core.driver->closes(), 1);
}

void LinkStopTest::aBlockedDriverIsCancelled_data()
{
    QTest::addColumn<bool>("write");
    QTest::newRow("in a read") << false;
    QTest::newRow("in a write") << true;
}

void LinkStopTest::aBlockedDriverIsCancelled()
{
    QFETCH(bool, write);
    LinkProbe core;
    ParamHal param = core.quietSetup();
    param.threadStopTimeout = 20000;
    core.setupConfig(param);
    core.driver->setHonoursCancel(true);
    QVERIFY(core.connectIdle());
    write ? core.driver->blockWrites() : core.driver->blockReads();
    QVERIFY(core.driver->waitForBlockedCall());
    core.stop();
    QCOMPARE(core.driver->cancels(), 1);
    QVERIFY(!core.isRunning());
    QVERIFY(core.log.contains(threadStopped));
    QVERIFY(!core.log.contains(stillRunning));
}

void LinkStopTest::twoThreadsMayStopAtOnce()
{
    LinkProbe core;
    SignalRecorder recorder(&core);
    for (int i = 0; i < 5; ++i) {
        QVERIFY(core.connectIdle());
        recorder.take();
        auto first = inBackground([&] { core.stop(); });
        auto second = inBackground([&] { core.stop(); });
        first.get();
        second.get();
        QVERIFY(!core.isRunning());
        QCOMPARE(recorder.all(), QStringList("stateChanged(DISCONNECTED)"));
        QCOMPARE(core.driver->closes(), i + 1);
        QVERIFY(core.closeConnection(1));
    }
    QVERIFY(!core.log.contains(stillRunning));
}

void LinkStopTest::aStopFromAHandlerNeitherWaitsNorKills()
{
    LinkProbe core;
    QVERIFY(core.connectStepwise());
    std::atomic<bool> returned{false};
    std::atomic<bool> ranOn{false};
    QObject::connect(
        &core, QOverload<int>::of(&UsbHAL::readyRead), &core,
        [&] {
            core.stop();
            ranOn = core.isRunning();
            returned = true;
        },
        Qt::DirectConnection);
    core.driver->feed(dataMessage(1, "data"));
    QVERIFY(core.waitForEndOfThread());
    QVERIFY(returned);
    QVERIFY(ranOn);
    QCOMPARE(core.logged("stop"), QStringList("watchdog stopped"));
    QCOMPARE(core.driver->cancels(), 1);
    QCOMPARE(core.driver->closes(), 1);
    QCOMPARE(core.status(), DriverState::DISCONNECTED);
    QVERIFY(core.log.contains("_endOfConnectedThread: clean exit of communication thread"));
}

void LinkStopTest::aLinkThatAHandlerStoppedDoesNotComeUp()
{
    LinkProbe core;
    core.setupConfig(core.quietSetup());
    QVERIFY(core.openConnection(1));
    SignalRecorder recorder(&core);
    recorder.setHandler([&](const QString &signal) {
        if (signal == "readyRead(1)")
            core.stop();
    });
    core.driver->feed(dataMessage(1, "data"));
    QVERIFY(core.waitForEndOfThread());
    QCOMPARE(recorder.take(), QStringList("readyRead(1)"));
    QCOMPARE(core.status(), DriverState::DISCONNECTED);
}

void LinkStopTest::aHandlerMayStopAndOpenAgain()
{
    LinkProbe core;
    QVERIFY(core.connectStepwise(1));
    std::atomic<int> opened{-1};
    const auto handler = QObject::connect(
        &core, QOverload<int>::of(&UsbHAL::readyRead), &core,
        [&] {
            core.stop();
            opened = core.openConnection(2);
        },
        Qt::DirectConnection);
    core.driver->feed(dataMessage(1, "data"));
    QTRY_VERIFY(opened >= 0);
    QVERIFY(QObject::disconnect(handler));
    core.driver->setReadWait(5);
    core.driver->setIdleHost(true);
    if (opened) {
        QTRY_COMPARE(core.driver->opens(), 2);
        QVERIFY(core.waitForConnected(5000));
        QCOMPARE(core.socketStatus(2), SocketState::OPENED);
        QTRY_COMPARE(core.write(2, "alive"), 5);
        QVERIFY(core.driver->waitForWrite(dataMessage(2, "alive")));
    }
    QVERIFY(opened);
}

void LinkStopTest::aHandlerMayStopAndOpenAndStopAgain()
{
    LinkProbe core;
    QVERIFY(core.connectStepwise(1));
    QObject::connect(
        &core, QOverload<int>::of(&UsbHAL::readyRead), &core,
        [&] {
            core.stop();
            core.openConnection(2);
            core.stop();
        },
        Qt::DirectConnection);
    core.driver->feed(dataMessage(1, "data"));
    QVERIFY(core.waitForEndOfThread());
    QCOMPARE(core.driver->opens(), 1);
    QCOMPARE(core.driver->closes(), 1);
    QCOMPARE(core.status(), DriverState::DISCONNECTED);
}

void LinkStopTest::aStopOfTheNewStartEndsIt()
{
    LinkProbe core;
    QVERIFY(core.connectStepwise(1));
    const auto handler = QObject::connect(
        &core, QOverload<int>::of(&UsbHAL::readyRead), &core,
        [&] {
            core.stop();
            core.openConnection(2);
        },
        Qt::DirectConnection);
    core.driver->feed(dataMessage(1, "data"));
    QTRY_COMPARE(core.driver->opens(), 2);
    QVERIFY(QObject::disconnect(handler));
    core.driver->setReadWait(5);
    core.stop();
    QVERIFY(!core.isRunning());
    QVERIFY(core.log.contains(threadStopped));
    QCOMPARE(core.driver->closes(), 2);
}

void LinkStopTest::failedOpensEndWithAStop()
{
    LinkProbe core;
    core.setupConfig(core.quietSetup());
    core.driver->failOpens(-1);
    QVERIFY(core.openConnection(1));
    QTRY_VERIFY(core.driver->opens() > 3);
    core.stop();
    QVERIFY(!core.isRunning());
    QVERIFY(core.log.contains(threadStopped));
    QCOMPARE(core.driver->closes(), 0);
    QCOMPARE(core.driver->cancels(), 0);
}

void LinkStopTest::theCommunicationStartsAgain()
{
    LinkProbe core;
    for (int i = 1; i <= 3; ++i) {
        QVERIFY(core.connectIdle(i));
        QCOMPARE(core.driver->opens(), i);
        QVERIFY(core._mainLoopTimer.isActive());
        QCOMPARE(core.write(i, "data"), 4);
        QVERIFY(core.driver->waitForWrite(dataMessage(i, "data")));
        core.stop();
        QVERIFY(!core.isRunning());
        QVERIFY(!core._mainLoopTimer.isActive());
    }
    QCOMPARE(core.log.count("openConnection: start communication thread"), 3);
}

void LinkStopTest::aPortThatIsStillOpenIsNotOpenedAgain()
{
    LinkProbe core;
    QVERIFY(core.connectIdle(1));
    core.stop();
    SignalRecorder recorder(&core);
    QVERIFY(!core.openConnection(1));
    QCOMPARE(recorder.all(), QStringList("error(4,1)"));
    QVERIFY(!core.isRunning());
    QVERIFY(core.openConnection(2));
    QVERIFY(core.waitForConnected(5000));
    QCOMPARE(core.socketStatus(1), SocketState::OPENED);
}

void LinkStopTest::aStartEmptiesTheQueues()
{
    LinkProbe core;
    QVERIFY(core.connectStepwise(1));
    QVERIFY(core.turn(dataMessage(1, "unread")));
    core.write(1, "unsent");
    core.driver->setReadWait(5);
    core.stop();
    QCOMPARE(core.bytesToWrite(), 1);
    QVERIFY(core.openConnection(2));
    QCOMPARE(core.bytesToWrite(), 0);
    QCOMPARE(core.nbBytesReceived(1), 0);
    QCOMPARE(core.locked([&](QMutexLocker &) { return core._totalBytesWaitingRead; }), 0u);
}

void LinkStopTest::anOpenDuringAStopStartsAfresh()
{
    LinkProbe core;
    ParamHal param = core.quietSetup();
    param.threadStopTimeout = 20000;
    core.setupConfig(param);
    QVERIFY(core.connectIdle(1));
    core.driver->blockReads();
    QVERIFY(core.driver->waitForBlockedCall());
    auto stopping = inBackground([&] { core.stop(); });
    QVERIFY(core.log.waitFor(watchdogStopped));
    auto opening = inBackground([&] { return core.openConnection(2); });
    QVERIFY(core.log.waitFor("openConnection: opening driver", 2));
    core.driver->releaseReads();
    stopping.get();
    QVERIFY(opening.get());
    QVERIFY(core.waitForConnected(5000));
    QCOMPARE(core.driver->opens(), 2);
    QTRY_COMPARE(core.write(2, "alive"), 5);
    QVERIFY(core.driver->waitForWrite(dataMessage(2, "alive")));
}

void LinkStopTest::anOpenGivesUpOnAStopThatDoesNotEnd()
{
    LinkProbe core;
    ParamHal param = core.quietSetup();
    param.threadStopTimeout = 20000;
    core.setupConfig(param);
    QVERIFY(core.connectIdle(1));
    // The thread, and with it the stop, cannot end before this handler returns.
    std::promise<void> go;
    std::shared_future<void> gone = go.get_future();
    const auto handler = QObject::connect(
        &core, &UsbHAL::stateChanged, &core, [&] { gone.wait(); }, Qt::DirectConnection);
    auto stopped = inBackground([&] { core.stop(); });
    QVERIFY(core.log.waitFor("_connectedFunc: USB driver closed"));
    core.locked([&](QMutexLocker &) { core._param.threadStopTimeout = 50; });
    SignalRecorder recorder(&core);
    const bool opened = core.openConnection(2);
    go.set_value();
    stopped.get();
    QVERIFY(QObject::disconnect(handler));
    QVERIFY(!opened);
    QVERIFY(recorder.all().contains("error(7,2)"));
    QCOMPARE(core.socketStatus(2), SocketState::CLOSED);
    QVERIFY(core.openConnection(2));
    QVERIFY(core.waitForConnected(5000));
}

void LinkStopTest::anOpenWaitsForTheThreadThatAHandlerStopped()
{
    LinkProbe core;
    QVERIFY(core.connectStepwise(1));
    std::promise<void> go;
    std::shared_future<void> gone = go.get_future();
    const auto handler = QObject::connect(
        &core, QOverload<int>::of(&UsbHAL::readyRead), &core,
        [&] {
            core.stop();
            gone.wait();
        },
        Qt::DirectConnection);
    core.driver->feed(dataMessage(1, "data"));
    QVERIFY(core.log.waitFor(watchdogStopped));
    QVERIFY(core.eventually([&] { return !core._running; }));
    auto opening = inBackground([&] { return core.openConnection(2); });
    QVERIFY(core.log.waitFor("openConnection: opening driver", 2));
    go.set_value();
    QVERIFY(opening.get());
    QVERIFY(QObject::disconnect(handler));
    core.driver->setReadWait(5);
    core.driver->setIdleHost(true);
    QVERIFY(core.waitForConnected(5000));
    QCOMPARE(core.driver->opens(), 2);
    QTRY_COMPARE(core.write(2, "alive"), 5);
    QVERIFY(core.driver->waitForWrite(dataMessage(2, "alive")));
}

void LinkStopTest::aHandlerCannotOpenWhileAStopWaitsForIt()
{
    LinkProbe core;
    QVERIFY(core.connectStepwise(1));
    std::atomic<int> opened{-1};
    QObject::connect(
        &core, QOverload<int>::of(&UsbHAL::readyRead), &core,
        [&] {
            core.log.waitFor(watchdogStopped);
            while (core.locked([&](QMutexLocker &) { return core._running; }))
                QThread::yieldCurrentThread();
            opened = core.openConnection(2);
        },
        Qt::DirectConnection);
    core.driver->feed(dataMessage(1, "data"));
    QTRY_COMPARE(core.nbBytesReceived(1), 4);
    core.stop();
    QCOMPARE(int(opened), 0);
    QVERIFY(!core.isRunning());
    QCOMPARE(core.socketStatus(2), SocketState::CLOSED);
}

QTEST_GUILESS_MAIN(LinkStopTest)
#include "tst_link_stop.moc"
