// SPDX-License-Identifier: MIT
#ifndef CANCELLATIONBLOCKER_H
#define CANCELLATIONBLOCKER_H

#include <QtGlobal>

#include <pthread.h>

/**
 * While it lives, a kill of the thread that made it waits. For code that must not be left halfway;
 * every thread may use it, and one within another.
 */
class CancellationBlocker
{
public:
    CancellationBlocker() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &_formerState); }
    ~CancellationBlocker() { pthread_setcancelstate(_formerState, nullptr); }
    Q_DISABLE_COPY(CancellationBlocker)

    /** Lets a kill that waits happen here, unless an outer blocker holds it off. */
    void testCancel() const
    {
        pthread_setcancelstate(_formerState, nullptr);
        pthread_testcancel();
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    }

private:
    int _formerState = PTHREAD_CANCEL_ENABLE;
};

#endif
