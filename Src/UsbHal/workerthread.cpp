// SPDX-License-Identifier: MIT
#include "workerthread.h"

#include "UsbHal.h"

#include <pthread.h>
#include <sys/prctl.h>

#ifndef __EXCEPTIONS
#error "A killed thread unwinds its stack to release its locks: compile with -fexceptions"
#endif

namespace {

thread_local UsbHAL *servedCore = nullptr;

} // namespace

// Of the thread, after Qt has done with it: only then may another be started. It comes from here
// and not from QThread, which counts a thread as ended while it still runs clients' destructors.
struct WorkerThread::LastAct
{
    UsbHAL *owner = nullptr; // none before the core's code is left: a handler may end the process

    ~LastAct()
    {
        if (!owner)
            return;
        servedCore = nullptr;
        owner->_onThreadGone();
    }
};

WorkerThread::WorkerThread(QObject *parent) : QThread(parent) {}

WorkerThread::~WorkerThread() = default;

bool WorkerThread::startFor(UsbHAL *owner)
{
    UsbHAL *nobody = nullptr;
    if (!_owner.compare_exchange_strong(nobody, owner))
        return false;
    _arg = nullptr;
    start(QThread::InheritPriority);
    if (!isRunning()) {
        release();
        return false;
    }
    _entered.acquire(); // a kill before run() would end the thread without its last act
    return true;
}

UsbHAL *WorkerThread::currentOwner()
{
    return servedCore;
}

void WorkerThread::run()
{
    thread_local LastAct lastAct;
    struct Leaving // a thread that is killed comes by here, too
    {
        ~Leaving() { lastAct.owner = servedCore; }
    };
    // With the system's usual slack each of the link's pauses would end 0.05 ms later.
    prctl(PR_SET_TIMERSLACK, 1UL);
    servedCore = _owner;
    const Leaving leaving;
    _entered.release();
    servedCore->_connectedFunc(_arg);
    servedCore->_endOfConnectedThread();
    // From here Qt takes the thread down, in destructors that close descriptors: a kill that struck
    // one of those would end the process.
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
}
