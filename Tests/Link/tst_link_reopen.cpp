// SPDX-License-Identifier: MIT
#include "LinkProbe.h"
#include "WarningTrap.h"

#include <SignalRecorder.h>

namespace {

const QString closeAfterLoss = "closeDriverAfterConnectionError = true";
const QString closeRefused = "Could not close USB driver !";

/** Ends the communication when a pass has begun whose half is the write. */
class EndingProbe : public LinkProbe
{
public:
    ~EndingProbe() override { shutDown(); }
    bool isHost() const override
    {
        if (endsAfterPass != 0 && _nextAction == 2 && _loopCounter > endsAfterPass)
            const_cast<EndingProbe *>(this)->_running = false;
        return LinkProbe::isHost();
    }
    quint32 endsAfterPass = 0; // under the mutex
};

} // namespace

/** A driver that is closed after a lost link, and the end of the thread. */
class LinkReopenTest : public QObject
{
    Q_OBJECT

private slots:
    void init() { WarningTrap::set(); }
    void cleanup() { QCOMPARE(WarningTrap::take(), QStringList()); }

    void theDriverIsClosedAndOpenedAgain();
    void aDriverThatDoesNotOpenIsTriedOnceASecond();
    void aDriverThatRefusesToCloseIsReportedAndOpenedAgain();
    void aStopDuringTheLossReopensNothing();
    void aStoppedReopenEndsWithTheDriverThatOpens();

    void theThreadClosesTheDriverAtItsEnd();
    void aDriverThatRefusesToCloseAtTheEndIsReported();
    void aMessageIsSkippedOnceTheCommunicationEnds();

private:
    // Loses the link and returns what the communication thread logged from then on.
    QStringList _lose(LinkProbe &core, const QString &lastLine) const
    {
        core.driver->failWrites(5);
        core.driver->feed("DEVICE_NODATA");
        if (!core.log.waitFor("_connectedFunc: " + lastLine))
            return {};
        const QStringList lines = core.logged("_connectedFunc");
        return lines.mid(lines.indexOf(closeAfterLoss));
    }
};

void LinkReopenTest::theDriverIsClosedAndOpenedAgain()
{
    LinkProbe core;
    core.driver->setCloseDriverAfterConnectionError(true);
    QVERIFY(core.connectStepwise());
    const QStringList expected = {closeAfterLoss, "UsbHAL driver closed", "Try reopen driver...",
                                  "UsbHAL driver is opened"};
    QCOMPARE(_lose(core, expected.last()), expected);
    QCOMPARE(core.driver->opens(), 2);
    QCOMPARE(core.driver->closes(), 1);
    QVERIFY(core.turn());
    QCOMPARE(core.status(), DriverState::CONNECTED);
    QCOMPARE(core.socketStatus(1), SocketState::OPENED);
}

void LinkReopenTest::aDriverThatDoesNotOpenIsTriedOnceASecond()
{
    LinkProbe core;
    core.driver->setCloseDriverAfterConnectionError(true);
    QVERIFY(core.connectStepwise());
    core.driver->failOpens(2);
    QElapsedTimer timer;
    timer.start();
    const QString failed = "_hwDriver is NULL";
    const QString pause = "Unable to open driver, wait before retry";
    const QString attempt = "Try reopen driver...";
    const QStringList expected = {
        closeAfterLoss, "UsbHAL driver closed",   attempt, failed, pause, attempt, failed, pause,
        attempt,        "UsbHAL driver is opened"};
    QCOMPARE(_lose(core, expected.last()), expected);
    QVERIFY(timer.elapsed() >= 2000);
    QCOMPARE(core.driver->opens(), 4);
    QVERIFY(core.turn());
    QCOMPARE(core.status(), DriverState::CONNECTED);
}

void LinkReopenTest::aDriverThatRefusesToCloseIsReportedAndOpenedAgain()
{
    LinkProbe core;
    core.driver->setCloseDriverAfterConnectionError(true);
    QVERIFY(core.connectStepwise());
    SignalRecorder recorder(&core);
    core.driver->failCloses(1);
    const QStringList expected = {closeAfterLoss, closeRefused, "Try reopen driver...",
                                  "UsbHAL driver is opened"};
    QCOMPARE(_lose(core, expected.last()), expected);
    QCOMPARE(recorder.all().last(), QString("error(8,0)"));
    QVERIFY(core.log.waitFor("_onError: Failed to close driver ! Param = 0"));
    QVERIFY(core.turn());
    QCOMPARE(core.status(), DriverState::CONNECTED);
}

