// SPDX-License-Identifier: MIT
#include "VirtualTime.h"

#include <QElapsedTimer>
#include <QMutex>
#include <QTest>
#include <QThread>
#include <QWaitCondition>

#include <chrono>

namespace {

constexpr qint64 hour = 3600 * 1000; // ms

qint64 realTime() // ms
{
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
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
};

QTEST_GUILESS_MAIN(VirtualTimeTest)
#include "tst_virtual_time.moc"
