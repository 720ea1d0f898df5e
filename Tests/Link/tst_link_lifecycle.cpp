// SPDX-License-Identifier: MIT
#include "LinkProbe.h"
#include "WarningTrap.h"

#include <Background.h>
#include <SignalRecorder.h>

#include <QSemaphore>

#include <functional>
#include <memory>

namespace {

constexpr int patience = 10000; // ms, for what must happen soon
const QString opening = "openConnection: opening driver";
const QString watchdogStopped = "stop: watchdog stopped";

/** A handler of the next message, in the communication thread, that a test lets go on. */
class Handler
{
public:
    Handler(LinkProbe &core, std::function<void()> action)
        : _connection(QObject::connect(
              &core, QOverload<int>::of(&UsbHAL::readyRead), &core,
              [this, action] {
                  action();
                  _acted.release();
                  _mayReturn.acquire();
              },
              Qt::DirectConnection))
    {
        core.driver->feed(dataMessage(1, "data"));
    }
    ~Handler()
    {
        QObject::disconnect(_connection);
        _mayReturn.release();
    }

    bool waitUntilActed() { return _acted.tryAcquire(1, patience); }
    void letReturn() { _mayReturn.release(); }

private:
    QSemaphore _acted;
    QSemaphore _mayReturn;
    const QMetaObject::Connection _connection;
};

bool endsWell(std::future<bool> &call)
{
    return QTest::qWaitFor([&] { return endsWithin(call, 0); }, patience) && call.get();
}

} // namespace

/** A start beside the end before it. */
class LinkLifecycleTest : public QObject
{
    Q_OBJECT

private slots:
    void init() { WarningTrap::set(); }
    void cleanup() { QCOMPARE(WarningTrap::take(), QStringList()); }

    void twoOpenersReturnWhenTheNewCommunicationRuns();
    void aStopBesideAWaitingOpenerDoesNotFailIt();
    void anOpenerOutlastsAStopThatTakesTooLong();
    void aDestructorInTheEndingThreadMayCallTheCore();
    void aDestructorInTheEndingThreadCannotStartIt();
    void aDestructorInTheEndingThreadMayStop();
    void theOwnersThreadMayOpenRightAfterAHandlersStop();
    void aCoreWithoutDriversAnswers();

    void aStopInAHandlerEndsTheBuffer();
    void noPayloadOfBeforeAStopReachesTheNewPort();
    void anOpenInTheStoppedThreadResetsTheWatchdog();
    void aWaitInAHandlerEndsWithAStop_data();
    void aWaitInAHandlerEndsWithAStop();
    void aWaitInAStoppedHandlerDoesNotBegin();

private:
    static bool waitForOpeners(LinkProbe &core, int count)
    {
        return core.log.waitFor(opening, count);
    }
    static void talk(LinkProbe &core)
    {
        core.driver->setReadWait(5);
        core.driver->setIdleHost(true);
    }
    // Stops in a handler, whose thread then goes on to its end as long as the test likes.
    static std::unique_ptr<Handler> stopInHandler(LinkProbe &core)
    {
        auto handler = std::make_unique<Handler>(core, [&core] { core.stop(); });
        return handler->waitUntilActed() ? std::move(handler) : nullptr;
    }
};

void LinkLifecycleTest::twoOpenersReturnWhenTheNewCommunicationRuns()
{
    for (int round = 0; round < 20; ++round) {
        LinkProbe core;
        ParamHal param = core.quietSetup();
        param.threadStopTimeout = 60000;
        core.setupConfig(param);
        QVERIFY(core.connectStepwise(1));
        const auto handler = stopInHandler(core);
        QVERIFY(handler);
        auto first = inBackground([&] { return core.openConnection(2); });
        auto second = inBackground([&] { return core.openConnection(3); });
        QVERIFY(waitForOpeners(core, 3));
        handler->letReturn();
        const bool opened = endsWell(first) && endsWell(second);
        talk(core);
        QVERIFY(opened);
        QVERIFY(core.waitForConnected(patience));
        QCOMPARE(core.driver->opens(), 2);
    }
}

void LinkLifecycleTest::aStopBesideAWaitingOpenerDoesNotFailIt()
{
    for (int round = 0; round < 20; ++round) {
        LinkProbe core;
        ParamHal param = core.quietSetup();
        param.threadStopTimeout = 60000;
        core.setupConfig(param);
        QVERIFY(core.connectStepwise(1));
        const auto handler = stopInHandler(core);
        QVERIFY(handler);
        auto opener = inBackground([&] { return core.openConnection(2); });
        QVERIFY(waitForOpeners(core, 2));
        auto stopper = inBackground([&] {
            core.stop();
            return true;
        });
        QVERIFY(core.log.waitFor(watchdogStopped, 2));
        handler->letReturn();
        const bool stopped = endsWell(stopper);
        const bool opened = endsWell(opener);
        talk(core);
        QVERIFY(stopped);
        QVERIFY(opened);
        QVERIFY(core.waitForConnected(patience));
    }
}

