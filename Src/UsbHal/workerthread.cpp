// SPDX-License-Identifier: MIT
#include "workerthread.h"

#include "UsbHal.h"

#include <mutex>
#include <pthread.h>
#include <sys/prctl.h>

#ifndef __EXCEPTIONS
#error "A killed thread unwinds its stack to release its locks: compile with -fexceptions"
#endif

WorkerThread::WorkerThread(QObject *parent) : QThread(parent) {}

WorkerThread::~WorkerThread() = default;

bool WorkerThread::startFor(UsbHAL *owner)
{
    static std::mutex starting; // two cores may want the one thread at the same time
    const std::lock_guard<std::mutex> locker(starting);
    if (isRunning())
        return false;
    _owner = owner;
    _arg = nullptr;
    start(QThread::InheritPriority);
    return isRunning();
}

void WorkerThread::run()
{
    // With the system's usual slack each of the link's pauses would end 0.05 ms later.
    prctl(PR_SET_TIMERSLACK, 1UL);
    UsbHAL *const owner = _owner;
    owner->_connectedFunc(_arg);
    owner->_endOfConnectedThread();
    // From here Qt takes the thread down, in destructors that close descriptors: a kill that struck
    // one of those would end the process.
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
}
