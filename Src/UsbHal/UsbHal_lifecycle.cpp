// SPDX-License-Identifier: MIT
#include "UsbHal.h"

#include "UsbHalLog.h"

#include <QThread>

#include <unistd.h>

namespace {

constexpr unsigned long killTimeout = 3000; // ms
constexpr int timerStopPolls = 25;
constexpr unsigned long timerStopPause = 20; // ms
constexpr int timerEndPolls = 500;
constexpr unsigned long timerEndPause = 1; // ms

/** Counts what is under way, as long as it lives. */
class ScopedCount
{
public:
    explicit ScopedCount(quint32 &count) : _count(count) { ++_count; }
    ~ScopedCount() { --_count; }
    Q_DISABLE_COPY(ScopedCount)

private:
    quint32 &_count;
};

// Restarts that this thread is in: a handler that one of them calls must not wait for it.
thread_local quint32 restartsOfThisThread = 0;

} // namespace

// ---- the state of the communication ----

void UsbHAL::_changeCommunication(Communication state)
{
    _communication = state;
    _communicationCond.wakeAll();
    if (_handlerWait)
        _handlerWait->wakeAll();
}

bool UsbHAL::_isCommunicating() const
{
    return _communication == Communication::Running || _communication == Communication::Restarting;
}

// Whether the caller is the communication thread and must not wait any longer.
bool UsbHAL::_hasToEnd() const
{
    return _communication != Communication::Running && isConnectedThread();
}

void UsbHAL::_waitOn(QWaitCondition &condition, qint64 msecs) const
{
    // A kill within QWaitCondition::wait() would leave both its locks in disorder.
    const CancellationBlocker blocker;
    const bool inHandler = isConnectedThread();
    if (inHandler)
        _handlerWait = &condition;
    condition.wait(&_mutex, static_cast<unsigned long>(msecs));
    if (inHandler)
        _handlerWait = nullptr;
}

bool UsbHAL::isConnectedThread() const
{
    return WorkerThread::currentOwner() == this;
}

bool UsbHAL::isInHandler() const
{
    return _emissionDepth > 0 || isConnectedThread();
}

bool UsbHAL::isRunning() const
{
    const CheckedLocker locker(&_mutex);
    return _communication != Communication::Ended && _communication != Communication::Finishing;
}

// ---- the start ----

// A port that is opened while the communication ends would die with it. Returns whether the
// communication goes on or can be started afresh.
bool UsbHAL::_waitForEnding()
{
    if (isConnectedThread()) // which cannot wait for itself
        return _stopsInProgress == 0 &&
               (_isCommunicating() || _communication == Communication::Ending);
    const ScopedCount waiting(_endWaits);
    return _waitUntil(_communicationCond, _param.threadStopTimeout, [this]() REQUIRES(_mutex) {
        _mainLoopTimer.catchUp(); // others wait for it, and its thread is here
        return _stopsInProgress <= restartsOfThisThread &&
               (_isCommunicating() || _communication == Communication::Ended);
    });
}

bool UsbHAL::_startCommunication()
{
    _clearWriteFifo();
    _clearReadFifo();
    if (!_configured || _retired)
        return false;
    logLine("openConnection", {"start communication thread"});
    if (!_startThread())
        return false;
    connect(&_mainLoopTimer, &QTimer::timeout, this, &UsbHAL::_mainLoop, Qt::UniqueConnection);
    _mainLoopTimer.setPeriod(_param.mainLoopPeriod);
    _mainLoopClock.start();
    return true;
}

// Returns false when the thread runs for another core or cannot be started.
bool UsbHAL::_startThread()
{
    _watchdogErrors = 0;
    _loopCounter = 0;
    _lastLoopCounter = 0;
    if (isConnectedThread()) { // which a handler in it has asked to end
        _changeCommunication(Communication::Restarting);
        return true;
    }
    _threadEntered = false;
    if (!_connectedThread.startFor(this))
        return false;
    _process = ::getpid();
    _beginRun();
    _forceLowLevelDisconnection = false;
    return true;
}

// What a run of the communication begins with. A new thread waits for the mutex meanwhile.
void UsbHAL::_beginRun()
{
    ++_runs;
    _nextAction = firstHalf;
    _running = true;
    _changeCommunication(Communication::Running);
}

// ---- the end, in the thread ----

void UsbHAL::_beginEnding()
{
    _running = false;
    if (_communication == Communication::Running)
        _changeCommunication(Communication::Ending);
}

void UsbHAL::_endOfConnectedThread()
{
    CheckedLocker locker(&_mutex);
    logLine("_endOfConnectedThread", {"clean exit of communication thread"});
    if (_mainLoopTimer.period() != 0)
        _stopMainLoop();
    // The thread that the timer lives in may itself wait for this one.
    for (int i = 0; _mainLoopTimer.isTicking() && _endWaits == 0 && i < timerEndPolls; ++i)
        _pause(timerEndPause, locker);
    logLine("_endOfConnectedThread", {"watchdog stopped"});
    _changeCommunication(Communication::Finishing);
}

void UsbHAL::_onThreadGone()
{
    const CheckedLocker locker(&_mutex);
    _connectedThread.release();
    _changeCommunication(Communication::Ended);
}

// ---- the end, from outside ----

void UsbHAL::stop()
{
    CheckedLocker locker(&_mutex);
    ++_stops;
    _stopMainLoop();
    if (isConnectedThread())
        _askThreadToEnd();
    else
        _endCommunication(locker);
    _updateStatus(DriverState::DISCONNECTED, locker);
}

