// SPDX-License-Identifier: MIT
#include "LinkProbe.h"
#include "WarningTrap.h"

#include <Background.h>
#include <SignalRecorder.h>

#include <QFile>

#include <memory>
#include <unistd.h>

namespace {

bool isAsleep(pid_t thread)
{
    QFile file("/proc/self/task/" + QString::number(thread) + "/stat");
    return file.open(QIODevice::ReadOnly) && file.readAll().contains(") S ");
}

} // namespace

/** Birth and death of the core, its one configuration, its state and the waits for it. */
class LinkStatusTest : public QObject
{
    Q_OBJECT

private slots:
    void init() { WarningTrap::set(); }
    void cleanup() { QCOMPARE(WarningTrap::take(), QStringList()); }

    void aNewCoreIsIdle();
    void theStatesCanTravelBetweenThreads();

    void aStateIsReportedOnce();
    void aHandlerMayAskForTheState();
    void aConnectedLinkOpensThePortsThatWereLost();
    void aLostLinkTakesTheOpenPorts();

    void aWaitOfNoTimeOnlyLooks_data();
    void aWaitOfNoTimeOnlyLooks();
    void aWaitEndsWithTheStateItWaitsFor();
    void aWaitEndsWithItsTime();
    void oneOfTwoWaitersIsWoken_data();
    void oneOfTwoWaitersIsWoken();

    void errorsAreLogged_data();
    void errorsAreLogged();
    void theWatchdogSwitchDoesNothing();
    void theNameOfTheDriverMayChangeAtAnyTime();

    void theDestructorStopsTheCommunication();
    void theDestructorDropsTheDrivers();
    void anotherCoreLeavesTheThreadAlone();
    void anotherCoreStartsOnceTheThreadIsFree();
};

void LinkStatusTest::aNewCoreIsIdle()
{
    LinkProbe core;
    QCOMPARE(core.status(), DriverState::DISCONNECTED);
    QVERIFY(!core.isRunning());
    QVERIFY(!core.UsbHAL::isHost());
    QCOMPARE(core.driverName(), QString());
    QCOMPARE(core.nbClients(), 0u);
    QCOMPARE(core.getMaxWriteSize(), 0);
    QCOMPARE(core.driver->opens(), 0);
    QVERIFY(!core._mainLoopTimer.isActive());
}

void LinkStatusTest::theStatesCanTravelBetweenThreads()
{
    LinkProbe core;
    for (const char *type : {"DriverState", "SocketState", "TargetType", "UsbConnID"})
        QVERIFY2(QMetaType::type(type) != QMetaType::UnknownType, type);
    QCOMPARE(QMetaType::type("UsbConnID"), int(QMetaType::Int));
}

void LinkStatusTest::aStateIsReportedOnce()
{
    LinkProbe core;
    core.configure();
    SignalRecorder recorder(&core);
    const auto update = [&](DriverState state) {
        return core.locked([&](QMutexLocker &locker) { return core._updateStatus(state, locker); });
    };
    QVERIFY(!update(DriverState::DISCONNECTED));
    QVERIFY(update(DriverState::CONNECTED));
    QVERIFY(!update(DriverState::CONNECTED));
    QCOMPARE(recorder.all(), QStringList("stateChanged(CONNECTED)"));
    QCOMPARE(core.logged("_updateStatus"), QStringList("UsbHal switched to CONNECTED state"));
    QVERIFY(update(DriverState::DISCONNECTED));
    QCOMPARE(recorder.all().last(), QString("stateChanged(DISCONNECTED)"));
    QCOMPARE(core.logged("_updateStatus").last(), QString("UsbHal switched to DISCONNECTED state"));
}

void LinkStatusTest::aHandlerMayAskForTheState()
{
    LinkProbe core;
    core.configure();
    QList<DriverState> seen;
    QObject::connect(&core, &UsbHAL::stateChanged, [&] { seen.append(core.status()); });
    core.locked([&](QMutexLocker &locker) { core._updateStatus(DriverState::CONNECTED, locker); });
    core.locked(
        [&](QMutexLocker &locker) { core._updateStatus(DriverState::DISCONNECTED, locker); });
    const QList<DriverState> expected = {DriverState::CONNECTED, DriverState::DISCONNECTED};
    QCOMPARE(seen, expected);
}

void LinkStatusTest::aConnectedLinkOpensThePortsThatWereLost()
{
    LinkProbe core;
    core.configure();
    core._socketStates = {{7, SocketState::DISCONNECTED}, {8, SocketState::CLOSED}};
    SignalRecorder recorder(&core);
    core.locked([&](QMutexLocker &locker) { core._onConnected(locker); });
    const QStringList expected = {"connected", "connected(7)", "socketStateChanged(7,OPENED)"};
    QCOMPARE(recorder.all(), expected);
    QCOMPARE(core.socketStatus(8), SocketState::CLOSED);
}

