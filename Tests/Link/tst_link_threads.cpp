// SPDX-License-Identifier: MIT
#include "LinkProbe.h"
#include "WarningTrap.h"

#include <Background.h>

#include <QAbstractEventDispatcher>
#include <QThread>

#include <future>
#include <memory>
#include <mutex>
#include <vector>

namespace {

/** A thread that handles its events, and in which functions can be run. */
class LoopThread
{
public:
    LoopThread() { _thread->start(); }
    ~LoopThread()
    {
        _ends = true;
        _thread->wait();
    }

    template <typename Function>
    void run(Function function)
    {
        std::packaged_task<void()> task(function);
        std::future<void> done = task.get_future();
        {
            const std::lock_guard<std::mutex> locker(_mutex);
            _tasks.push_back(std::move(task));
        }
        done.get();
    }

private:
    void _handle()
    {
        while (!_ends) {
            QAbstractEventDispatcher::instance()->processEvents(QEventLoop::AllEvents);
            const std::lock_guard<std::mutex> locker(_mutex);
            for (std::packaged_task<void()> &task : _tasks)
                task();
            _tasks.clear();
            QThread::msleep(1);
        }
    }

    std::atomic<bool> _ends{false};
    std::mutex _mutex;
    std::vector<std::packaged_task<void()>> _tasks;
    const std::unique_ptr<QThread> _thread{QThread::create([this] { _handle(); })};
};

/** Waits without handling events, as a client without an event loop does. */
template <typename Condition>
bool waitWithoutEvents(Condition condition, int msecs = 10000)
{
    QElapsedTimer timer;
    timer.start();
    while (!condition() && timer.elapsed() < msecs)
        QThread::msleep(1);
    return condition();
}

/** A client's whole life with the library, with its waits alone. */
bool useLink(LinkProbe &core)
{
    core.setupConfig(core.quietSetup());
    core.driver->setIdleHost(true);
    if (!core.openConnection(1) || !core.waitForConnected(5000) || core.write(1, "data") != 4 ||
        !core.driver->waitForWrite(dataMessage(1, "data")))
        return false;
    core.driver->feed(dataMessage(1, "answer"));
    if (!core.waitForReadyRead(1, 5000) || core.read(1, 100) != "answer")
        return false;
    core.driver->setIdleHost(false);
    if (!core.waitForDisconnected(5000))
        return false;
    core.driver->setIdleHost(true);
    return core.waitForConnected(5000) && core.closeConnection(1);
}

} // namespace

/** Owners, openers, stoppers and destroyers in threads with and without an event loop. */
class LinkThreadsTest : public QObject
{
    Q_OBJECT

private slots:
    void init() { WarningTrap::set(); }
    void cleanup() { QCOMPARE(WarningTrap::take(), QStringList()); }

    void anyThreadMayOpen_data();
    void anyThreadMayOpen();
    void anyThreadMayStop_data();
    void anyThreadMayStop();
    void aClientWithoutAnEventLoopUsesTheLink();
    void aClientWithoutAnEventLoopHasNoWatchdog();
    void aThreadThatEndsByItselfDoesNotWaitForEverOnTheTimer();
    void aCoreMayLiveInAThreadWithoutAnEventLoop();
    void aCoreMayLiveInAThreadWithAnEventLoop();
    void aCoreMayOutliveTheThreadThatMadeIt_data();
    void aCoreMayOutliveTheThreadThatMadeIt();
    void aCoreMayBeDestroyedBesideTheThreadThatMadeIt();
};

void LinkThreadsTest::anyThreadMayOpen_data()
{
    QTest::addColumn<bool>("events");
    QTest::newRow("the owner handles events") << true;
    QTest::newRow("the owner handles none") << false;
}

void LinkThreadsTest::anyThreadMayOpen()
{
    QFETCH(bool, events);
    LinkProbe core;
    QVERIFY(inBackground([&] { return core.connectIdle(); }).get());
    if (events) {
        QTRY_VERIFY(core._mainLoopTimer.isActive());
        QCOMPARE(core._mainLoopTimer.interval(), 20);
    }
    QCOMPARE(core.status(), DriverState::CONNECTED);
    core.stop();
    QVERIFY(!core._mainLoopTimer.isActive());
    QVERIFY(inBackground([&] { return core.openConnection(2); }).get());
    QVERIFY(core.waitForConnected(5000));
}

void LinkThreadsTest::anyThreadMayStop_data()
{
    anyThreadMayOpen_data();
}