void UsbHAL::_stopMainLoop()
{
    _mainLoopTimer.setPeriod(0);
    _communicationCond.wakeAll(); // the thread that the timer lives in may wait there
}

void UsbHAL::_endCommunication(QMutexLocker &locker)
{
    bool killed = false;
    {
        const ScopedCount stopping(_stopsInProgress);
        for (int i = 0; _mainLoopTimer.isTicking() && i < timerStopPolls; ++i)
            _pause(timerStopPause, locker);
        _askThreadToEnd();
        killed = !_endThread();
    }
    _communicationCond.wakeAll();
    if (killed)
        _releaseDriverOrReport("stop", "USB driver closed", "ERROR: could not close USB driver !",
                               locker);
}

void UsbHAL::_askThreadToEnd()
{
    logLine("stop", {"watchdog stopped"});
    if (_hwDriver)
        _hwDriver->cancelPendingIo();
    _running = false;
    if (_isCommunicating())
        _changeCommunication(Communication::Ending);
}

// Waits for the thread after it was asked to end, and kills it when it does not. Returns whether it
// ended by itself.
bool UsbHAL::_endThread()
{
    const bool ended = _waitForEnd(_param.threadStopTimeout);
    logLine("stop",
            {ended ? "communication thread stopped" : "communication thread still running"});
    if (!ended)
        _stopWorkerThread(killTimeout);
    return ended;
}

// Waits until this run is over, at most msecs ms: another may have begun by the time it wakes.
bool UsbHAL::_waitForEnd(qint64 msecs)
{
    const ScopedCount waiting(_endWaits);
    const quint32 run = _runs;
    return _waitUntil(_communicationCond, msecs, [this, run]() REQUIRES(_mutex) {
        _mainLoopTimer.catchUp(); // a stop may wait for it, and its thread is here
        return _communication == Communication::Ended || _runs != run;
    });
}

void UsbHAL::_stopWorkerThread(unsigned long time)
{
    // A kill before the thread has come to its function would end it without its last act.
    _waitUntil(_communicationCond, static_cast<qint64>(time),
               [this]() REQUIRES(_mutex) { return _threadEntered; });
    if (_threadEntered && (_isCommunicating() || _communication == Communication::Ending)) {
        const QMutexLocker logLocker(UsbHalLog::getInstance()->getLogMutex());
        _connectedThread.terminate();
        // Late or soon it strikes: no handler may ask the thread to begin anew.
        _changeCommunication(Communication::Killed);
    }
    // The thread may have to pass the mutex, which the wait releases, to a point where it can end.
    const bool ended = _waitForEnd(static_cast<qint64>(time));
    logLine("_stopWorkerThread", {ended ? "communication thread did not stop -> killed"
                                        : "ERROR: could not stop communication thread !"});
}

// ---- the restart ----

void UsbHAL::_restartStuckThread(QMutexLocker &locker)
{
    logLine("_mainLoop", {"watchdog errors: ", _watchdogErrors});
    logLine("_mainLoop", {"max watchdog errors: ", _param.maxWatchdogErrors});
    const quint32 stops = _stops;
    if (_hwDriver)
        _hwDriver->cancelPendingIo();
    if (isHost())
        _beginEnding();
    const bool ended = _waitForEnd(_param.threadStopTimeout);
    {
        const ScopedCount stopping(_stopsInProgress); // who opens a port waits for the new run
        const ScopedCount own(restartsOfThisThread);
        if (!ended && _stops == stops)
            _stopWorkerThread(killTimeout);
        _replaceThread(stops, locker);
    }
    _communicationCond.wakeAll();
}

// Touches nothing of what a stop has ended since so many stops.
void UsbHAL::_replaceThread(quint32 stops, QMutexLocker &locker)
{
    if (_stops == stops)
        _updateStatus(DriverState::DISCONNECTED, locker);
    // The link may be up again: a handler may have opened a port and waited for it.
    if (_stops == stops && _driverState == DriverState::DISCONNECTED)
        _changeAllSocketsState(SocketState::DISCONNECTED, locker);
    if (_stops != stops)
        _releaseDriverOfDeadThread();
    else if (_communication == Communication::Ended)
        _startThread();
}

// A stop() that found the thread killed has left the driver to whoever killed it.
void UsbHAL::_releaseDriverOfDeadThread()
{
    if (!_running && _communication == Communication::Ended)
        _releaseDriver();
}

// ---- the end of the core ----

// Stops the core for good. Returns whether its thread is gone.
bool UsbHAL::retire()
{
    {
        const CheckedLocker locker(&_mutex);
        if (_retired)
            return _communication == Communication::Ended;
        _retired = true;
    }
    logLine("~UsbHAL", {"UsbHAL::~UsbHAL"});
    stop();
    const CheckedLocker locker(&_mutex);
    return _communication == Communication::Ended;
}

// Whether the caller may destroy the core: neither beneath frames of its own nor beside the thread
// that it lives in, which alone may stop its timer.
bool UsbHAL::isDestroyable() const
{
    const QThread *const owner = thread();
    return !isInHandler() && (!owner || owner == QThread::currentThread() || owner->isFinished());
}

// A forked child has the core's locks as they were at the fork, but neither the thread that its
// parent started nor the right to the device.
bool UsbHAL::hasStartedHere() const
{
    return _process == ::getpid();
}
