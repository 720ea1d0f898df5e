// SPDX-License-Identifier: MIT
#include "VirtualTime.h"

#include <QElapsedTimer>
#include <QMutex>
#include <QThread>
#include <QWaitCondition>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <functional>
#include <iterator>
#include <limits>
#include <list>
#include <mutex>
#include <pthread.h>
#include <utility>

// The linker is told to send the program's calls of QThread::msleep(), QThread::sleep(),
// QWaitCondition::wait(), wakeOne() and wakeAll(), QElapsedTimer::start() and elapsed() here
// (--wrap);
// __real_ is Qt's own.
extern "C" {
void __wrap__ZN7QThread6msleepEm(unsigned long msecs);
void __wrap__ZN7QThread5sleepEm(unsigned long secs);
bool __real__ZN14QWaitCondition4waitEP6QMutexm(QWaitCondition *self, QMutex *mutex,
                                               unsigned long msecs);
bool __wrap__ZN14QWaitCondition4waitEP6QMutexm(QWaitCondition *self, QMutex *mutex,
                                               unsigned long msecs);
void __real__ZN14QWaitCondition7wakeOneEv(QWaitCondition *self);
void __wrap__ZN14QWaitCondition7wakeOneEv(QWaitCondition *self);
void __real__ZN14QWaitCondition7wakeAllEv(QWaitCondition *self);
void __wrap__ZN14QWaitCondition7wakeAllEv(QWaitCondition *self);
void __real__ZN13QElapsedTimer5startEv(QElapsedTimer *self);
void __wrap__ZN13QElapsedTimer5startEv(QElapsedTimer *self);
qint64 __real__ZNK13QElapsedTimer7elapsedEv(const QElapsedTimer *self);
qint64 __wrap__ZNK13QElapsedTimer7elapsedEv(const QElapsedTimer *self);
}

namespace {

std::atomic<unsigned> pauseDivisor{1};
std::atomic<bool> instantWaits{false};
std::atomic<bool> waitsHeld{false};
std::atomic<bool> waitsPassOn{false};
std::atomic<unsigned long> stickingPause{0}; // ms; 0: none
std::atomic<const QWaitCondition *> realCondition{nullptr};
std::function<bool(const QWaitCondition *)> waitHook;

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
    const auto real =
        static_cast<unsigned long>(divisor == 0 ? 0 : quint64(1000) * msecs / divisor); // µs
    if (real == 0) {
        pthread_testcancel(); // as in a real pause
        QThread::yieldCurrentThread();
    } else {
        QThread::usleep(real);
    }
    spared += static_cast<qint64>(msecs - real / 1000);
}

struct HeldWait
{
    const QWaitCondition *condition;
    bool woken;
};

/** The waits that are held, the longest first. Not Qt's own: those could not be let go. */
struct HeldWaits
{
    std::mutex mutex;
    std::condition_variable changed;
    std::list<HeldWait> waits;
};

// Never destroyed: static objects wake others while the process ends.
HeldWaits &allHeldWaits()
{
    static HeldWaits &all = *new HeldWaits;
    return all;
}

bool waitWhileHeld(const QWaitCondition *condition, QMutex *mutex)
{
    HeldWaits &held = allHeldWaits();
    std::unique_lock<std::mutex> locker(held.mutex);
    const auto wait = held.waits.insert(held.waits.end(), {condition, false});
    mutex->unlock();
    held.changed.wait(locker, [wait] { return wait->woken || !waitsHeld; });
    const bool woken = wait->woken;
    held.waits.erase(wait);
    locker.unlock();
    mutex->lock();
    return woken;
}

// Returns how many it woke, at most so many.
int wakeHeld(const QWaitCondition *condition, int atMost)
{
    HeldWaits &held = allHeldWaits();
    const std::lock_guard<std::mutex> locker(held.mutex);
    int count = 0;
    for (HeldWait &wait : held.waits) {
        if (count == atMost || wait.woken || wait.condition != condition)
            continue;
        wait.woken = true;
        ++count;
    }
    held.changed.notify_all();
    return count;
}

bool isHooked(const QWaitCondition *condition, QMutex *mutex)
{
    if (!waitHook)
        return false;
    mutex->unlock();
    const bool hooked = waitHook(condition);
    mutex->lock();
    return hooked;
}

void passMutexOn(QMutex *mutex)
{
    mutex->unlock();
    QThread::yieldCurrentThread();
    mutex->lock();
}

bool waitReally(QWaitCondition *condition, QMutex *mutex, unsigned long msecs)
{
    const bool woken = __real__ZN14QWaitCondition4waitEP6QMutexm(condition, mutex, msecs);
    if (waitsPassOn)
        passMutexOn(mutex);
    return woken;
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
    const std::lock_guard<std::mutex> locker(allHeldWaits().mutex);
    waitsHeld = held;
    allHeldWaits().changed.notify_all();
}

int VirtualTime::heldWaits()
{
    const std::lock_guard<std::mutex> locker(allHeldWaits().mutex);
    return static_cast<int>(allHeldWaits().waits.size());
}

void VirtualTime::stickInNextPause(unsigned long msecs)
{
    stickingPause = msecs;
}

void VirtualTime::setWaitsPassOn(bool passOn)
{
    waitsPassOn = passOn;
}

void VirtualTime::keepReal(const QWaitCondition *condition)
{
    realCondition = condition;
}

void VirtualTime::setWaitHook(std::function<bool(const QWaitCondition *)> hook)
{
    waitHook = std::move(hook);
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
    if (isHooked(self, mutex))
        return true;
    if (self == realCondition || msecs == ULONG_MAX || !(instantWaits || waitsHeld))
        return waitReally(self, mutex, msecs);
    if (waitsHeld && waitWhileHeld(self, mutex))
        return true;
    if (instantWaits)
        passMutexOn(mutex);
    spared += static_cast<qint64>(msecs);
    return false;
}

void __wrap__ZN14QWaitCondition7wakeOneEv(QWaitCondition *self)
{
    if (!waitsHeld || wakeHeld(self, 1) == 0)
        __real__ZN14QWaitCondition7wakeOneEv(self);
}

void __wrap__ZN14QWaitCondition7wakeAllEv(QWaitCondition *self)
{
    if (waitsHeld)
        wakeHeld(self, std::numeric_limits<int>::max());
    __real__ZN14QWaitCondition7wakeAllEv(self);
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
