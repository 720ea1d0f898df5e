// SPDX-License-Identifier: MIT
#include "CoreModel.h"

namespace {

QString yesNo(bool value)
{
    return value ? QStringLiteral("true") : QStringLiteral("false");
}

} // namespace

// ---- what lets the thread run ----

void CoreModel::turn(const Outcome &outcome)
{
    settle();
    if (alive)
        run(&outcome);
}

void CoreModel::settle()
{
    if (alive && _rest == Rest::NotBegun)
        run(nullptr);
}

// A thread that was asked to end gets out of every driver's call. One that a handler started anew
// goes on, and is not waited for.
bool CoreModel::waitForEnd()
{
    settle();
    for (std::size_t number = 0; alive && !running; ++number) {
        const Transfer transfer = _rest == Rest::Reading   ? Transfer::Read
                                  : _rest == Rest::Writing ? Transfer::Write
                                                           : Transfer::Open;
        const Outcome outcome = outcomeAtTheEnd(_setup, number, transfer);
        run(&outcome);
    }
    return !alive;
}

void CoreModel::run(const Outcome *outcome)
{
    _inThread = true;
    const Rest rest = _rest;
    if (rest == Rest::NotBegun)
        beginSession();
    else if (rest == Rest::Opening)
        opened(outcome->good);
    else if (rest == Rest::Reopening)
        reopened(outcome->good);
    else if (rest == Rest::Reading)
        hasRead(*outcome);
    else
        hasWritten(outcome->good);
    _inThread = false;
}

void CoreModel::tick(bool periodOver)
{
    const bool handshakeKept = _driver >= 0 && _setup.avoidClosingDuringHandshake && handshaking;
    if (!_timerRuns || !driverOpened || !periodOver || handshakeKept)
        return;
    if (passes > passesSeen) {
        passesSeen = passes;
        watchdogErrors = 0;
    } else {
        ++watchdogErrors; // the thread of a test that could be killed is none for this model
    }
}

// ---- opening ----

void CoreModel::beginSession()
{
    handshaking = true;
    driverOpened = false;
    _failedOpens = 0;
    _openFailureLogged = false;
    _handshakeFailed = false;
    _handshakePasses = 0;
    openAnyDriver();
}

void CoreModel::openAnyDriver()
{
    if (!running) {
        beginCycles();
        return;
    }
    ++passes;
    if (_driver >= 0 && !closeDriver())
        logThread("Could not close USB driver !");
    tryFirstDriver();
    _rest = Rest::Opening;
}

void CoreModel::tryFirstDriver()
{
    forceDisconnection = false;
    _tried = 0;
    drive("open " + ::driverName(_tried));
}

// Returns whether the attempt to open is over, with or without a driver.
bool CoreModel::tryNextDriver(bool good)
{
    if (!good && _tried + 1 < _setup.drivers) {
        ++_tried;
        drive("open " + ::driverName(_tried));
        return false;
    }
    _driver = good ? _tried : -1;
    if (good) {
        driverOpened = true;
        encodedMaxReadSize = 0;
        _drivers[_driver] = {_param.maxReadSize, _param.maxWriteSize, _param.nbRetry};
    }
    return true;
}

void CoreModel::opened(bool good)
{
    if (!tryNextDriver(good))
        return;
    if (_driver >= 0) {
        readErrors = 0;
        writeErrors = 0;
        _failedOpens = 0;
        beginCycles();
        return;
    }
    ++_failedOpens;
    if (_failedOpens > 50 && isHost()) {
        logThread("Failed to open driver ! Exiting communication thread");
        leaveAsHost();
        return;
    }
    if (_failedOpens > 50 && !_openFailureLogged) {
        logThread("Failed to open driver !");
        _openFailureLogged = true;
    }
    openAnyDriver();
}

// ---- the cycle ----

void CoreModel::beginCycles()
{
    nextHalf = 1;
    nextPass();
}

void CoreModel::nextPass()
{
    if (!running || _driver < 0) {
        leave();
        return;
    }
    ++passes;
    if ((nextHalf == 1) != isHost())
        restInRead();
    else
        restInWrite();
}

void CoreModel::restInRead()
{
    drive("read " + driverName());
    _rest = Rest::Reading;
}

void CoreModel::restInWrite()
{
    _sendsFromFifo = !_fifo.isEmpty();
    QByteArray message;
    if (_sendsFromFifo) {
        message = _fifo.first().bytes;
        _sentNumber = _fifo.first().number;
    } else {
        message = isHost() ? QByteArray("DEVICE_NODATA") : idleMessage();
    }
    drive("write " + driverName() + ' ' + QString::fromLatin1(message));
    _rest = Rest::Writing;
}

void CoreModel::hasRead(const Outcome &outcome)
{
    const bool good = !outcome.block.isEmpty();
    readErrors = good ? 0 : readErrors + 1;
    if (isHost()) {
        hasReadAsHost(good, outcome.block);
    } else if (good) {
        if (receive(outcome.block))
            handshaking = false;
        else
            ++readErrors;
        nextHalf = 2;
    }
    finishPass();
}

void CoreModel::hasReadAsHost(bool good, const QByteArray &block)
{
    if (!good) {
        logThread("Read failed !");
        if (readErrors <= (handshaking ? retries() / 2 : retries()))
            return;
        if (!handshaking)
            readErrors = 0;
        nextHalf = 1;
        logThread("retry write");
    } else if (!receive(block)) {
        ++readErrors;
        if (readErrors > retries() / 2)
            nextHalf = 1;
    } else {
        if (handshaking) {
            logThread("we successfully read a message: we are now connected");
            handshaking = false;
            readErrors = 0;
            writeErrors = 0;
        }
        nextHalf = 1;
    }
}

