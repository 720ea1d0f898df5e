// SPDX-License-Identifier: MIT
#include "workerthread.h"

#include "UsbHal.h"

#include <sys/prctl.h>

#ifndef __EXCEPTIONS
#error "A killed thread unwinds its stack to release its locks: compile with -fexceptions"
#endif

namespace {

thread_local UsbHAL *servedCore = nullptr;

} // namespace

WorkerThread::WorkerThread(QObject *parent)
    : QThread(parent), _lastActError(pthread_key_create(&_lastAct, &_endForOwner))
{
}

WorkerThread::~WorkerThread() = default;

bool WorkerThread::startFor(UsbHAL *owner)
{
    UsbHAL *nobody = nullptr;
    if (_lastActError != 0 || !_owner.compare_exchange_strong(nobody, owner))
        return false;
    _arg = nullptr;
    start(QThread::InheritPriority);
    if (isRunning())
        return true;
    release();
    return false;
}

UsbHAL *WorkerThread::currentOwner()
{
    return servedCore;
}

void WorkerThread::run()
{
    // With the system's usual slack each of the link's pauses would end 0.05 ms later.
    prctl(PR_SET_TIMERSLACK, 1UL);
    servedCore = _owner;
    if (pthread_setspecific(_lastAct, servedCore) != 0)
        qFatal("No memory for the communication thread");
    servedCore->_connectedFunc(_arg);
    servedCore->_endOfConnectedThread();
    // From here Qt takes the thread down, in destructors that close descriptors: a kill that struck
    // one of those would end the process.
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
}

// The system calls it when the thread's function has returned or was unwound, so after all that Qt
// does at the end of a thread, but not when a handler ends the process.
void WorkerThread::_endForOwner(void *owner)
{
    servedCore = nullptr;
    static_cast<UsbHAL *>(owner)->_onThreadGone();
}
