// SPDX-License-Identifier: MIT
#include "LinkProbe.h"
#include "WarningTrap.h"

#include <SignalRecorder.h>

#include <pthread.h>

namespace {

const QString notKilled = "_stopWorkerThread: ERROR: could not stop communication thread !";

/** A driver whose blocked read cannot be cancelled by a kill. */
class StubbornDriver : public RecordingDriver
{
public:
    int read(QByteArray *data) override
    {
        int formerState = 0;
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &formerState);
        const int size = RecordingDriver::read(data);
        pthread_setcancelstate(formerState, nullptr);
        return size;
    }
};

} // namespace

/** A communication thread that survives its kill. */
class KillLinkStubbornTest : public QObject
{
    Q_OBJECT

private slots:
    void init() { WarningTrap::set(); }
    void cleanup() { QCOMPARE(WarningTrap::take(), QStringList()); }

    void aStopReportsAThreadThatCannotBeKilled();
    void theWatchdogStartsNoSecondThread();
};

void KillLinkStubbornTest::aStopReportsAThreadThatCannotBeKilled()
{
    LinkProbe core(QSharedPointer<StubbornDriver>::create());
    ParamHal param = core.quietSetup();
    param.threadStopTimeout = 50;
    core.setupConfig(param);
    QVERIFY(core.connectIdle(1));
    SignalRecorder recorder(&core);
    core.driver->blockReads();
    QVERIFY(core.driver->waitForBlockedCall());
    core.stop();
    QVERIFY(core.isRunning());
    const QStringList lines = core.log.lines();
    const QStringList expected = {
        "stop: watchdog stopped", "stop: communication thread still running", notKilled,
        "stop: USB driver closed", "_updateStatus: UsbHal switched to DISCONNECTED state"};
    QCOMPARE(lines.mid(lines.indexOf(expected.first())), expected);
    QCOMPARE(recorder.all(), QStringList("stateChanged(DISCONNECTED)"));

    recorder.take();
    QVERIFY(!core.openConnection(2));
    QCOMPARE(recorder.all(), QStringList("error(7,2)"));
    QCOMPARE(core.driver->opens(), 1);

    core.release();
    QVERIFY(core.waitForEndOfThread());
    QVERIFY(core.openConnection(2));
    QVERIFY(core.waitForConnected(5000));
    QTRY_COMPARE(core.write(2, "alive"), 5);
    QVERIFY(core.driver->waitForWrite(dataMessage(2, "alive")));
}

void KillLinkStubbornTest::theWatchdogStartsNoSecondThread()
{
    LinkProbe core(QSharedPointer<StubbornDriver>::create());
    ParamHal param = core.testSetup();
    param.maxWatchdogErrors = 3;
    param.threadStopTimeout = 50;
    core.setupConfig(param);
    QVERIFY(core.connectIdle(1));
    SignalRecorder recorder(&core);
    core.driver->blockReads();
    QVERIFY(core.log.waitFor(notKilled, 1, 15000));
    QVERIFY(recorder.waitFor("socketStateChanged(1,DISCONNECTED)"));
    QVERIFY(core.isRunning());
    QCOMPARE(core.driver->opens(), 1);
    const QStringList expected = {"stateChanged(DISCONNECTED)", "disconnected(1)",
                                  "socketStateChanged(1,DISCONNECTED)"};
    QCOMPARE(recorder.all(), expected);
    // Once the thread can be ended, the watchdog starts it afresh.
    core.release();
    QTRY_COMPARE_WITH_TIMEOUT(core.driver->opens(), 2, 15000);
    QTRY_COMPARE(core.status(), DriverState::CONNECTED);
}

QTEST_GUILESS_MAIN(KillLinkStubbornTest)
#include "tst_kill_link_stubborn.moc"
