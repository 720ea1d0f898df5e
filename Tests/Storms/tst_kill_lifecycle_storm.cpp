// SPDX-License-Identifier: MIT
#include "FlatResources.h"

#include <Background.h>
#include <CoreProbe.h>
#include <EventPolling.h>
#include <ScheduleNoise.h>
#include <VirtualTime.h>
#include <WireMessages.h>

#include <QRandomGenerator>
#include <QTest>
#include <QThreadStorage>

#include <array>
#include <atomic>
#include <vector>

namespace {

constexpr quint64 fullOperations = 100000;
constexpr quint64 fullRestarts = 10000;
constexpr int seedOperations = 100; // of one seed, so that a full size takes a thousand
constexpr int threadCount = 8;
constexpr int portCount = 5;
constexpr int freshPort = 9;
constexpr quint32 stopTimeout = 20; // ms, of a thread that is stuck
// A call may wait for an ending thread, and a stop for a timer, a thread and a kill.
constexpr qint64 longestCall = 20000; // ms, on a busy machine

/** A core whose eight clients open, close and stop; some stops come in handlers. */
class StormyCore : public CoreProbe
{
public:
    explicit StormyCore(quint32 seed) : _seed(seed)
    {
        VirtualTime::keepReal(&_communicationCond);
        driver->setIdleHost(true);
        QObject::connect(
            this, QOverload<int>::of(&UsbHAL::readyRead), this, [this](int port) { act(port); },
            Qt::DirectConnection);
    }
    ~StormyCore() override
    {
        blockSignals(true);
        driver->releaseReads();
        stop();
    }

    void start()
    {
        ParamHal param = testSetup();
        param.mainLoopPeriod = 5;
        param.maxWatchdogErrors = 10;
        param.threadStopTimeout = stopTimeout;
        setupConfig(param);
    }

    /** Lets the clients loose, and this thread's events be handled, until all have done theirs. */
    void endure(int operations)
    {
        std::vector<std::future<void>> clients;
        for (quint32 i = 0; i < threadCount; ++i)
            clients.push_back(inBackground([this, i, operations] {
                QRandomGenerator random(_seed * threadCount + i);
                for (int left = operations / threadCount; left > 0; --left)
                    timed([&] { operate(random); });
            }));
        for (const std::future<void> &client : clients)
            QVERIFY(happens([&] { return endsWithin(client, 0); }, 120000));
    }

    /** Whether what was left behind can be opened and carries bytes. */
    bool worksAgain()
    {
        driver->releaseReads();
        _calm = true;
        for (int port = 1; port <= portCount; ++port)
            disconnectFromHost(port);
        locked([this](QMutexLocker &) {
            _param.threadStopTimeout = longestCall;
            _clientCount = 0; // a port that is opened while it is cut off counts twice for good
        });
        if (!openConnection(freshPort) || !isRunning())
            return false;
        return happens([this] { return status() == DriverState::CONNECTED; }) &&
               happens([this] { return write(freshPort, "alive") == 5; }) &&
               driver->waitForWrite(dataMessage(freshPort, "alive"), 30000);
    }

    std::atomic<qint64> longest{0};         // ms
    std::array<std::atomic<int>, 3> done{}; // opens, closes, stops

private:
    template <typename Call>
    void timed(Call call)
    {
        QElapsedTimer timer;
        timer.start();
        call();
        const qint64 spent = timer.elapsed();
        for (qint64 seen = longest; spent > seen && !longest.compare_exchange_weak(seen, spent);)
            ;
    }

    void operate(QRandomGenerator &random)
    {
        const int port = random.bounded(1, portCount + 1);
        const quint32 kind = random.bounded(40U);
        if (kind < 20)
            done[0] += openConnection(port);
        else if (kind < 34)
            done[1] += closeConnection(port);
        else if (kind < 36)
            driver->feed(dataMessage(port, kind % 2 == 0 ? "stop" : "stop and open"));
        else if (kind == 36)
            driver->blockReads();
        else if (kind < 39)
            driver->releaseReads();
        else
            stopOnce();
    }

    void stopOnce()
    {
        stop();
        ++done[2];
    }

    // In the communication thread.
    void act(int port)
    {
        const QByteArray order = read(port, 100);
        if (_calm || !order.startsWith("stop"))
            return;
        stopOnce();
        if (order.endsWith("open"))
            done[0] += openConnection(port % portCount + 1);
    }

