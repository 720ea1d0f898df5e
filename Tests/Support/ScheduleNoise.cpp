// SPDX-License-Identifier: MIT
#include "ScheduleNoise.h"

#include "VirtualTime.h"

#include <CancellationBlocker.h>

#include <QMutex>
#include <QThread>

#include <atomic>

// The linker sends the program's calls of QMutex::lock() and unlock() here (--wrap); __real_ is
// Qt's own.
extern "C" {
void __real__ZN6QMutex4lockEv(QMutex *self);
void __wrap__ZN6QMutex4lockEv(QMutex *self);
void __real__ZN6QMutex6unlockEv(QMutex *self);
void __wrap__ZN6QMutex6unlockEv(QMutex *self);
}

namespace {

constexpr unsigned long longestSleep = 200; // µs
constexpr quint32 sleepOneIn = 64;
constexpr quint32 yieldOneIn = 4;

std::atomic<quint32> currentSeed{0};
std::atomic<quint32> threadsSeen{0};

struct Source
{
    quint32 seed = 0;
    quint32 state = 0;
};
thread_local Source source;

// A xorshift generator: nothing of Qt's, which takes locks of its own.
quint32 draw(quint32 seed)
{
    if (source.seed != seed)
        source = {seed, (seed ^ 0x9e3779b9U * ++threadsSeen) | 1U};
    source.state ^= source.state << 13;
    source.state ^= source.state >> 17;
    source.state ^= source.state << 5;
    return source.state;
}

void disturb()
{
    const quint32 seed = currentSeed;
    if (seed == 0)
        return;
    // No kill strikes in an unlock, which destructors call; so none may strike here.
    const CancellationBlocker blocker;
    const quint32 drawn = draw(seed);
    if (drawn % sleepOneIn == 0)
        QThread::usleep(drawn / sleepOneIn % longestSleep);
    else if (drawn % yieldOneIn == 0)
        QThread::yieldCurrentThread();
}

} // namespace

void ScheduleNoise::setSeed(quint32 seed)
{
    VirtualTime::setWaitsPassOn(seed != 0);
    threadsSeen = 0;
    currentSeed = seed;
}

void __wrap__ZN6QMutex4lockEv(QMutex *self)
{
    disturb();
    __real__ZN6QMutex4lockEv(self);
}

void __wrap__ZN6QMutex6unlockEv(QMutex *self)
{
    __real__ZN6QMutex6unlockEv(self);
    disturb();
}