void LinkStatusTest::aLostLinkTakesTheOpenPorts()
{
    LinkProbe core;
    core.configure();
    core._socketStates = {{7, SocketState::OPENED}, {8, SocketState::CLOSED}};
    SignalRecorder recorder(&core);
    core.locked([&](QMutexLocker &locker) { core._onDisconnected(locker); });
    const QStringList expected = {"disconnected", "disconnected(7)",
                                  "socketStateChanged(7,DISCONNECTED)"};
    QCOMPARE(recorder.all(), expected);
    QCOMPARE(core.logged("_changeAllSocketsState"), QStringList("emit disconnected"));
    QCOMPARE(core.socketStatus(8), SocketState::CLOSED);
}

void LinkStatusTest::aWaitOfNoTimeOnlyLooks_data()
{
    QTest::addColumn<int>("msecs");
    QTest::newRow("zero") << 0;
    QTest::newRow("negative") << -1;
    QTest::newRow("most negative") << std::numeric_limits<int>::min();
}

void LinkStatusTest::aWaitOfNoTimeOnlyLooks()
{
    QFETCH(int, msecs);
    LinkProbe core;
    QVERIFY(!core.waitForConnected(msecs));
    QVERIFY(core.waitForDisconnected(msecs));
    QVERIFY(core.connectIdle());
    QVERIFY(core.waitForConnected(msecs));
    QVERIFY(!core.waitForDisconnected(msecs));
}

void LinkStatusTest::aWaitEndsWithTheStateItWaitsFor()
{
    LinkProbe core;
    auto connecting = inBackground([&] { return core.waitForConnected(60000); });
    QVERIFY(core.connectStepwise());
    QVERIFY(connecting.get());
    auto disconnecting = inBackground([&] { return core.waitForDisconnected(60000); });
    core.driver->failReads(5);
    core.driver->feed("DEVICE_NODATA");
    QVERIFY(disconnecting.get());
    QCOMPARE(core.status(), DriverState::DISCONNECTED);
}

void LinkStatusTest::aWaitEndsWithItsTime()
{
    LinkProbe core;
    QElapsedTimer timer;
    timer.start();
    QVERIFY(!core.waitForConnected(100));
    QVERIFY(timer.elapsed() >= 100);
    QVERIFY(core.connectIdle());
    timer.start();
    QVERIFY(!core.waitForDisconnected(100));
    QVERIFY(timer.elapsed() >= 100);
}

void LinkStatusTest::oneOfTwoWaitersIsWoken_data()
{
    QTest::addColumn<bool>("connect");
    QTest::newRow("for the link") << true;
    QTest::newRow("for its loss") << false;
}

void LinkStatusTest::oneOfTwoWaitersIsWoken()
{
    QFETCH(bool, connect);
    constexpr int limit = 2000;
    LinkProbe core;
    core.configure();
    core._driverState = connect ? DriverState::DISCONNECTED : DriverState::CONNECTED;
    std::atomic<pid_t> waiting[2] = {{0}, {0}};
    const auto wait = [&](int waiter) {
        QElapsedTimer timer;
        timer.start();
        waiting[waiter] = gettid();
        const bool reached =
            connect ? core.waitForConnected(limit) : core.waitForDisconnected(limit);
        return reached ? timer.elapsed() : -1;
    };
    auto first = inBackground([&] { return wait(0); });
    auto second = inBackground([&] { return wait(1); });
    QTRY_VERIFY(waiting[0] != 0 && isAsleep(waiting[0]));
    QTRY_VERIFY(waiting[1] != 0 && isAsleep(waiting[1]));
    core.locked([&](QMutexLocker &locker) {
        core._driverState = connect ? DriverState::CONNECTED : DriverState::DISCONNECTED;
        connect ? core._onConnected(locker) : core._onDisconnected(locker);
    });
    const qint64 times[] = {first.get(), second.get()};
    QVERIFY(qMin(times[0], times[1]) >= 0);
    QVERIFY(qMin(times[0], times[1]) < limit);
    QVERIFY(qMax(times[0], times[1]) >= limit);
    core._driverState = DriverState::DISCONNECTED;
}

void LinkStatusTest::errorsAreLogged_data()
{
    QTest::addColumn<int>("code");
    QTest::addColumn<QStringList>("lines");
    const auto one = [](const char *text) { return QStringList(text); };
    QTest::newRow("-1") << -1 << QStringList();
    QTest::newRow("0") << 0 << QStringList();
    QTest::newRow("1") << 1 << one("Peer received message with wrong size ! Param = 7");
    QTest::newRow("2") << 2 << one("Peer received message with wrong ID ! Param = 7");
    QTest::newRow("3") << 3 << one("Could not allocate memory ! Param = 7");
    QTest::newRow("4") << 4 << one("Tried to open a port already opened ! Param = 7");
    QTest::newRow("5") << 5 << one("Too many clients connected ! Param = 7");
    QTest::newRow("6") << 6 << QStringList();
    QTest::newRow("7") << 7 << one("Driver not initialized !");
    QTest::newRow("8") << 8 << one("Failed to close driver ! Param = 7");
    QTest::newRow("9") << 9 << one("Peer received message for a not opened port ! on port #7");
    QTest::newRow("10") << 10 << one("Buffer overflow ! on port #7");
    QTest::newRow("11") << 11 << QStringList();
}

