// SPDX-License-Identifier: MIT
#include "FlatResources.h"

#include <CoreProbe.h>
#include <EventPolling.h>
#include <VirtualTime.h>
#include <WireMessages.h>

#include <QTest>

#include <atomic>

namespace {

constexpr quint64 fullKills = 1000;
constexpr unsigned long transferPause = 10; // ms, the core's
constexpr int timeout = 30000;              // ms

const QByteArray unread = "unread";
const QByteArray beforeTheKill = "before the kill";
const QByteArray alive = "alive";

enum class Place { Read, Write, Open, Pause };

/** A driver with an idle host, that gets stuck once in a place when it is told to. */
class StickingDriver : public ScriptedDriver
{
public:
    StickingDriver() { setIdleHost(true); }

    void stickIn(Place place) { _sticking = static_cast<int>(place); }
    /** Calls that ended by a kill of the thread in them. */
    int killedCalls() const { return _killedCalls; }

    int read(QByteArray *data) override
    {
        _stickIfAsked(Place::Read);
        return ScriptedDriver::read(data);
    }
    int write(QByteArray data) override
    {
        _stickIfAsked(Place::Write);
        return ScriptedDriver::write(data);
    }
    bool open() override
    {
        _stickIfAsked(Place::Open);
        return ScriptedDriver::open();
    }

private:
    static constexpr int nowhere = -1;

    void _stickIfAsked(Place place)
    {
        int asked = static_cast<int>(place);
        if (!_sticking.compare_exchange_strong(asked, nowhere))
            return;
        struct Unwinding
        {
            ~Unwinding() { ++calls; }
            std::atomic<int> &calls;
        };
        const Unwinding unwinding{_killedCalls};
        for (;;)
            QThread::usleep(1000);
    }

    std::atomic<int> _sticking{nowhere};
    std::atomic<int> _killedCalls{0};
};

/** A core whose thread gets stuck again and again; the watchdog is in this thread's event loop. */
class StickingLink : public QObject
{
public:
    StickingLink() : _driver(QSharedPointer<StickingDriver>::create()), _core(_driver)
    {
        // Has no effect until a link is lost, which is how the thread gets to another open.
        _driver->setCloseDriverAfterConnectionError(true);
    }

    void start()
    {
        ParamHal param = _core.testSetup();
        param.mainLoopPeriod = 10;
        param.maxWatchdogErrors = 10; // a thread that the machine keeps waiting is not stuck
        param.threadStopTimeout = 5;
        _core.setupConfig(param);
        for (const int port : {1, 2})
            QVERIFY(_core.openConnection(port));
        QVERIFY(happens([this] { return isUp(); }));
    }

    /** From a working link over a kill to the next working link. */
    void getKilledIn(Place place)
    {
        const int restarts = _driver->opens();
        const int killedCalls = _driver->killedCalls();
        _driver->clearWritten();
        _driver->feed(dataMessage(2, unread));
        QVERIFY(happens([this] { return _core.nbBytesReceived(2) == unread.size(); }));
        QCOMPARE(_core.write(1, beforeTheKill), beforeTheKill.size());
        stickIn(place);
        QVERIFY(happens([&] { return _driver->opens() > restarts && isUp(); }));
        if (place != Place::Pause)
            QCOMPARE(_driver->killedCalls(), killedCalls + 1);
        expectWorkingPorts(place);
    }

private:
    void stickIn(Place place)
    {
        switch (place) {
        case Place::Read:
        case Place::Write:
            _driver->stickIn(place);
            break;
        case Place::Open:
            // While the driver counts as open the watchdog looks after its next open, too.
            _driver->stickIn(place);
            _driver->failCloses(1);
            _driver->failReads(5);
            break;
        case Place::Pause:
            VirtualTime::stickInNextPause(transferPause);
            break;
        }
    }

    bool isUp() const
    {
        return _core.status() == DriverState::CONNECTED &&
               _core.socketStatus(1) == SocketState::OPENED &&
               _core.socketStatus(2) == SocketState::OPENED;
    }

    // A kill drops what was not written, as a lost link does, but not what was not read.
    void expectWorkingPorts(Place place)
    {
        QVERIFY(_core.isRunning());
        QCOMPARE(_core.nbClients(), 2u);
        QCOMPARE(_core.read(2, 100), place == Place::Open ? QByteArray() : unread);
        QVERIFY(happens([this] { return _core.write(1, alive) == alive.size(); }));
        QVERIFY(_driver->waitForWrite(dataMessage(1, alive), timeout));
        QList<QByteArray> written = _driver->writtenData();
        if (written.first() == dataMessage(1, beforeTheKill))
            written.removeFirst();
        QCOMPARE(written, QList<QByteArray>{dataMessage(1, alive)});
        _driver->feed(dataMessage(1, "from the host"));
        QVERIFY(happens([this] { return _core.read(1, 100) == "from the host"; }));
        QCOMPARE(_core.bytesWaiting(), 0u);
    }

    const QSharedPointer<StickingDriver> _driver;
    CoreProbe _core;
};

} // namespace

/** The watchdog kills and restarts the thread hundreds of times, wherever that is stuck. */
class KillWatchdogStormTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { VirtualTime::setPauseDivisor(1000); }
    void everyKillIsFollowedByAWorkingLink_data();
    void everyKillIsFollowedByAWorkingLink();
};

void KillWatchdogStormTest::everyKillIsFollowedByAWorkingLink_data()
{
    QTest::addColumn<int>("place");
    QTest::newRow("in a read") << static_cast<int>(Place::Read);
    QTest::newRow("in a write") << static_cast<int>(Place::Write);
    QTest::newRow("in an open") << static_cast<int>(Place::Open);
    QTest::newRow("in a pause") << static_cast<int>(Place::Pause);
}

void KillWatchdogStormTest::everyKillIsFollowedByAWorkingLink()
{
    QFETCH(int, place);
    const quint64 kills = Campaign::scaled(fullKills) / 4 + 1;
    FlatResources resources(std::string("kill ") + QTest::currentDataTag(), kills);
    StickingLink link;
    link.start();
    for (quint64 i = 0; i < kills && !QTest::currentTestFailed(); ++i) {
        link.getKilledIn(static_cast<Place>(place));
        resources.count();
    }
    Campaign::printFigure(std::string("watchdog kills ") + QTest::currentDataTag(), kills);
    QVERIFY(resources.areFlat());
}

QTEST_GUILESS_MAIN(KillWatchdogStormTest)
#include "tst_kill_watchdog_storm.moc"
