// SPDX-License-Identifier: MIT
#include "LinkProbe.h"
#include "WarningTrap.h"

#include <SignalRecorder.h>

#include <thread>

namespace {

const QString openFailed = "_connectedFunc: Failed to open driver !";

/** A core over two drivers. */
class PairProbe : public UsbHAL
{
public:
    PairProbe(const QSharedPointer<ScriptedDriver> &first,
              const QSharedPointer<ScriptedDriver> &second)
        : UsbHAL({first.staticCast<AbstractDriver>(), second.staticCast<AbstractDriver>()})
    {
    }
    ~PairProbe() override { stop(); }

    bool connectLink()
    {
        ParamHal param;
        getDefaultSetup(param);
        param.maxWatchdogErrors = 1000000;
        param.logDir = _log.folder();
        setupConfig(param);
        return openConnection(1) && waitForConnected(5000);
    }

private:
    LogCapture _log;
};

} // namespace

/** From the start of the communication to an open driver. */
class LinkOpenTest : public QObject
{
    Q_OBJECT

private slots:
    void init() { WarningTrap::set(); }
    void cleanup() { QCOMPARE(WarningTrap::take(), QStringList()); }

    void theFirstDriverThatOpensIsTaken();
    void theDriversAreTriedInTheirOrder();
    void everyRoundBeginsWithTheFirstDriver();
    void failedOpensAreLoggedOnceAfterFiftyOne_data();
    void failedOpensAreLoggedOnceAfterFiftyOne();
    void failedOpensTouchNoPort();
    void theErrorCountsStartAtZero();
    void anOpenedDriverTakesTheConfiguration();
    void aDriverIsOpenedWithoutAConfiguration();
    void anOpenForgetsTheForcedDisconnection();
    void anOpenThatFailsLeavesNoDriver();
    void aDriverThatRefusedToCloseIsClosedBeforeTheNextOpen();
    void aDriverThatStillRefusesToCloseIsOpenedAgain();
    void aStopDuringAnOpenClosesTheDriver();
};

void LinkOpenTest::theFirstDriverThatOpensIsTaken()
{
    const auto first = QSharedPointer<ScriptedDriver>::create("first");
    const auto second = QSharedPointer<ScriptedDriver>::create("second");
    first->setIdleHost(true);
    PairProbe core(first, second);
    QVERIFY(core.connectLink());
    QCOMPARE(core.driverName(), QString("first"));
    QCOMPARE(second->opens(), 0);
}

void LinkOpenTest::theDriversAreTriedInTheirOrder()
{
    const auto first = QSharedPointer<ScriptedDriver>::create("first");
    const auto second = QSharedPointer<ScriptedDriver>::create("second");
    first->failOpens(-1);
    second->setIdleHost(true);
    PairProbe core(first, second);
    QVERIFY(core.connectLink());
    QCOMPARE(core.driverName(), QString("second"));
    QCOMPARE(first->opens(), 1);
    QCOMPARE(second->opens(), 1);
}

void LinkOpenTest::everyRoundBeginsWithTheFirstDriver()
{
    const auto first = QSharedPointer<ScriptedDriver>::create("first");
    const auto second = QSharedPointer<ScriptedDriver>::create("second");
    first->failOpens(2);
    second->failOpens(2);
    first->setIdleHost(true);
    PairProbe core(first, second);
    QVERIFY(core.connectLink());
    QCOMPARE(core.driverName(), QString("first"));
    QCOMPARE(first->opens(), 3);
    QCOMPARE(second->opens(), 2);
}

void LinkOpenTest::failedOpensAreLoggedOnceAfterFiftyOne_data()
{
    QTest::addColumn<int>("failures");
    QTest::addColumn<int>("lines");
    QTest::newRow("fifty") << 50 << 0;
    QTest::newRow("fifty-one") << 51 << 1;
    QTest::newRow("a hundred and twenty") << 120 << 1;
}

void LinkOpenTest::failedOpensAreLoggedOnceAfterFiftyOne()
{
    QFETCH(int, failures);
    QFETCH(int, lines);
    LinkProbe core;
    core.driver->failOpens(failures);
    QVERIFY(core.connectIdle());
    QCOMPARE(core.driver->opens(), failures + 1);
    QCOMPARE(core.log.count(openFailed), lines);
}

void LinkOpenTest::failedOpensTouchNoPort()
{
    LinkProbe core;
    SignalRecorder recorder(&core);
    core.setupConfig(core.quietSetup());
    core.driver->failOpens(-1);
    QVERIFY(core.openConnection(1));
    QVERIFY(core.log.waitFor(openFailed));
    QCOMPARE(core.socketStatus(1), SocketState::OPENED);
    QCOMPARE(core.driverName(), QString());
    QVERIFY(core.isRunning());
    const QStringList expected = {"connected(1)", "socketStateChanged(1,OPENED)"};
    QCOMPARE(recorder.all(), expected);
}