void LinkLifecycleTest::anOpenerOutlastsAStopThatTakesTooLong()
{
    LinkProbe core;
    QVERIFY(core.connectStepwise(1));
    const auto handler = stopInHandler(core);
    QVERIFY(handler);
    core.locked([&](QMutexLocker &) { core._param.threadStopTimeout = 100; });
    SignalRecorder recorder(&core);
    QElapsedTimer timer;
    timer.start();
    QVERIFY(!core.openConnection(2));
    QVERIFY(timer.elapsed() >= 100);
    QVERIFY(recorder.all().contains("error(7,2)"));
    core.locked([&](QMutexLocker &) { core._param.threadStopTimeout = 60000; });
    handler->letReturn();
    QVERIFY(core.openConnection(2));
    talk(core);
    QVERIFY(core.waitForConnected(patience));
}

void LinkLifecycleTest::aDestructorInTheEndingThreadMayCallTheCore()
{
    LinkProbe core;
    ParamHal param = core.quietSetup();
    param.threadStopTimeout = 60000;
    core.setupConfig(param);
    QVERIFY(core.connectStepwise(1));
    QSemaphore destroying;
    QSemaphore answered;
    const auto handler = std::make_unique<Handler>(core, [&] {
        core.stop();
        deleteWithThread([&] {
            destroying.release();
            waitForOpeners(core, 2);
            if (core.status() == DriverState::DISCONNECTED && !core.isRunning())
                answered.release();
        });
    });
    QVERIFY(handler->waitUntilActed());
    handler->letReturn();
    QVERIFY(destroying.tryAcquire(1, patience));
    auto opener = inBackground([&] { return core.openConnection(2); });
    auto client = inBackground([&] { return core.bytesToWrite() == 0; });
    QVERIFY(answered.tryAcquire(1, patience));
    QVERIFY(endsWell(opener));
    QVERIFY(endsWell(client));
    talk(core);
    QVERIFY(core.waitForConnected(patience));
}

void LinkLifecycleTest::aDestructorInTheEndingThreadCannotStartIt()
{
    LinkProbe core;
    QVERIFY(core.connectStepwise(1));
    SignalRecorder recorder(&core);
    std::atomic<int> opened{-1};
    const auto handler = std::make_unique<Handler>(core, [&] {
        core.stop();
        deleteWithThread([&] { opened = core.openConnection(2); });
    });
    QVERIFY(handler->waitUntilActed());
    handler->letReturn();
    QTRY_COMPARE(int(opened), 0);
    QVERIFY(recorder.all().contains("error(7,2)"));
    QVERIFY(core.openConnection(2));
    talk(core);
    QVERIFY(core.waitForConnected(patience));
}

void LinkLifecycleTest::aDestructorInTheEndingThreadMayStop()
{
    LinkProbe core;
    QVERIFY(core.connectStepwise(1));
    QSemaphore stopped;
    const auto handler = std::make_unique<Handler>(core, [&] {
        core.stop();
        deleteWithThread([&] {
            core.stop();
            stopped.release();
        });
    });
    QVERIFY(handler->waitUntilActed());
    handler->letReturn();
    QVERIFY(stopped.tryAcquire(1, 2000)); // it does not wait for itself
    QVERIFY(core.openConnection(2));
    talk(core);
    QVERIFY(core.waitForConnected(patience));
    QVERIFY(!core.log.contains("stop: communication thread still running"));
}

void LinkLifecycleTest::theOwnersThreadMayOpenRightAfterAHandlersStop()
{
    LinkProbe core;
    ParamHal param = core.quietSetup();
    param.threadStopTimeout = 300; // less than the ending thread waits for a timer
    core.setupConfig(param);
    QVERIFY(core.connectStepwise(1));
    const auto handler = stopInHandler(core);
    QVERIFY(handler);
    handler->letReturn();
    QVERIFY(core.openConnection(2));
    talk(core);
    QVERIFY(core.waitForConnected(patience));
    QVERIFY(core._mainLoopTimer.isActive());
}

void LinkLifecycleTest::aCoreWithoutDriversAnswers()
{
    const LogCapture log;
    UsbHAL core({});
    ParamHal param;
    core.getDefaultSetup(param);
    param.logDir = log.folder();
    core.setupConfig(param);
    QVERIFY(core.openConnection(1));
    auto client = inBackground([&] {
        const bool down = core.status() == DriverState::DISCONNECTED;
        core.stop();
        return down;
    });
    QVERIFY(endsWell(client));
    QVERIFY(!core.isRunning());
    QVERIFY(log.contains("stop: communication thread stopped"));
}

