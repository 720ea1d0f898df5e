// SPDX-License-Identifier: MIT
#ifndef VIRTUALTIME_H
#define VIRTUALTIME_H

#include <QtGlobal>

#include <functional>

class QWaitCondition;

/**
 * The library's time in the hands of a test, for programs that link UsbHalVirtualTime and the
 * library's objects. It holds for QThread::msleep() and sleep(), for waits on a QWaitCondition with
 * a time limit and for QElapsedTimer::elapsed(), wherever the program itself calls them; timers
 * and what shared libraries call stay real. Any thread may call these functions.
 */
namespace VirtualTime {

/** Pauses take 1/divisor of their time; 0: none, they only yield. 1 at first. */
void setPauseDivisor(unsigned divisor);

/** Whether a wait with a time limit ends at once, its whole time passed. Not so at first. */
void setInstantWaits(bool instant);

/**
 * While held, a wait with a time limit ends only when it is woken; when let go, those that still
 * wait end at once, their whole time passed. Not held at first.
 */
void holdWaits(bool held);

/** Threads in a held wait; a wake that follows reaches each that waits on that condition. */
int heldWaits();

/** The next pause of exactly that many ms does not end, but for a kill of the thread in it. */
void stickInNextPause(unsigned long msecs);

/** Whether a real wait, once over, lets others have the mutex before it returns. Not so at first.
 */
void setWaitsPassOn(bool passOn);

/** Waits on that condition stay real, whatever is said of waits. */
void keepReal(const QWaitCondition *condition);

/**
 * Takes the place of waits with a time limit for which it returns true, which count as woken: it is
 * called with the condition, the mutex released, in the thread that waits.
 */
void setWaitHook(std::function<bool(const QWaitCondition *)> hook);

/** ms of pauses and waits that the calling thread was spared. */
qint64 sparedTime();

} // namespace VirtualTime

#endif