    const quint32 _seed;
    std::atomic<bool> _calm{false};
};

/** A core whose handlers leave the thread objects whose destructors call it. */
class HauntedCore : public CoreProbe
{
public:
    HauntedCore()
    {
        VirtualTime::keepReal(&_communicationCond);
        driver->setIdleHost(true);
        QObject::connect(
            this, &UsbHAL::stateChanged, this,
            [this](DriverState state) {
                if (state == DriverState::CONNECTED)
                    haunt();
            },
            Qt::DirectConnection);
        ParamHal param = testSetup();
        param.maxWatchdogErrors = 1000000;
        param.threadStopTimeout = longestCall;
        setupConfig(param);
    }
    ~HauntedCore() override
    {
        blockSignals(true);
        stop();
    }

    std::atomic<quint64> ghosts{0};
    std::atomic<quint64> startedByGhosts{0};

private:
    struct Ghost : QObject
    {
        explicit Ghost(HauntedCore &haunted) : core(haunted) {}
        ~Ghost() override { core.meet(); }
        HauntedCore &core;
    };

    void haunt()
    {
        (new Ghost(*this))->deleteLater();
        _stored.setLocalData(new Ghost(*this));
    }

    // As the thread ends, when it can neither be started nor be waited for.
    void meet()
    {
        ++ghosts;
        startedByGhosts += openConnection(freshPort);
        bytesToWrite();
        stop();
    }

    QThreadStorage<Ghost *> _stored;
};

} // namespace

/** Starts beside ends, in all the ways that clients and handlers have, under schedule noise. */
class KillLifecycleStormTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { VirtualTime::setPauseDivisor(1000); }
    void cleanup() { ScheduleNoise::setSeed(0); }
    void opensAndClosesBesideStops();
    void restartsUnderDeferredDeletesAndThreadStorage();
};

void KillLifecycleStormTest::opensAndClosesBesideStops()
{
    const quint64 seeds = Campaign::scaled(fullOperations) / seedOperations + 1;
    const quint32 first = Campaign::seed();
    qint64 longest = 0;
    std::array<quint64, 3> done{};
    for (quint32 seed = first; seed != first + seeds; ++seed) {
        ScheduleNoise::setSeed(seed);
        StormyCore core(seed);
        core.start();
        core.endure(seedOperations);
        const bool works = core.worksAgain();
        longest = qMax<qint64>(longest, core.longest);
        QVERIFY2(works, qPrintable(QString("after USBHAL_SEED=%1").arg(seed)));
        QVERIFY2(longest <= longestCall, qPrintable(QString("USBHAL_SEED=%1").arg(seed)));
        for (size_t i = 0; i < done.size(); ++i)
            done[i] += static_cast<quint64>(core.done[i]);
    }
    Campaign::printFigure("lifecycle storm, seeds", seeds);
    Campaign::printFigure("lifecycle storm, operations of 8 threads", seeds * seedOperations);
    Campaign::printFigure("lifecycle storm, opens that succeeded", done[0]);
    Campaign::printFigure("lifecycle storm, closes that succeeded", done[1]);
    Campaign::printFigure("lifecycle storm, stops", done[2]);
    Campaign::printFigure("lifecycle storm, longest call in ms", longest);
    QVERIFY(done[0] > 0 && done[1] > 0 && done[2] > 0);
}

void KillLifecycleStormTest::restartsUnderDeferredDeletesAndThreadStorage()
{
    const quint64 restarts = Campaign::scaled(fullRestarts);
    FlatResources resources("haunted restarts", restarts, 2048);
    ScheduleNoise::setSeed(Campaign::seed());
    HauntedCore core;
    std::atomic<bool> over{false};
    auto client = inBackground([&] {
        for (; !over; QThread::yieldCurrentThread())
            core.status();
    });
    for (quint64 i = 0; i < restarts && !QTest::currentTestFailed(); ++i) {
        const quint64 met = core.ghosts;
        if (!core.openConnection(1) ||
            !happens([&] { return core.status() == DriverState::CONNECTED; }))
            QTest::qFail("no restart", __FILE__, __LINE__);
        core.stop();
        core.closeConnection(1);
        core.driver->clearWritten();
        if (core.ghosts < met + 1)
            QTest::qFail("the thread ended without its objects", __FILE__, __LINE__);
        resources.count();
    }
    over = true;
    client.get();
    QCOMPARE(core.startedByGhosts.load(), quint64(0));
    Campaign::printFigure("haunted restarts", restarts);
    Campaign::printFigure("haunted restarts, destructors that called the core", core.ghosts.load());
    QVERIFY(resources.areFlat());
}

QTEST_GUILESS_MAIN(KillLifecycleStormTest)
#include "tst_kill_lifecycle_storm.moc"
