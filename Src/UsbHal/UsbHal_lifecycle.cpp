// SPDX-License-Identifier: MIT
#include "UsbHal.h"

#include "UsbHalLog.h"

#include <QAbstractEventDispatcher>
#include <QThread>

#include <limits>

namespace {

constexpr unsigned long killTimeout = 3000; // ms
constexpr int timerStopPolls = 25;
constexpr unsigned long timerStopPause = 20; // ms
constexpr int timerEndPolls = 500;
constexpr unsigned long timerEndPause = 1; // ms

} // namespace

bool UsbHAL::_isCommunicating() const
{
    return (_running || _startPending) && _connectedThread.belongsTo(this) &&
           _connectedThread.isRunning();
}

// Whether a stop is under way or the thread, asked to end, has not ended yet.
bool UsbHAL::_isEnding() const
{
    return _stopsInProgress != 0 || (!_isCommunicating() && _connectedThread.isRunning());
}

// A port that is opened while the communication ends would die with it. Returns whether the
// communication goes on or can be started afresh.
bool UsbHAL::_waitForEnding(QMutexLocker &locker)
{
    if (isConnectedThread())
        return _stopsInProgress == 0;
    QElapsedTimer timer;
    timer.start();
    _waitUntil(_stopEndedCond, _param.threadStopTimeout,
               [this]() REQUIRES(_mutex) { return _stopsInProgress == 0; });
    const qint64 left = qMax<qint64>(_param.threadStopTimeout - timer.elapsed(), 0);
    if (_isEnding())
        _waitForThread(locker, static_cast<unsigned long>(left));
    return !_isEnding();
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
    _resetWatchdog();
    connect(&_mainLoopTimer, &QTimer::timeout, this, &UsbHAL::_mainLoop, Qt::UniqueConnection);
    _setMainLoopTimer(_param.mainLoopPeriod);
    _mainLoopClock.start();
    return true;
}

// Returns false when the thread runs for another core or cannot be started.
bool UsbHAL::_startThread()
{
    if (isConnectedThread()) {
        _startPending = true;
        return true;
    }
    if (!_connectedThread.startFor(this))
        return false;
    _beginCommunication();
    _forceLowLevelDisconnection = false;
    return true;
}

void UsbHAL::retire()
{
    logLine("~UsbHAL", {"UsbHAL::~UsbHAL"});
    {
        const CheckedLocker locker(&_mutex);
        _retired = true;
    }
    stop();
}

bool UsbHAL::isInHandler() const
{
    return emissionDepth > 0 || isConnectedThread();
}

// Whether the core may be destroyed now: neither beneath frames of its own nor beside its own
// thread, which alone may stop its timer.
bool UsbHAL::isDestroyable() const
{
    const QThread *const owner = thread();
    return !isInHandler() && !(isRunning() && _connectedThread.belongsTo(this)) &&
           (!owner || owner == QThread::currentThread() || owner->isFinished());
}

void UsbHAL::stop()
{
    CheckedLocker locker(&_mutex);
    ++_stops;
    _setMainLoopTimer(0);
    if (isConnectedThread())
        _askThreadToEnd();
    else
        _endCommunication(locker);
    _updateStatus(DriverState::DISCONNECTED, locker);
}

void UsbHAL::_endCommunication(QMutexLocker &locker)
{
    ++_stopsInProgress;
    for (int i = 0; _mainLoopActive && i < timerStopPolls; ++i)
        _pause(timerStopPause, locker);
    _askThreadToEnd();
    _endThread(locker);
    --_stopsInProgress;
    _stopEndedCond.wakeAll();
}

void UsbHAL::_askThreadToEnd()
{
    logLine("stop", {"watchdog stopped"});
    if (_hwDriver)
        _hwDriver->cancelPendingIo();
    _running = false;
    _startPending = false;
}

bool UsbHAL::isRunning() const
{
    return _connectedThread.isRunning();
}

// The state of a communication whose thread was just started: it waits for the mutex, so it cannot
// see the state of before.
void UsbHAL::_beginCommunication()
{
    _nextAction = firstHalf;
    _running = true;
    _startPending = false;
}

void UsbHAL::_leaveThread(QMutexLocker &locker)
{
    if (_releaseDriver()) {
        logLine("_connectedFunc", {"USB driver closed"});
    } else {
        _emitError(Error::CloseFailed, nullptr, locker);
        logLine("_connectedFunc", {"Could not close USB driver !"});
    }
    _running = false;
    _updateStatus(DriverState::DISCONNECTED, locker);
    _maxSizeExchanged = false;
}

void UsbHAL::_leaveThreadAsHost(QMutexLocker &locker)
{
    _updateStatus(DriverState::DISCONNECTED, locker);
    _onDisconnected(locker);
    _running = false;
}

void UsbHAL::_endOfConnectedThread()
{
    CheckedLocker locker(&_mutex);
    logLine("_endOfConnectedThread", {"clean exit of communication thread"});
    if (_mainLoopPeriod != 0)
        _setMainLoopTimer(0);
    // The thread that owns the timer may itself wait for this one, in a stop.
    for (int i = 0; _mainLoopActive && _stopsInProgress == 0 && i < timerEndPolls; ++i)
        _pause(timerEndPause, locker);
    logLine("_endOfConnectedThread", {"watchdog stopped"});
}

