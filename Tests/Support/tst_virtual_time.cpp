// SPDX-License-Identifier: MIT
#include "VirtualTime.h"

#include <Background.h>

#include <QElapsedTimer>
#include <QMutex>
#include <QTest>
#include <QThread>
#include <QWaitCondition>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

namespace {

constexpr qint64 hour = 3600 * 1000; // ms
constexpr int timeout = 30000;       // ms
constexpr int shortWhile = 100;      // ms, for what must not happen

qint64 realTime() // ms
{
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

/** A thread that waits for an hour, at most, as soon as the object is made. */
class Waiter
{
public:
    ~Waiter() { VirtualTime::holdWaits(false); }

    void wakeOne() { _condition.wakeOne(); }
    void wakeAll() { _condition.wakeAll(); }
    bool canTakeMutex()
    {
        return endsWithin(inBackground([this] { wakeNobody(); }), timeout);
    }
    bool hasEnded(int msecs) const { return endsWithin(_woken, msecs); }
    bool wasWoken() { return _woken.get(); }
    /** ms that the thread saw pass. */
    qint64 time() const { return _time; }

private:
    void wakeNobody() { const QMutexLocker locker(&_mutex); }

    bool wait()
    {
        QElapsedTimer timer;
        timer.start();
        const QMutexLocker locker(&_mutex);
        const bool woken = _condition.wait(&_mutex, hour);
        _time = timer.elapsed();
        return woken;
    }

    QMutex _mutex;
    QWaitCondition _condition;
    std::atomic<qint64> _time{0};
    std::future<bool> _woken = inBackground([this] { return wait(); });
};

bool areHeld(int waits)
{
    return QTest::qWaitFor([waits] { return VirtualTime::heldWaits() == waits; }, timeout);
}

} // namespace

class VirtualTimeTest : public QObject
{
    Q_OBJECT

private slots:
    void cleanup()
    {
        VirtualTime::setPauseDivisor(1);
        VirtualTime::setInstantWaits(false);
        VirtualTime::holdWaits(false);
    }

    void pausesAndWaitsAreRealAtFirst()
    {
        QMutex mutex;
        QWaitCondition condition;
        const qint64 start = realTime();
        QThread::msleep(20);
        mutex.lock();
        QVERIFY(!condition.wait(&mutex, 20));
        mutex.unlock();
        QVERIFY(realTime() - start >= 40);
        QCOMPARE(VirtualTime::sparedTime(), qint64(0));
    }

    void aPauseWithoutTimeMovesTheClockOn()
    {
        const qint64 start = realTime();
        const qint64 spared = VirtualTime::sparedTime();
        QElapsedTimer timer;
        timer.start();
        VirtualTime::setPauseDivisor(0);
        QThread::msleep(hour);
        QThread::sleep(hour / 1000);
        QVERIFY(timer.elapsed() >= 2 * hour);
        QVERIFY(realTime() - start < hour);
        QCOMPARE(VirtualTime::sparedTime() - spared, 2 * hour);
    }

    void aDividedPauseTakesItsPart()
    {
        const qint64 start = realTime();
        const qint64 spared = VirtualTime::sparedTime();
        VirtualTime::setPauseDivisor(10);
        QThread::msleep(300);
        QVERIFY(realTime() - start >= 30);
        QCOMPARE(VirtualTime::sparedTime() - spared, qint64(270));
    }

    void anInstantWaitReleasesTheMutexAndPassesItsTime()
    {
        VirtualTime::setInstantWaits(true);
        QMutex mutex;
        QWaitCondition condition;
        QElapsedTimer timer;
        timer.start();
        mutex.lock();
        QVERIFY(!condition.wait(&mutex, hour));
        QVERIFY(!mutex.tryLock());
        mutex.unlock();
        QVERIFY(timer.elapsed() >= hour);
    }

    void aTimerStartedLaterDoesNotCountWhatWasSparedBefore()
    {
        VirtualTime::setPauseDivisor(0);
        QThread::msleep(hour);
        QElapsedTimer timer;
        timer.start();
        QVERIFY(timer.elapsed() < hour);
    }

    void aHeldWaitReleasesItsMutex()
    {
        VirtualTime::holdWaits(true);
        Waiter waiter;
        QVERIFY(areHeld(1));
        QVERIFY(waiter.canTakeMutex());
    }

    void aHeldWaitEndsWhenItIsWoken()
    {
        VirtualTime::holdWaits(true);
        Waiter other;
        QVERIFY(areHeld(1));
        Waiter woken;
        QVERIFY(areHeld(2));
        woken.wakeOne();
        QVERIFY(woken.hasEnded(timeout));
        QVERIFY(woken.wasWoken());
        QVERIFY(woken.time() < hour);
        QVERIFY(areHeld(1));
        QVERIFY(!other.hasEnded(shortWhile));
    }

    void heldWaitsThatAreLetGoHaveSeenTheirWholeTimePass()
    {
        VirtualTime::holdWaits(true);
        Waiter one;
        Waiter other;
        QVERIFY(areHeld(2));
        VirtualTime::holdWaits(false);
        for (Waiter *waiter : {&one, &other}) {
            QVERIFY(waiter->hasEnded(timeout));
            QVERIFY(!waiter->wasWoken());
            QVERIFY(waiter->time() >= hour);
        }
        QCOMPARE(VirtualTime::heldWaits(), 0);
    }

    void aHeldWaitIsNotInstant()
    {
        VirtualTime::setInstantWaits(true);
        VirtualTime::holdWaits(true);
        Waiter waiter;
        QVERIFY(areHeld(1));
        waiter.wakeAll();
        QVERIFY(waiter.hasEnded(timeout));
        QVERIFY(waiter.wasWoken());
    }

    // The thread in it stays in it until the process ends.
    void oneOfThePausesOfThatTimeSticks()
    {
        constexpr int threads = 3;
        constexpr unsigned long pause = 7; // ms
        VirtualTime::setPauseDivisor(0);
        VirtualTime::stickInNextPause(pause);
        QThread::msleep(pause - 1);
        QThread::msleep(pause + 1);
        const auto passed = std::make_shared<std::atomic<int>>(0);
        for (int i = 0; i < threads; ++i) {
            std::thread([passed] {
                QThread::msleep(pause);
                ++*passed;
            }).detach();
        }
        QVERIFY(QTest::qWaitFor([&] { return *passed == threads - 1; }, timeout));
        QVERIFY(!QTest::qWaitFor([&] { return *passed == threads; }, shortWhile));
    }
};

QTEST_GUILESS_MAIN(VirtualTimeTest)
#include "tst_virtual_time.moc"