void LinkOpenTest::theErrorCountsStartAtZero()
{
    LinkProbe core;
    core.setupConfig(core.quietSetup());
    core._readErrors = 3;
    core._writeErrors = 2;
    core.driver->setReadWait(600000);
    QVERIFY(core.openConnection(1));
    QVERIFY(core.driver->waitForReads(1));
    QCOMPARE(core.locked([&](QMutexLocker &) { return core._readErrors + core._writeErrors; }), 0u);
}

void LinkOpenTest::anOpenedDriverTakesTheConfiguration()
{
    LinkProbe core;
    ParamHal param = core.quietSetup();
    param.rdTimeout = 1234;
    param.nbRetry = 7;
    core.setupConfig(param);
    QCOMPARE(core.driver->getRdTimeout(), 2000u);
    core.driver->setReadWait(600000);
    QVERIFY(core.openConnection(1));
    QVERIFY(core.driver->waitForReads(1));
    QCOMPARE(core.driver->getRdTimeout(), 1234u);
    QCOMPARE(core.driver->getNbRetry(), 7u);
}

void LinkOpenTest::aDriverIsOpenedWithoutAConfiguration()
{
    LinkProbe core;
    core._param.rdTimeout = 1234;
    core._lastMaxReadSize = 55;
    AbstractDriver *const opened =
        core.locked([&](QMutexLocker &locker) { return core._open(locker); });
    QCOMPARE(opened, core.driver.data());
    QVERIFY(core._driverOpened);
    QCOMPARE(core._lastMaxReadSize, 0u);
    QCOMPARE(core.driver->getRdTimeout(), 2000u);
}

void LinkOpenTest::anOpenForgetsTheForcedDisconnection()
{
    LinkProbe core;
    core._forceLowLevelDisconnection = true;
    core.locked([&](QMutexLocker &locker) { return core._open(locker); });
    QVERIFY(!core._forceLowLevelDisconnection);
}

void LinkOpenTest::anOpenThatFailsLeavesNoDriver()
{
    LinkProbe core;
    core._forceLowLevelDisconnection = true;
    core._lastMaxReadSize = 55;
    core.driver->failOpens(1);
    AbstractDriver *const opened =
        core.locked([&](QMutexLocker &locker) { return core._open(locker); });
    QVERIFY(!opened);
    QVERIFY(!core._driverOpened);
    QVERIFY(!core._forceLowLevelDisconnection);
    QCOMPARE(core._lastMaxReadSize, 55u);
}

void LinkOpenTest::aDriverThatRefusedToCloseIsClosedBeforeTheNextOpen()
{
    LinkProbe core;
    QVERIFY(core.connectIdle());
    core.driver->failCloses(1);
    core.stop();
    QCOMPARE(core.driver->closes(), 1);
    QVERIFY(core._hwDriver);
    QVERIFY(core.openConnection(2));
    QVERIFY(core.waitForConnected(5000));
    QCOMPARE(core.driver->closes(), 2);
    QCOMPARE(core.driver->opens(), 2);
}

void LinkOpenTest::aDriverThatStillRefusesToCloseIsOpenedAgain()
{
    LinkProbe core;
    QVERIFY(core.connectIdle());
    core.driver->failCloses(2);
    core.stop();
    SignalRecorder recorder(&core);
    QVERIFY(core.openConnection(2));
    QVERIFY(core.waitForConnected(5000));
    QCOMPARE(core.driver->closes(), 2);
    QCOMPARE(core.driver->opens(), 2);
    QCOMPARE(core.log.count("_connectedFunc: Could not close USB driver !"), 2);
    QVERIFY(!recorder.all().contains("error(8,0)"));
}

void LinkOpenTest::aStopDuringAnOpenClosesTheDriver()
{
    LinkProbe core;
    core.setupConfig(core.quietSetup());
    core.driver->blockOpens();
    QVERIFY(core.openConnection(1));
    QVERIFY(core.driver->waitForBlockedCall());
    std::thread opener([&] {
        core.log.waitFor("stop: watchdog stopped");
        core.driver->releaseOpens();
    });
    core.stop();
    opener.join();
    QVERIFY(!core.isRunning());
    QCOMPARE(core.driver->closes(), 1);
    QCOMPARE(core.driver->reads(), 0);
    QVERIFY(core.log.contains("stop: communication thread stopped"));
}

QTEST_GUILESS_MAIN(LinkOpenTest)
#include "tst_link_open.moc"