void LinkStatusTest::errorsAreLogged()
{
    QFETCH(int, code);
    QFETCH(QStringList, lines);
    LinkProbe core;
    core.configure();
    emit core.error(code, reinterpret_cast<void *>(qintptr(7)));
    QCOMPARE(core.logged("_onError"), lines);
}

void LinkStatusTest::theWatchdogSwitchDoesNothing()
{
    LinkProbe core;
    QVERIFY(core.connectIdle());
    const int lines = core.log.lines().size();
    for (const bool enable : {false, true}) {
        core.watchdog(enable);
        QVERIFY(core._mainLoopTimer.isActive());
        QCOMPARE(core._mainLoopTimer.interval(), 20);
    }
    QCOMPARE(core.log.lines().size(), lines);
    QVERIFY(core.isRunning());
}

namespace {

/** Selects its instance at each read, as a driver with several instances might. */
class RenamingDriver : public RecordingDriver
{
public:
    int read(QByteArray *data) override
    {
        _setDriverName(QString(100, QChar('a' + reads() % 26)));
        return RecordingDriver::read(data);
    }
};

} // namespace

void LinkStatusTest::theNameOfTheDriverMayChangeAtAnyTime()
{
    LinkProbe core(QSharedPointer<RenamingDriver>::create());
    QVERIFY(core.connectIdle());
    QSet<QString> names;
    while (core.driver->reads() < 30) {
        const QString name = core.driverName();
        QCOMPARE(name, QString(100, name.at(0)));
        names.insert(name);
    }
    QVERIFY(names.size() > 1);
}

void LinkStatusTest::theDestructorStopsTheCommunication()
{
    const LogCapture log;
    const auto driver = QSharedPointer<RecordingDriver>::create();
    auto core = std::make_unique<UsbHAL>(
        QList<QSharedPointer<AbstractDriver>>{driver.staticCast<AbstractDriver>()});
    ParamHal param;
    core->getDefaultSetup(param);
    param.logDir = log.folder();
    core->setupConfig(param);
    driver->setIdleHost(true);
    QVERIFY(core->openConnection(1));
    QVERIFY(core->waitForConnected(5000));
    SignalRecorder recorder(core.get());
    core.reset();
    QCOMPARE(driver->closes(), 1);
    QCOMPARE(recorder.all(), QStringList("stateChanged(DISCONNECTED)"));
    const QStringList lines = log.lines();
    const QStringList expected = {
        "~UsbHAL: UsbHAL::~UsbHAL",
        "stop: watchdog stopped",
        "_connectedFunc: USB driver closed",
        "_updateStatus: UsbHal switched to DISCONNECTED state",
        "_endOfConnectedThread: clean exit of communication thread",
        "_endOfConnectedThread: watchdog stopped",
        "stop: communication thread stopped",
    };
    QCOMPARE(lines.mid(lines.indexOf(expected.first())), expected);
}

void LinkStatusTest::theDestructorDropsTheDrivers()
{
    QWeakPointer<RecordingDriver> watched;
    {
        LinkProbe core;
        watched = core.transfers;
        QVERIFY(core.connectIdle());
    }
    QVERIFY(watched.isNull());
}

void LinkStatusTest::anotherCoreLeavesTheThreadAlone()
{
    LinkProbe core;
    QVERIFY(core.connectIdle());
    const quint32 passes = core.locked([&](QMutexLocker &) { return core._loopCounter; });
    {
        LinkProbe other;
        other.setupConfig(other.quietSetup());
        other.stop();
        SignalRecorder recorder(&other);
        QVERIFY(!other.openConnection(1));
        QCOMPARE(recorder.all(), QStringList("error(7,1)"));
        QCOMPARE(other.driver->opens(), 0);
    }
    QVERIFY(core.isRunning());
    QCOMPARE(core.status(), DriverState::CONNECTED);
    QVERIFY(core.eventually([&] { return core._loopCounter > passes + 4; }));
    QCOMPARE(core.driver->cancels(), 0);
}

void LinkStatusTest::anotherCoreStartsOnceTheThreadIsFree()
{
    LinkProbe core;
    LinkProbe other;
    QVERIFY(core.connectIdle());
    core.stop();
    QVERIFY(other.connectIdle());
    QCOMPARE(other.driver->opens(), 1);
    core.stop();
    QVERIFY(other.isRunning());
    QVERIFY(other.waitForConnected(0));
}

QTEST_GUILESS_MAIN(LinkStatusTest)
#include "tst_link_status.moc"
