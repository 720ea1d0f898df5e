// SPDX-License-Identifier: MIT
#include "UsbHal.h"

#include "UsbHalLog.h"
#include "workerthread.h"

namespace {

constexpr qint64 closeFlushTime = 300; // ms

void *portParameter(int port)
{
    return reinterpret_cast<void *>(static_cast<qintptr>(port));
}

// A message that is discarded unread counts only up to its first zero byte.
quint32 textLength(const QByteArray &message)
{
    return qstrnlen(message.constData(), static_cast<uint>(message.size()));
}

} // namespace

bool UsbHAL::openConnection(UsbConnID port)
{
    CheckedLocker locker(&_mutex);
    logLine("openConnection", {"opening driver"});
    const bool ready = _waitForEnding();
    if (_openQueue(port)) {
        _emitError(Error::PortAlreadyOpen, portParameter(port), locker);
        return false;
    }
    if (_configured && _clientCount >= _param.maxClients) {
        _emitError(Error::TooManyClients, portParameter(port), locker);
        return false;
    }
    if (!ready || !(_isCommunicating() || _startCommunication())) {
        _emitError(Error::NotInitialized, portParameter(port), locker);
        return false;
    }
    if (!_prepareReadQueue(port)) {
        _emitError(Error::NoMemory, nullptr, locker);
        return false;
    }
    _socketStates[port] = SocketState::OPENED;
    ++_clientCount;
    _onConnected(port, locker);
    return true;
}

bool UsbHAL::closeConnection(UsbConnID port)
{
    logLine("closeConnection", {"closeConnection on port ", port});
    CheckedLocker locker(&_mutex);
    return _closeConnection(port, locker);
}

void UsbHAL::disconnectFromHost(UsbConnID port)
{
    CheckedLocker locker(&_mutex);
    if (!_socketStates.contains(port))
        return;
    logLine("disconnectFromHost", {"Disconnect ", port, " from host"});
    _closeConnection(port, locker);
    logLine("disconnectFromHost", {port, " is now closed"});
}

void UsbHAL::peerDisconnected(UsbConnID port)
{
    CheckedLocker locker(&_mutex);
    if (_socketStates.value(port) != SocketState::OPENED)
        return;
    _socketStates[port] = SocketState::DISCONNECTED;
    _onDisconnected(port, locker);
}

SocketState UsbHAL::socketStatus(UsbConnID port) const
{
    const CheckedLocker locker(&_mutex);
    return _socketStates.value(port, SocketState::CLOSED);
}

bool UsbHAL::_canClose(int port) const
{
    return _readQueue(port) && _clientCount != 0 &&
           _socketStates.value(port, SocketState::CLOSED) != SocketState::CLOSED;
}

// Gives the port an empty queue. Returns false when there is no memory for it.
bool UsbHAL::_prepareReadQueue(int port)
{
    QSharedPointer<ReadQueue> &queue = _readQueues[port];
    if (queue) {
        _discardReadQueue(port);
        logLine("openConnection",
                {">>>> openConnection _totalBytesWaitingRead = ", _totalBytesWaitingRead});
    } else {
        queue.reset(new (std::nothrow) ReadQueue);
    }
    return !queue.isNull();
}

void UsbHAL::_discardReadQueue(int port)
{
    ReadQueue *const queue = _readQueue(port);
    while (!queue->isEmpty())
        _totalBytesWaitingRead -= textLength(queue->dequeue());
    _partlyRead.remove(port);
}

bool UsbHAL::_closeConnection(int port, QMutexLocker &locker)
{
    if (_canClose(port))
        _waitUntil(_fifoEmptyCond, closeFlushTime,
                   [this]() REQUIRES(_mutex) { return _writeFifo.isEmpty(); });
    // Another thread may have closed the port during the wait.
    if (!_canClose(port)) {
        _emitError(Error::PortNotOpen, portParameter(port), locker);
        return false;
    }
    _discardReadQueue(port);
    logLine("_closeConnection",
            {">>>> _closeConnection _totalBytesWaitingRead = ", _totalBytesWaitingRead});
    const SocketState oldState = _socketStates.value(port);
    --_clientCount;
    _socketStates[port] = SocketState::CLOSED;
    if (oldState == SocketState::OPENED)
        _onDisconnected(port, locker);
    logLine("_closeConnection", {"port #", port, " has been CLOSED"});
    return true;
}

void UsbHAL::_onConnected(int port, QMutexLocker &locker)
{
    _emitUnlocked(locker, [&] {
        emit connected(port);
        logLine("_onConnected", {"socket #", port, "CONNECTED"});
        emit socketStateChanged(port, SocketState::OPENED);
    });
}

void UsbHAL::_onDisconnected(int port, QMutexLocker &locker)
{
    _emitUnlocked(locker, [&] {
        emit disconnected(port);
        logLine("_onDisconnected", {"socket #", port, "DISCONNECTED"});
        emit socketStateChanged(port, SocketState::DISCONNECTED);
    });
    _maxSizeExchanged = false;
    const int removed = _clearWriteFifoForPort(port);
    logLine("_onDisconnected", {removed, " messages removed from Write FIFO for port ", port});
    if (_hwDriver && _hwDriver->avoidClosingDuringHandshake() && _nbPortsOpened() == 0 &&
        !_forceLowLevelDisconnection) {
        _forceLowLevelDisconnection = true;
        logLine("_onDisconnected", {"[USBHAL] force low-level disconnection"});
    }
}

void UsbHAL::_changeAllSocketsState(SocketState state, QMutexLocker &locker)
{
    // The handlers may open and close ports, so the walk must not hold on to the table.
    const QList<int> ports = _socketStates.keys();
    for (const int port : ports) {
        const SocketState oldState = _socketStates.value(port);
        if (oldState == state || oldState == SocketState::CLOSED)
            continue;
        _socketStates[port] = state;
        if (state == SocketState::OPENED) {
            _onConnected(port, locker);
        } else {
            logLine("_changeAllSocketsState", {"emit disconnected"});
            _onDisconnected(port, locker);
        }
    }
}

quint32 UsbHAL::_nbPortsOpened() const
{
    return static_cast<quint32>(_socketStates.keys(SocketState::OPENED).size());
}
