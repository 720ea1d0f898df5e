// SPDX-License-Identifier: MIT
#include "UsbHal.h"

#include "UsbHalLog.h"
#include "workerthread.h"

#include <limits>

#include <QThread>

using namespace usb_messages;

namespace {

constexpr unsigned long transferPause = 10; // ms, after each read and write
constexpr unsigned long reopenPause = 1000; // ms
constexpr unsigned long noDriverPause = 1;  // ms
constexpr quint32 openFailuresLogged = 50;  // failed opens in a row before they are logged
constexpr quint32 hostReopenFailures = 49;  // failed reopens in a row that the host takes
constexpr quint32 hostHandshakePasses = 20; // passes that the host's handshake may take
constexpr quint64 delayFactor = 30;         // unread bytes, in units of the max read size

} // namespace

// ---- the thread's body ----

void *UsbHAL::_connectedFunc(void * /*arg*/)
{
    CheckedLocker locker(&_mutex);
    _communicate(locker);
    while (_communication == Communication::Restarting) {
        _beginRun();
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
        if (_drivers.isEmpty()) // whose opens else give the pace, and the mutex to others
            _pause(noDriverPause, locker);
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
    _beginEnding();
    _releaseDriverOrReport("_connectedFunc", "USB driver closed", "Could not close USB driver !",
                           locker);
    _updateStatus(DriverState::DISCONNECTED, locker);
    _maxSizeExchanged = false;
}

void UsbHAL::_leaveThreadAsHost(QMutexLocker &locker)
{
    _beginEnding();
    _updateStatus(DriverState::DISCONNECTED, locker);
    _onDisconnected(locker);
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

// Says how the release went, a refusal also by the error signal.
void UsbHAL::_releaseDriverOrReport(const char *function, const char *closed, const char *refused,
                                    QMutexLocker &locker)
{
    const bool released = _releaseDriver();
    if (!released)
        _emitError(Error::CloseFailed, nullptr, locker);
    logLine(function, {released ? closed : refused});
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
    _releaseDriverOrReport("_connectedFunc", "UsbHAL driver closed", "Could not close USB driver !",
                           locker);
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