void LinkLifecycleTest::aStopInAHandlerEndsTheBuffer()
{
    LinkProbe core;
    QVERIFY(core.connectStepwise(1));
    SignalRecorder recorder(&core);
    recorder.setHandler([&](const QString &signal) {
        if (signal == "readyRead(1)")
            core.stop();
    });
    core.driver->feed(dataMessage(1, "first") + dataMessage(1, "second"));
    QVERIFY(core.waitForEndOfThread());
    QCOMPARE(recorder.all(), QStringList({"readyRead(1)", "stateChanged(DISCONNECTED)"}));
    QCOMPARE(core.status(), DriverState::DISCONNECTED);
    QCOMPARE(core.queuedMessages(1), 1);
}

void LinkLifecycleTest::noPayloadOfBeforeAStopReachesTheNewPort()
{
    LinkProbe core;
    QVERIFY(core.connectStepwise(1));
    std::atomic<bool> opened{false};
    const auto handler = QObject::connect(
        &core, QOverload<int>::of(&UsbHAL::readyRead), &core,
        [&] {
            if (opened)
                return;
            core.stop();
            core.closeConnection(1);
            opened = core.openConnection(1);
        },
        Qt::DirectConnection);
    core.driver->feed(dataMessage(1, "first") + dataMessage(1, "old"));
    QTRY_VERIFY(opened);
    talk(core);
    QVERIFY(core.waitForConnected(patience));
    QVERIFY(QObject::disconnect(handler));
    QCOMPARE(core.read(1, 100), QByteArray());
    core.driver->feed(dataMessage(1, "new"));
    QVERIFY(core.waitForReadyRead(1, patience));
    QCOMPARE(core.read(1, 100), QByteArray("new"));
}

using Wait = std::function<bool(LinkProbe &)>; // returns whether it was not reached
Q_DECLARE_METATYPE(Wait)

void LinkLifecycleTest::anOpenInTheStoppedThreadResetsTheWatchdog()
{
    LinkProbe core;
    QVERIFY(core.connectStepwise(1));
    quint32 before = 0;
    quint32 after = 1;
    SignalRecorder recorder(&core);
    recorder.setHandler([&](const QString &signal) {
        if (signal != "readyRead(1)")
            return;
        core.locked([&](QMutexLocker &) { before = core._loopCounter; });
        core.stop();
        core.openConnection(2);
        core.locked([&](QMutexLocker &) { after = core._loopCounter; });
        core.stop();
    });
    core.driver->feed(dataMessage(1, "data"));
    QVERIFY(core.waitForEndOfThread());
    QVERIFY(before > 0);
    QCOMPARE(after, 0U);
}

void LinkLifecycleTest::aWaitInAHandlerEndsWithAStop_data()
{
    constexpr int forLong = 600000; // ms
    QTest::addColumn<Wait>("wait");
    QTest::newRow("waitForReadyRead")
        << Wait([](LinkProbe &core) { return !core.waitForReadyRead(1, forLong); });
    QTest::newRow("waitForDisconnected")
        << Wait([](LinkProbe &core) { return !core.waitForDisconnected(forLong); });
    QTest::newRow("flush") << Wait([](LinkProbe &core) {
        core.write(1, "unsent");
        core.flush(forLong);
        return core.bytesToWrite() == 1;
    });
    QTest::newRow("the wait of a close") << Wait([](LinkProbe &core) {
        core.write(1, "unsent");
        return core.closeConnection(1) && core.bytesToWrite() == 0;
    });
}

void LinkLifecycleTest::aWaitInAHandlerEndsWithAStop()
{
    QFETCH(Wait, wait);
    LinkProbe core;
    QVERIFY(core.connectStepwise(1));
    QSemaphore waiting;
    std::atomic<int> notReached{-1};
    const auto handler = QObject::connect(
        &core, QOverload<int>::of(&UsbHAL::readyRead), &core,
        [&](int port) {
            core.read(port, 100);
            waiting.release();
            notReached = wait(core);
        },
        Qt::DirectConnection);
    core.driver->feed(dataMessage(1, "data"));
    QVERIFY(waiting.tryAcquire(1, patience));
    core.stop();
    QCOMPARE(int(notReached), 1);
    QVERIFY(core.log.contains("stop: communication thread stopped"));
    QVERIFY(!core.log.contains("stop: communication thread still running"));
    QVERIFY(QObject::disconnect(handler));
}

void LinkLifecycleTest::aWaitInAStoppedHandlerDoesNotBegin()
{
    LinkProbe core;
    QVERIFY(core.connectStepwise(1));
    std::atomic<int> connected{-1};
    const auto handler = std::make_unique<Handler>(core, [&] {
        core.stop();
        connected = core.waitForConnected(600000);
    });
    QVERIFY(handler->waitUntilActed());
    QCOMPARE(int(connected), 0);
    handler->letReturn();
    QVERIFY(core.waitForEndOfThread());
}

QTEST_GUILESS_MAIN(LinkLifecycleTest)
#include "tst_link_lifecycle.moc"
