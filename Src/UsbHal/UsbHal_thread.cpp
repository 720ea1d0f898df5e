// SPDX-License-Identifier: MIT
#include "UsbHal.h"

#include "UsbHalLog.h"
#include "workerthread.h"

#include <limits>

#include <QAbstractEventDispatcher>
#include <QThread>

using namespace usb_messages;

namespace {

constexpr unsigned long transferPause = 10; // ms, after each read and write
constexpr unsigned long reopenPause = 1000; // ms
constexpr unsigned long killTimeout = 3000; // ms
constexpr quint32 openFailuresLogged = 50;  // failed opens in a row before they are logged
constexpr quint32 hostReopenFailures = 49;  // failed reopens in a row that the host takes
constexpr quint32 hostHandshakePasses = 20; // passes that the host's handshake may take
constexpr quint64 delayFactor = 30;         // unread bytes, in units of the max read size
constexpr int timerEndPolls = 500;
constexpr unsigned long timerEndPause = 1; // ms

} // namespace

// ---- the thread's body ----

void *UsbHAL::_connectedFunc(void * /*arg*/)
{
    CheckedLocker locker(&_mutex);
    _communicate(locker);
    while (_startPending) {
        _startPending = false;
        _running = true;
        _communicate(locker);
    }
    return nullptr;
}

void UsbHAL::_communicate(QMutexLocker &locker)
{
    Session session;
    _handshaking = true;
    _driverOpened = false;
    if (_openAnyDriver(session, locker) && _runCycles(session, locker))
        _leaveThread(locker);
    else
        _leaveThreadAsHost(locker);
}

// Returns false when the host role gives up.
bool UsbHAL::_openAnyDriver(Session &session, QMutexLocker &locker)
{
    while (_running) {
        ++_loopCounter;
        if (!_releaseDriver())
            logLine("_connectedFunc", {"Could not close USB driver !"});
        _hwDriver = _open(locker);
        if (_hwDriver) {
            _readErrors = 0;
            _writeErrors = 0;
            session.failedOpens = 0;
            return true;
        }
        if (++session.failedOpens > openFailuresLogged && !_reportFailedOpens(session))
            return false;
    }
    return true;
}

bool UsbHAL::_reportFailedOpens(Session &session)
{
    if (isHost()) {
        logLine("_connectedFunc", {"Failed to open driver ! Exiting communication thread"});
        return false;
    }
    if (!session.openFailureLogged)
        logLine("_connectedFunc", {"Failed to open driver !"});
    session.openFailureLogged = true;
    return true;
}