void LinkReopenTest::aStopDuringTheLossReopensNothing()
{
    LinkProbe core;
    core.driver->setCloseDriverAfterConnectionError(true);
    QVERIFY(core.connectStepwise());
    QObject::connect(
        &core, QOverload<>::of(&UsbHAL::disconnected), &core, [&] { core.stop(); },
        Qt::DirectConnection);
    const QStringList expected = {closeAfterLoss, "UsbHAL driver closed",
                                  "Closing hal, don't try to reopen driver", "USB driver closed"};
    QCOMPARE(_lose(core, expected.last()), expected);
    QVERIFY(core.waitForEndOfThread());
    QCOMPARE(core.driver->opens(), 1);
    QCOMPARE(core.driver->closes(), 1);
}

void LinkReopenTest::aStoppedReopenEndsWithTheDriverThatOpens()
{
    LinkProbe core;
    ParamHal param = core.quietSetup();
    param.threadStopTimeout = 20000;
    core.setupConfig(param);
    core.driver->setCloseDriverAfterConnectionError(true);
    QVERIFY(core.connectStepwise());
    core.driver->failOpens(1);
    QVERIFY(!_lose(core, "Unable to open driver, wait before retry").isEmpty());
    core.stop();
    QVERIFY(core.log.contains("stop: communication thread stopped"));
    QCOMPARE(core.logged("_connectedFunc").last(), QString("USB driver closed"));
    QCOMPARE(core.driver->opens(), 3);
    QCOMPARE(core.driver->closes(), 2);
}

void LinkReopenTest::theThreadClosesTheDriverAtItsEnd()
{
    LinkProbe core;
    QVERIFY(core.connectIdle());
    SignalRecorder recorder(&core);
    core.stop();
    QCOMPARE(recorder.all(), QStringList("stateChanged(DISCONNECTED)"));
    QCOMPARE(core.driver->closes(), 1);
    QVERIFY(!core._hwDriver);
    QVERIFY(!core._driverOpened);
    QVERIFY(!core._maxSizeExchanged);
    QCOMPARE(core.logged("_connectedFunc").last(), QString("USB driver closed"));
    const QStringList end = {"clean exit of communication thread", "watchdog stopped"};
    QCOMPARE(core.logged("_endOfConnectedThread"), end);
    QVERIFY(!core._mainLoopTimer.isActive());
}

void LinkReopenTest::aDriverThatRefusesToCloseAtTheEndIsReported()
{
    LinkProbe core;
    QVERIFY(core.connectIdle());
    SignalRecorder recorder(&core);
    core.driver->failCloses(1);
    core.stop();
    const QStringList expected = {"error(8,0)", "stateChanged(DISCONNECTED)"};
    QCOMPARE(recorder.all(), expected);
    QCOMPARE(core.logged("_connectedFunc").last(), closeRefused);
    QVERIFY(core.log.waitFor("_onError: Failed to close driver ! Param = 0"));
    QCOMPARE(core._hwDriver, core.driver.data());
    QVERIFY(core._driverOpened);
}

void LinkReopenTest::aMessageIsSkippedOnceTheCommunicationEnds()
{
    EndingProbe core;
    ParamHal param = core.quietSetup();
    param.wrTimeout = 300;
    core.setupConfig(param);
    QVERIFY(core.connectStepwise());
    const int writes = core.driver->writes();
    core.locked([&](QMutexLocker &) { core.endsAfterPass = core._loopCounter; });
    QElapsedTimer timer;
    timer.start();
    core.driver->feed("DEVICE_NODATA");
    QVERIFY(core.waitForEndOfThread());
    QVERIFY(timer.elapsed() >= 300);
    QCOMPARE(core.driver->writes(), writes);
    QCOMPARE(core._writeErrors, 1u);
    const QStringList expected = {"Disconnection received, skip write message",
                                  "USB driver closed"};
    QCOMPARE(core.logged("_connectedFunc").mid(1), expected);
}

QTEST_GUILESS_MAIN(LinkReopenTest)
#include "tst_link_reopen.moc"