void LinkThreadsTest::anyThreadMayStop()
{
    QFETCH(bool, events);
    LinkProbe core;
    QVERIFY(core.connectIdle());
    auto stopping = inBackground([&] { core.stop(); });
    if (events)
        QTRY_VERIFY(!core._mainLoopTimer.isActive());
    stopping.get();
    QVERIFY(!core.isRunning());
    QVERIFY(core.log.contains("stop: communication thread stopped"));
    QVERIFY(core.openConnection(2));
    QVERIFY(core.waitForConnected(5000));
    QVERIFY(core._mainLoopTimer.isActive());
    // The stop's own order to the timer, should it come late, leaves the new start alone.
    QCoreApplication::processEvents();
    QVERIFY(core._mainLoopTimer.isActive());
}

void LinkThreadsTest::aClientWithoutAnEventLoopUsesTheLink()
{
    LinkProbe core;
    QVERIFY(useLink(core));
    core.stop();
    QVERIFY(!core.isRunning());
}

void LinkThreadsTest::aClientWithoutAnEventLoopHasNoWatchdog()
{
    LinkProbe core;
    ParamHal param = core.testSetup();
    param.maxWatchdogErrors = 0;
    param.mainLoopPeriod = 1;
    core.setupConfig(param);
    QVERIFY(core.connectIdle());
    const int reads = core.driver->reads();
    QVERIFY(core.driver->waitForReads(reads + 20));
    core.driver->blockReads();
    QVERIFY(core.driver->waitForBlockedCall());
    QVERIFY(!waitWithoutEvents([&] { return core.driver->cancels() > 0; }, 100));
    core.driver->releaseReads();
    QVERIFY(core.driver->waitForReads(reads + 30));
    QCOMPARE(core.logged("_mainLoop"), QStringList());
}

void LinkThreadsTest::aThreadThatEndsByItselfDoesNotWaitForEverOnTheTimer()
{
    LinkProbe core;
    core.playsHost = true;
    core.setupConfig(core.quietSetup());
    core.driver->failOpens(-1);
    QVERIFY(core.openConnection(1));
    QVERIFY(waitWithoutEvents([&] { return !core.isRunning(); }));
    QCOMPARE(core.logged("_endOfConnectedThread"),
             QStringList({"clean exit of communication thread", "watchdog stopped"}));
    QTRY_VERIFY(!core._mainLoopTimer.isActive());
}

void LinkThreadsTest::aCoreMayLiveInAThreadWithoutAnEventLoop()
{
    auto living = inBackground([] {
        LinkProbe core;
        const bool used = useLink(core);
        core.stop();
        return used && !core.isRunning();
    });
    QVERIFY(living.get());
}

void LinkThreadsTest::aCoreMayLiveInAThreadWithAnEventLoop()
{
    LoopThread thread;
    std::unique_ptr<LinkProbe> core;
    bool opened = false;
    thread.run([&] {
        core.reset(new LinkProbe);
        opened = core->connectIdle();
    });
    QVERIFY(opened);
    QVERIFY(core->openConnection(2));
    core->stop();
    QVERIFY(!core->isRunning());
    QVERIFY(core->openConnection(3));
    QVERIFY(core->waitForConnected(5000));
    thread.run([&] { core.reset(); });
}

void LinkThreadsTest::aCoreMayOutliveTheThreadThatMadeIt_data()
{
    QTest::addColumn<bool>("loop");
    QTest::addColumn<bool>("stopped");
    QTest::newRow("a thread with an event loop, stopped") << true << true;
    QTest::newRow("a thread with an event loop, running") << true << false;
    QTest::newRow("a thread without an event loop, stopped") << false << true;
    QTest::newRow("a thread without an event loop, running") << false << false;
}

void LinkThreadsTest::aCoreMayOutliveTheThreadThatMadeIt()
{
    QFETCH(bool, loop);
    QFETCH(bool, stopped);
    std::unique_ptr<LinkProbe> core;
    bool opened = false;
    const auto make = [&] {
        core.reset(new LinkProbe);
        opened = core->connectIdle();
        if (stopped)
            core->stop();
    };
    if (loop)
        LoopThread().run(make);
    else
        inBackground(make).get();
    QVERIFY(opened);
    QCOMPARE(core->isRunning(), !stopped);
    QVERIFY(core->openConnection(2));
    QVERIFY(core->waitForConnected(5000));
    core->stop();
    core.reset();
}

void LinkThreadsTest::aCoreMayBeDestroyedBesideTheThreadThatMadeIt()
{
    LoopThread thread;
    std::unique_ptr<LinkProbe> core;
    bool opened = false;
    thread.run([&] {
        core.reset(new LinkProbe);
        opened = core->connectIdle();
    });
    QVERIFY(opened);
    core->stop();
    thread.run([] {}); // what the stop posted to that thread is done
    core.reset();
}

QTEST_GUILESS_MAIN(LinkThreadsTest)
#include "tst_link_threads.moc"