// Waits for the thread after it was asked to end, and kills it when it does not.
void UsbHAL::_endThread(QMutexLocker &locker)
{
    if (_waitForThread(locker, _param.threadStopTimeout)) {
        logLine("stop", {"communication thread stopped"});
        return;
    }
    logLine("stop", {"communication thread still running"});
    _stopWorkerThread(killTimeout);
    if (_releaseDriver()) {
        logLine("stop", {"USB driver closed"});
    } else {
        _emitError(Error::CloseFailed, nullptr, locker);
        logLine("stop", {"ERROR: could not close USB driver !"});
    }
}

void UsbHAL::_stopWorkerThread(unsigned long time)
{
    {
        const QMutexLocker logLocker(UsbHalLog::getInstance()->getLogMutex());
        if (_connectedThread.belongsTo(this))
            _connectedThread.terminate();
    }
    // The thread may have to pass the mutex to reach a point where it can be cancelled.
    _mutex.unlock();
    const bool ended = !_connectedThread.belongsTo(this) || _connectedThread.wait(time);
    _mutex.lock();
    logLine("_stopWorkerThread", {ended ? "communication thread did not stop -> killed"
                                        : "ERROR: could not stop communication thread !"});
}

// A stop() that found the thread killed has left the driver to whoever killed it.
void UsbHAL::_releaseDriverOfDeadThread()
{
    if (!_running && !_connectedThread.isRunning())
        _releaseDriver();
}

bool UsbHAL::isConnectedThread() const
{
    return QThread::currentThread() == &_connectedThread && _connectedThread.belongsTo(this);
}

// Returns whether the thread has ended, or never ran for this core.
bool UsbHAL::_waitForThread(QMutexLocker &locker, unsigned long time)
{
    if (!_connectedThread.belongsTo(this))
        return true;
    bool ended = false;
    _runUnlocked(locker, [&] { ended = _connectedThread.wait(time); });
    return ended;
}

void UsbHAL::watchdog(bool /*enable*/) {}

void UsbHAL::_mainLoop()
{
    CheckedLocker locker(&_mutex);
    if (!_isWatchdogDue())
        return;
    const auto progress = static_cast<qint32>(_loopCounter - _lastLoopCounter);
    if (progress > 0) {
        _lastLoopCounter = _loopCounter;
        _watchdogErrors = 0;
    } else if (++_watchdogErrors > _param.maxWatchdogErrors) {
        _restartStuckThread(locker);
    }
    _mainLoopClock.restart();
}

bool UsbHAL::_isWatchdogDue() const
{
    // A tick of a timer that was stopped meanwhile must not restart what stop() has ended.
    if (_mainLoopPeriod == 0 || !_driverOpened)
        return false;
    // Rounded: a precise timer may fire a fraction of a millisecond early.
    if ((_mainLoopClock.nsecsElapsed() + 500000) / 1000000 < _param.mainLoopPeriod)
        return false;
    return !(_hwDriver && _hwDriver->avoidClosingDuringHandshake() && _handshaking);
}

void UsbHAL::_resetWatchdog()
{
    _watchdogErrors = 0;
    _loopCounter = 0;
    _lastLoopCounter = 0;
}

void UsbHAL::_restartStuckThread(QMutexLocker &locker)
{
    logLine("_mainLoop", {"watchdog errors: ", _watchdogErrors});
    logLine("_mainLoop", {"max watchdog errors: ", _param.maxWatchdogErrors});
    const quint32 stops = _stops;
    if (_hwDriver)
        _hwDriver->cancelPendingIo();
    if (isHost())
        _running = false;
    if (!_waitForThread(locker, _param.threadStopTimeout) && _stops == stops)
        _stopWorkerThread(killTimeout);
    // Nothing here may touch what a stop() has ended during the waits and handlers.
    if (_stops == stops)
        _updateStatus(DriverState::DISCONNECTED, locker);
    if (_stops == stops)
        _changeAllSocketsState(SocketState::DISCONNECTED, locker);
    if (_stops != stops) {
        _releaseDriverOfDeadThread();
    } else if (_connectedThread.startFor(this)) {
        _beginCommunication();
        _resetWatchdog();
    }
}

// In the core's thread as it ends: from no other could the timer be stopped.
void UsbHAL::_retireMainLoopTimer()
{
    _mainLoopPeriod = 0;
    _applyMainLoopPeriod();
}

// Starts the timer, or stops it with a period of 0, in the thread that it belongs to.
void UsbHAL::_setMainLoopTimer(quint32 period)
{
    _mainLoopPeriod = static_cast<int>(qMin<quint32>(period, std::numeric_limits<int>::max()));
    if (QThread::currentThread() == thread())
        _applyMainLoopPeriod();
    else if (!_mainLoopChangePosted.exchange(true))
        QMetaObject::invokeMethod(this, &UsbHAL::_applyMainLoopPeriod, Qt::QueuedConnection);
}

void UsbHAL::_applyMainLoopPeriod()
{
    _mainLoopChangePosted = false;
    const int period = _mainLoopPeriod;
    if (period == 0) {
        _mainLoopTimer.stop();
    } else if (QAbstractEventDispatcher::instance()) {
        connect(thread(), &QThread::finished, this, &UsbHAL::_retireMainLoopTimer,
                Qt::ConnectionType(Qt::DirectConnection | Qt::UniqueConnection));
        _mainLoopTimer.setTimerType(Qt::PreciseTimer);
        _mainLoopTimer.setSingleShot(false);
        _mainLoopTimer.start(period);
    }
    _mainLoopActive = _mainLoopTimer.isActive();
}