void CoreModel::hasWritten(bool good)
{
    writeErrors = good ? 0 : writeErrors + 1;
    if (good) {
        nextHalf = isHost() ? 2 : 1;
        // A close or a lost port may have taken the message meanwhile.
        if (_sendsFromFifo && !_fifo.isEmpty() && _fifo.first().number == _sentNumber)
            _fifo.removeFirst();
    }
    finishPass();
}

QByteArray CoreModel::idleMessage()
{
    if (!delayRequested && bytesWaiting > 30 * quint64(_drivers[_driver].maxReadSize)) {
        delayRequested = true;
        logThread("Ask host to delay further writes");
    }
    if (delayRequested && bytesWaiting == 0) {
        delayRequested = false;
        logThread("Warn host he can write again");
    }
    return delayRequested ? QByteArray("DEVICE_WTSEND") : noDataMessage();
}

QByteArray CoreModel::noDataMessage()
{
    const quint32 size = _drivers[_driver].maxReadSize;
    if (size != encodedMaxReadSize) {
        encodedMaxReadSize = size;
        _maxReadSizeMessage =
            "DEVICE_NODATA" + QString("%1").arg(size, 5, 10, QLatin1Char('0')).toLatin1();
    }
    if (!maxSizeExchanged) {
        logThread("max read size message sent with value = " + QString::number(size));
        maxSizeExchanged = true;
    }
    return _maxReadSizeMessage.isEmpty() ? QByteArray("DEVICE_NODATA") : _maxReadSizeMessage;
}

// ---- the link check ----

void CoreModel::finishPass()
{
    if (isHost() && handshaking) {
        ++_handshakePasses;
        logThread("handshake counter = " + QString::number(_handshakePasses));
        if (_handshakePasses > 20) {
            handshaking = false;
            _handshakeFailed = true;
        }
    }
    if (!isLinkLost()) {
        nextPass();
        return;
    }
    resetLink();
    const bool closes = _driver >= 0 && _setup.closeDriverAfterConnectionError;
    logThread("closeDriverAfterConnectionError = " + yesNo(closes));
    if (closes)
        closeAfterLoss();
    else
        endLossOfLink();
}

bool CoreModel::isLinkLost() const
{
    const bool tooManyErrors = readErrors > retries() || writeErrors > retries();
    return forceDisconnection || (!handshaking && tooManyErrors);
}

void CoreModel::resetLink()
{
    logThread("Disconnect read attempts : " + QString::number(readErrors));
    logThread("Disconnect write attempts : " + QString::number(writeErrors));
    logThread("Disconnect number retries : " + QString::number(retries()));
    logThread("Disconnect cable disconnection detected : " + yesNo(forceDisconnection));
    changeLink(DriverState::DISCONNECTED);
    linkDown();
    nextHalf = 1;
    readErrors = 0;
    writeErrors = 0;
    _fifo.clear();
    clearQueues();
    handshaking = true;
    maxSizeExchanged = false;
}

void CoreModel::closeAfterLoss()
{
    if (closeDriver()) {
        logThread("UsbHAL driver closed");
    } else {
        emitError(8, 0);
        logThread("Could not close USB driver !");
    }
    if (_handshakeFailed && clients == 0) {
        logThread("failed to setup handshake with device, leaving thread");
        leaveAsHost();
    } else if (!running) {
        logThread("Closing hal, don't try to reopen driver");
        endLossOfLink();
    } else {
        beginReopening();
    }
}

void CoreModel::beginReopening()
{
    logThread("Try reopen driver...");
    tryFirstDriver();
    _rest = Rest::Reopening;
}

void CoreModel::reopened(bool good)
{
    if (!tryNextDriver(good))
        return;
    if (_driver >= 0) {
        logThread("UsbHAL driver is opened");
        _failedOpens = 0;
        endLossOfLink();
        return;
    }
    logThread("_hwDriver is NULL");
    ++_failedOpens;
    if (!isHost()) {
        logThread("Unable to open driver, wait before retry");
        beginReopening();
    } else if (_failedOpens > 49) {
        logThread("failed to open driver !");
        leaveAsHost();
    } else {
        endLossOfLink();
    }
}

void CoreModel::endLossOfLink()
{
    _handshakePasses = 0;
    forceDisconnection = false;
    nextPass();
}

quint32 CoreModel::retries() const
{
    return _driver < 0 ? 4294967295u : _drivers[_driver].nbRetry;
}

// ---- the ways out ----

bool CoreModel::closeDriver()
{
    const bool fails = _failingCloses > 0;
    drive("close " + driverName() + (fails ? " fails" : ""));
    if (fails) {
        --_failingCloses;
        return false;
    }
    _driver = -1;
    driverOpened = false;
    return true;
}

void CoreModel::leave()
{
    running = false;
    if (_driver < 0 || closeDriver()) {
        logThread("USB driver closed");
        driverOpened = false;
    } else {
        emitError(8, 0);
        logThread("Could not close USB driver !");
    }
    changeLink(DriverState::DISCONNECTED);
    maxSizeExchanged = false;
    endThread();
}

void CoreModel::leaveAsHost()
{
    running = false;
    changeLink(DriverState::DISCONNECTED);
    linkDown();
    endThread();
}

void CoreModel::endThread()
{
    if (_startPending) {
        _startPending = false;
        running = true;
        nextHalf = 1;
        beginSession();
        return;
    }
    log("_endOfConnectedThread", "clean exit of communication thread");
    _timerRuns = false;
    log("_endOfConnectedThread", "watchdog stopped");
    alive = false;
}
