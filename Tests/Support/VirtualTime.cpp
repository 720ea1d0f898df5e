// SPDX-License-Identifier: MIT
#include "VirtualTime.h"

#include <QElapsedTimer>
#include <QHash>
#include <QMutex>
#include <QThread>
#include <QWaitCondition>

#include <atomic>
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

thread_local qint64 spared = 0; // ms

// What the thread had been spared when it started a timer. A timer that another thread started is
// not in here, and runs in real time.
thread_local QHash<const QElapsedTimer *, qint64> sparedAtStart;

void pause(unsigned long msecs)
{
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

} // namespace

void VirtualTime::setPauseDivisor(unsigned divisor)
{
    pauseDivisor = divisor;
}

void VirtualTime::setInstantWaits(bool instant)
{
    instantWaits = instant;
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
    if (!instantWaits || msecs == ULONG_MAX)
        return __real__ZN14QWaitCondition4waitEP6QMutexm(self, mutex, msecs);
    mutex->unlock();
    QThread::yieldCurrentThread();
    mutex->lock();
    spared += static_cast<qint64>(msecs);
    return false;
}

void __wrap__ZN13QElapsedTimer5startEv(QElapsedTimer *self)
{
    sparedAtStart[self] = spared;
    __real__ZN13QElapsedTimer5startEv(self);
}

qint64 __wrap__ZNK13QElapsedTimer7elapsedEv(const QElapsedTimer *self)
{
    return __real__ZNK13QElapsedTimer7elapsedEv(self) + spared - sparedAtStart.value(self, spared);
}