// Returns false when the host role gives up.
bool UsbHAL::_runCycles(Session &session, QMutexLocker &locker)
{
    _nextAction = firstHalf;
    while (_running && _hwDriver) {
        ++_loopCounter;
        const bool isFirstHalf = _nextAction == firstHalf;
        if (isHost())
            isFirstHalf ? _writeAsHost(locker) : _readAsHost(locker);
        else
            isFirstHalf ? _readAsDevice(locker) : _writeAsDevice(locker);
        if (!_checkLink(session, locker))
            return false;
        _grantWriters();
    }
    return true;
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

// ---- the driver ----

AbstractDriver *UsbHAL::_open(QMutexLocker &locker)
{
    _forceLowLevelDisconnection = false;
    const QList<QSharedPointer<AbstractDriver>> drivers = _drivers;
    for (const QSharedPointer<AbstractDriver> &driver : drivers) {
        bool opened = false;
        _runUnlocked(locker, [&] { opened = driver->open(); });
        if (!opened)
            continue;
        _driverOpened = true;
        _lastMaxReadSize = 0;
        if (_setupDone)
            driver->setupConfig(_param);
        return driver.data();
    }
    return nullptr;
}

bool UsbHAL::_closeDriver()
{
    return _hwDriver && _hwDriver->close();
}

// Closes the driver in use, if any, and forgets it. Returns false, and keeps it, when it refuses.
bool UsbHAL::_releaseDriver()
{
    if (_hwDriver && !_closeDriver())
        return false;
    _hwDriver = nullptr;
    _driverOpened = false;
    return true;
}

bool UsbHAL::_readBlock(QByteArray &block, QMutexLocker &locker)
{
    AbstractDriver *const driver = _hwDriver;
    bool done = false;
    _runUnlocked(locker, [&] {
        done = driver->read(&block) > 0;
        QThread::msleep(transferPause);
    });
    _readErrors = done ? 0 : _readErrors + 1;
    return done;
}

bool UsbHAL::_writeBlock(const QByteArray &block, QMutexLocker &locker)
{
    if (!_running) {
        _skipWrite(locker);
        return false;
    }
    AbstractDriver *const driver = _hwDriver;
    bool done = false;
    _runUnlocked(locker, [&] {
        done = driver->write(block) > 0;
        QThread::msleep(transferPause);
    });
    _writeErrors = done ? 0 : _writeErrors + 1;
    return done;
}

void UsbHAL::_skipWrite(QMutexLocker &locker)
{
    logLine("_connectedFunc", {"Disconnection received, skip write message"});
    _pause(_param.wrTimeout, locker);
    ++_writeErrors;
}

void UsbHAL::_pause(unsigned long time, QMutexLocker &locker)
{
    _runUnlocked(locker, [time] { QThread::msleep(time); });
}

// ---- the cycle ----

void UsbHAL::_readAsDevice(QMutexLocker &locker)
{
    QByteArray block;
    if (!_readBlock(block, locker))
        return;
    if (_processAllMessages(block, locker))
        _handshaking = false;
    else
        ++_readErrors;
    _nextAction = secondHalf;
}

void UsbHAL::_writeAsDevice(QMutexLocker &locker)
{
    const bool fromFifo = !_writeFifo.isEmpty();
    const QByteArray message = fromFifo ? _writeFifo.constFirst() : _idleMessage();
    if (!_writeBlock(message, locker))
        return;
    _nextAction = firstHalf;
    if (fromFifo)
        _removeSentMessage(message);
}

void UsbHAL::_writeAsHost(QMutexLocker &locker)
{
    const bool fromFifo = !_writeFifo.isEmpty();
    const QByteArray message = fromFifo ? _writeFifo.constFirst() : devNoData;
    if (!_writeBlock(message, locker))
        return;
    _nextAction = secondHalf;
    if (!fromFifo)
        return;
    _removeSentMessage(message);
    if (_writeFifo.isEmpty())
        _fifoEmptyCond.wakeOne();
}

void UsbHAL::_readAsHost(QMutexLocker &locker)
{
    QByteArray block;
    if (!_readBlock(block, locker)) {
        logLine("_connectedFunc", {"Read failed !"});
        _retryWriteAsHost();
        return;
    }
    if (!_processAllMessages(block, locker)) {
        if (++_readErrors > _driverNbRetry() / 2)
            _nextAction = firstHalf;
        return;
    }
    if (_handshaking) {
        logLine("_connectedFunc", {"we successfully read a message: we are now connected"});
        _handshaking = false;
        _readErrors = 0;
        _writeErrors = 0;
    }
    _nextAction = firstHalf;
}

// A device that says nothing may wait for the host to speak first.
void UsbHAL::_retryWriteAsHost()
{
    const quint32 retries = _driverNbRetry();
    if (_readErrors <= (_handshaking ? retries / 2 : retries))
        return;
    if (!_handshaking)
        _readErrors = 0;
    _nextAction = firstHalf;
    logLine("_connectedFunc", {"retry write"});
}

// A close or a lost port may have taken the message from the FIFO while it was written.
void UsbHAL::_removeSentMessage(const QByteArray &message)
{
    if (!_writeFifo.isEmpty() && _writeFifo.constFirst().constData() == message.constData())
        _writeFifo.removeFirst();
}

QByteArray UsbHAL::_idleMessage()
{
    return _mustDelayHost() ? waitSend : _noDataMessage();
}

bool UsbHAL::_mustDelayHost()
{
    const quint64 threshold = delayFactor * (_hwDriver ? _hwDriver->getMaxReadSize() : 0);
    if (!_delayRequested && _nbBytesWaitingToBeRead() > threshold) {
        _delayRequested = true;
        logLine("_connectedFunc", {"Ask host to delay further writes"});
    }
    if (_delayRequested && _nbBytesWaitingToBeRead() == 0) {
        _delayRequested = false;
        logLine("_connectedFunc", {"Warn host he can write again"});
    }
    return _delayRequested;
}

QByteArray UsbHAL::_noDataMessage()
{
    const quint32 maxReadSize = _hwDriver ? _hwDriver->getMaxReadSize() : _lastMaxReadSize;
    if (_lastMaxReadSize != maxReadSize) {
        _lastMaxReadSize = maxReadSize;
        _maxReadSizeMessage = frameMaxReadSize(maxReadSize);
    }
    if (!_maxSizeExchanged) {
        if (_hwDriver)
            logLine("_connectedFunc", {"max read size message sent with value = ", maxReadSize});
        _maxSizeExchanged = true;
    }
    return _maxReadSizeMessage.isEmpty() ? devNoData : _maxReadSizeMessage;
}

void UsbHAL::_grantWriters()
{
    if (!_writerWaiting || _peerBusy)
        return;
    _writeAllowedCond.wakeAll();
    logLine("_connectedFunc", {"write permission granted"});
}

// ---- the link check ----

quint32 UsbHAL::_driverNbRetry() const
{
    return _hwDriver ? _hwDriver->getNbRetry() : std::numeric_limits<quint32>::max();
}

bool UsbHAL::_isLinkLost() const
{
    if (_forceLowLevelDisconnection)
        return true;
    return !_handshaking && _hwDriver && qMax(_readErrors, _writeErrors) > _driverNbRetry();
}

void UsbHAL::_countHandshake(Session &session)
{
    ++session.handshakeCounter;
    logLine("_connectedFunc", {"handshake counter = ", session.handshakeCounter});
    if (session.handshakeCounter > hostHandshakePasses) {
        _handshaking = false;
        session.handshakeFailed = true;
    }
}

// Returns false when the host role gives up.
bool UsbHAL::_checkLink(Session &session, QMutexLocker &locker)
{
    if (isHost() && _handshaking)
        _countHandshake(session);
    if (!_isLinkLost())
        return true;
    _resetLink(locker);
    const bool closeDriver = _hwDriver && _hwDriver->closeDriverAfterConnectionError();
    logLine("_connectedFunc", {"closeDriverAfterConnectionError = ", closeDriver});
    if (closeDriver && !_reopenAfterLoss(session, locker))
        return false;
    session.handshakeCounter = 0;
    _forceLowLevelDisconnection = false;
    return true;
}

void UsbHAL::_resetLink(QMutexLocker &locker)
{
    const auto logCause = [](const char *what, const LogPart &value) {
        logLine("_connectedFunc", {"Disconnect ", what, " : ", value});
    };
    logCause("read attempts", _readErrors);
    logCause("write attempts", _writeErrors);
    logCause("number retries", _driverNbRetry());
    logCause("cable disconnection detected", _forceLowLevelDisconnection);
    _updateStatus(DriverState::DISCONNECTED, locker);
    _onDisconnected(locker);
    _nextAction = firstHalf;
    _readErrors = 0;
    _writeErrors = 0;
    _clearWriteFifo();
    _clearReadFifo();
    _handshaking = true;
    _maxSizeExchanged = false;
}

// Returns false when the host role gives up.
bool UsbHAL::_reopenAfterLoss(Session &session, QMutexLocker &locker)
{
    if (_releaseDriver()) {
        logLine("_connectedFunc", {"UsbHAL driver closed"});
    } else {
        _emitError(Error::CloseFailed, nullptr, locker);
        logLine("_connectedFunc", {"Could not close USB driver !"});
    }
    if (session.handshakeFailed && _nbClients() == 0) {
        logLine("_connectedFunc", {"failed to setup handshake with device, leaving thread"});
        return false;
    }
    if (!_running) {
        logLine("_connectedFunc", {"Closing hal, don't try to reopen driver"});
        return true;
    }
    if (isHost())
        return _tryReopen(session, locker) || !_isReopenHopeless(session);
    while (!_tryReopen(session, locker)) {
        logLine("_connectedFunc", {"Unable to open driver, wait before retry"});
        _pause(reopenPause, locker);
    }
    return true;
}

bool UsbHAL::_tryReopen(Session &session, QMutexLocker &locker)
{
    logLine("_connectedFunc", {"Try reopen driver..."});
    _hwDriver = _open(locker);
    if (!_hwDriver) {
        logLine("_connectedFunc", {"_hwDriver is NULL"});
        ++session.failedOpens;
        return false;
    }
    logLine("_connectedFunc", {"UsbHAL driver is opened"});
    session.failedOpens = 0;
    return true;
}

bool UsbHAL::_isReopenHopeless(const Session &session) const
{
    if (session.failedOpens <= hostReopenFailures)
        return false;
    logLine("_connectedFunc", {"failed to open driver !"});
    return true;
}

// ---- the watchdog, in the core's own thread ----

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

// The state of a communication whose thread was just started: it waits for the mutex, so it cannot
// see the state of before.
void UsbHAL::_beginCommunication()
{
    _nextAction = firstHalf;
    _running = true;
    _startPending = false;
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
