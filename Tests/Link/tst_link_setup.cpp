// SPDX-License-Identifier: MIT
#include "LinkProbe.h"
#include "WarningTrap.h"

#include <SignalRecorder.h>

namespace {

const QString configured = "setupConfig: configuration is now set";

} // namespace

/** What a configuration sets, and when. */
class LinkSetupTest : public QObject
{
    Q_OBJECT

private slots:
    void init() { WarningTrap::set(); }
    void cleanup() { QCOMPARE(WarningTrap::take(), QStringList()); }

    void theFirstConfigurationStays();
    void everyFieldIsTakenOver();
    void theDriverInUseIsConfigured();
    void withoutADriverInUseNoneIsConfigured();
    void theTimerRunsAtTheConfiguredPeriod_data();
    void theTimerRunsAtTheConfiguredPeriod();
};

void LinkSetupTest::theFirstConfigurationStays()
{
    LinkProbe core;
    ParamHal param = core.quietSetup();
    param.maxClients = 2;
    QVERIFY(core.setupConfig(param));
    param.maxClients = 4;
    QVERIFY(core.setupConfig(param));
    QVERIFY(core.openConnection(1));
    QVERIFY(core.openConnection(2));
    SignalRecorder recorder(&core);
    QVERIFY(!core.openConnection(3));
    QCOMPARE(recorder.all(), QStringList("error(5,3)"));
    QCOMPARE(core.log.count(configured), 1);
}

void LinkSetupTest::everyFieldIsTakenOver()
{
    LinkProbe core;
    ParamHal param;
    quint32 value = 1000;
    for (quint32 ParamHal::*field :
         {&ParamHal::maxReadSize, &ParamHal::maxWriteSize, &ParamHal::drvOption,
          &ParamHal::rdTimeout, &ParamHal::wrTimeout, &ParamHal::maxWatchdogErrors,
          &ParamHal::threadStopTimeout, &ParamHal::maxWriteFifoSize, &ParamHal::nbRetry,
          &ParamHal::mainLoopPeriod, &ParamHal::spareParam1, &ParamHal::spareParam2,
          &ParamHal::spareParam3})
        param.*field = ++value;
    param.maxClients = 3;
    param.logDir = core.log.folder();
    param.spareFlag = true;
    param.spareName = "spare";
    param.maxLogLines = 700;
    QVERIFY(core.setupConfig(param));
    const ParamHal &taken = core._param;
    value = 1000;
    for (quint32 ParamHal::*field :
         {&ParamHal::maxReadSize, &ParamHal::maxWriteSize, &ParamHal::drvOption,
          &ParamHal::rdTimeout, &ParamHal::wrTimeout, &ParamHal::maxWatchdogErrors,
          &ParamHal::threadStopTimeout, &ParamHal::maxWriteFifoSize, &ParamHal::nbRetry,
          &ParamHal::mainLoopPeriod, &ParamHal::spareParam1, &ParamHal::spareParam2,
          &ParamHal::spareParam3})
        QCOMPARE(taken.*field, ++value);
    QCOMPARE(taken.maxClients, 3u);
    QCOMPARE(taken.logDir, core.log.folder());
    QVERIFY(taken.spareFlag);
    QCOMPARE(taken.spareName, QString("spare"));
    QCOMPARE(taken.maxLogLines, 700);
}

void LinkSetupTest::theDriverInUseIsConfigured()
{
    LinkProbe core;
    core._hwDriver = core.driver.data();
    ParamHal param = core.quietSetup();
    param.rdTimeout = 1234;
    core.setupConfig(param);
    core._hwDriver = nullptr;
    QCOMPARE(core.driver->getRdTimeout(), 1234u);
}

void LinkSetupTest::withoutADriverInUseNoneIsConfigured()
{
    LinkProbe core;
    ParamHal param = core.quietSetup();
    param.rdTimeout = 1234;
    core.setupConfig(param);
    QVERIFY(core._setupDone);
    QCOMPARE(core.driver->getRdTimeout(), 2000u);
}

void LinkSetupTest::theTimerRunsAtTheConfiguredPeriod_data()
{
    QTest::addColumn<quint32>("period");
    QTest::addColumn<int>("interval");
    QTest::newRow("none given") << 0u << 100;
    QTest::newRow("twenty") << 20u << 20;
    QTest::newRow("a thousand") << 1000u << 1000;
}

void LinkSetupTest::theTimerRunsAtTheConfiguredPeriod()
{
    QFETCH(quint32, period);
    QFETCH(int, interval);
    LinkProbe core;
    ParamHal param = core.quietSetup();
    param.mainLoopPeriod = period;
    core.setupConfig(param);
    QVERIFY(!core._mainLoopTimer.isActive());
    QVERIFY(core.openConnection(1));
    QVERIFY(core._mainLoopTimer.isActive());
    QCOMPARE(core._mainLoopTimer.interval(), interval);
    QCOMPARE(core._mainLoopTimer.timerType(), Qt::PreciseTimer);
    QVERIFY(!core._mainLoopTimer.isSingleShot());
}

QTEST_GUILESS_MAIN(LinkSetupTest)
#include "tst_link_setup.moc"
