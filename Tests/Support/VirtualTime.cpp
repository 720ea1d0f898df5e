// SPDX-License-Identifier: MIT
#include "VirtualTime.h"

#include <QElapsedTimer>
#include <QMutex>
#include <QThread>
#include <QWaitCondition>

#include <algorithm>
#include <atomic>
#include <iterator>
#include <pthread.h>

// The linker is told to send the program's calls of QThread::msleep(), QThread::sleep(),
// QWaitCondition::wait(), QElapsedTimer::start() and elapsed() here (--wrap); __real_ is Qt's own.
extern "C" {
void __wrap__ZN7QThread6msleepEm(unsigned long msecs);
void __wrap__ZN7QThread5sleepEm(unsigned long secs);
bool __real__ZN14QWaitCondition4waitEP6QMutexm(QWaitCondition *self, QMutex *mutex,
                                               unsigned long msecs);
bool __wrap__ZN14QWaitCondition4waitEP6QMutexm(QWaitCondition *self, QMutex *mutex,
                                               unsigned long msecs);
void __real__ZN13QElapsedTimer5startEv(QElapsedTimer *self);
void __wrap__ZN13QElapsedTimer5startEv(QElapsedTimer *self);
qint64 __real__ZNK13QElapsedTimer7elapsedEv(const QElapsedTimer *self);
qint64 __wrap__ZNK13QElapsedTimer7elapsedEv(const QElapsedTimer *self);
}

namespace {

std::atomic<unsigned> pauseDivisor{1};
std::atomic<bool> instantWaits{false};
std::atomic<bool> waitsHeld{false};
std::atomic<int> heldWaitCount{0};
std::atomic<unsigned long> stickingPause{0}; // ms; 0: none

thread_local qint64 spared = 0; // ms

// What the thread had been spared when it started its latest timers. One that is not in here, such
// as another thread's, runs in real time. Without a destructor: static objects that are destroyed
// after the thread's own start timers, too.
struct TimerStart
{
    const QElapsedTimer *timer = nullptr;
    qint64 spared = 0;
};
thread_local TimerStart timerStarts[16];
thread_local unsigned nextTimerStart = 0;

TimerStart *findStart(const QElapsedTimer *timer)
{
    const auto isOfTimer = [timer](const TimerStart &start) { return start.timer == timer; };
    const auto found = std::find_if(std::begin(timerStarts), std::end(timerStarts), isOfTimer);
    return found == std::end(timerStarts) ? nullptr : found;
}

void noteStart(const QElapsedTimer *timer)
{
    TimerStart *start = findStart(timer);
    if (!start)
        start = &timerStarts[nextTimerStart++ % std::size(timerStarts)];
    *start = {timer, spared};
}

void stickIfAsked(unsigned long msecs)
{
    if (msecs == 0 || !stickingPause.compare_exchange_strong(msecs, 0))
        return;
    for (;;)
        QThread::usleep(1000);
}

void pause(unsigned long msecs)
{
    stickIfAsked(msecs);
    const unsigned divisor = pauseDivisor;
    const unsigned long real = divisor == 0 ? 0 : 1000 * msecs / divisor; // µs
    if (real == 0) {
        pthread_testcancel(); // as in a real pause
        QThread::yieldCurrentThread();
    } else {
        QThread::usleep(real);
    }
    spared += static_cast<qint64>(msecs - real / 1000);
}

bool waitWhileHeld(QWaitCondition *condition, QMutex *mutex)
{
    bool woken = false;
    ++heldWaitCount;
    while (waitsHeld && !woken)
        woken = __real__ZN14QWaitCondition4waitEP6QMutexm(condition, mutex, 1);
    --heldWaitCount;
    return woken;
}

void passMutexOn(QMutex *mutex)
{
    mutex->unlock();
    QThread::yieldCurrentThread();
    mutex->lock();
}

} // namespace

void VirtualTime::setPauseDivisor(unsigned divisor)
{
    pauseDivisor = divisor;
}

void VirtualTime::setInstantWaits(bool instant)
{
    instantWaits = instant;
}

void VirtualTime::holdWaits(bool held)
{
    waitsHeld = held;
}

int VirtualTime::heldWaits()
{
    return heldWaitCount;
}

void VirtualTime::stickInNextPause(unsigned long msecs)
{
    stickingPause = msecs;
}

qint64 VirtualTime::sparedTime()
{
    return spared;
}

void __wrap__ZN7QThread6msleepEm(unsigned long msecs)
{
    pause(msecs);
}

void __wrap__ZN7QThread5sleepEm(unsigned long secs)
{
    pause(1000 * secs);
}

bool __wrap__ZN14QWaitCondition4waitEP6QMutexm(QWaitCondition *self, QMutex *mutex,
                                               unsigned long msecs)
{
    if (msecs == ULONG_MAX || !(instantWaits || waitsHeld))
        return __real__ZN14QWaitCondition4waitEP6QMutexm(self, mutex, msecs);
    if (waitsHeld && waitWhileHeld(self, mutex))
        return true;
    if (instantWaits)
        passMutexOn(mutex);
    spared += static_cast<qint64>(msecs);
    return false;
}

void __wrap__ZN13QElapsedTimer5startEv(QElapsedTimer *self)
{
    noteStart(self);
    __real__ZN13QElapsedTimer5startEv(self);
}

qint64 __wrap__ZNK13QElapsedTimer7elapsedEv(const QElapsedTimer *self)
{
    const TimerStart *const start = findStart(self);
    return __real__ZNK13QElapsedTimer7elapsedEv(self) + (start ? spared - start->spared : 0);
}
