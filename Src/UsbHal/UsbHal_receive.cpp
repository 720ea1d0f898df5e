// SPDX-License-Identifier: MIT
#include "UsbHal.h"

#include "UsbHalLog.h"

using namespace usb_messages;

namespace {

constexpr int shownBytes = 100;           // of the rest of a buffer, in the log
constexpr qint64 readQueueBound = 124000; // messages queued on the port plus bytes of the new one

// Big transfers and the shortest messages stay out of the log.
bool isLogged(int size)
{
    return size > 5 && size < 500;
}

} // namespace

bool UsbHAL::_processAllMessages(const QByteArray &buffer, QMutexLocker &locker)
{
    int total = 0;
    for (;;) {
        const auto rest = [&] {
            return QByteArray::fromRawData(buffer.constData() + total, buffer.size() - total);
        };
        unsigned int consumed = 0;
        const bool accepted = _processMessage(rest(), locker, consumed);
        total += static_cast<int>(consumed);
        if (total < buffer.size()) {
            logLine(QStringLiteral("_processAllMessages"),
                    "Remaining frame size : " + QString::number(buffer.size() - total));
            logLine(QStringLiteral("_processAllMessages"),
                    "Message: " + toText(rest(), shownBytes));
        }
        if (!accepted || total >= buffer.size())
            return accepted;
    }
}

bool UsbHAL::_processMessage(const QByteArray &message, QMutexLocker &locker,
                             unsigned int &consumed)
{
    const quint32 stops = _stops;
    if (message.startsWith(devNoData)) {
        _peerBusy = false;
        consumed =
            isHost() ? _takeMaxWriteSize(message) : static_cast<unsigned int>(devNoData.size());
    } else if (message == waitSend) {
        _peerBusy = true;
        consumed = static_cast<unsigned int>(waitSend.size());
    } else if (!_processDataMessage(message, locker, consumed)) {
        return false;
    }
    // A handler that stopped the communication must not see the link come up after it.
    if (!message.isEmpty() && _stops == stops && _updateStatus(DriverState::CONNECTED, locker) &&
        _stops == stops)
        _onConnected(locker);
    return true;
}

// Host role: the device's max read size is the host's max write size. Returns the bytes consumed.
unsigned int UsbHAL::_takeMaxWriteSize(const QByteArray &message)
{
    if (!_maxSizeExchanged) {
        if (const auto size = parseMaxReadSize(message)) {
            if (_hwDriver)
                _hwDriver->setMaxWriteSize(static_cast<unsigned int>(*size));
            logLine(QStringLiteral("_processMessage"),
                    "max write size set to " + QString::number(*size));
            _maxSizeExchanged = true;
        } else {
            logLine(QStringLiteral("_processMessage"),
                    "max write size is invalid : " + toText(message));
        }
    }
    return static_cast<unsigned int>(qMin(devNoData.size() + maxReadSizeWidth, message.size()));
}

bool UsbHAL::_processDataMessage(const QByteArray &message, QMutexLocker &locker,
                                 unsigned int &consumed)
{
    const DataMessage data = cutData(message);
    consumed = static_cast<unsigned int>(data.size);
    if (data.fault != Fault::None) {
        _logFault(data.fault, message);
        return false;
    }
    const bool reopened = !_isOpen(data.port);
    if (reopened) {
        if (QByteArray::fromRawData(data.payload, data.payloadSize) != deviceConn) {
            const QString port = QString::number(data.port);
            logLine(QStringLiteral("_processDataMessage"),
                    "ERROR: message received for non-connected port: " + port);
            return true;
        }
        _reopenPort(data.port);
    } else if (!_hasRoom(data.port, data.payloadSize)) {
        logLine(QStringLiteral("_processDataMessage"),
                "ERROR: Buffer Overflow on port #" + QString::number(data.port));
        return false;
    }
    _storePayload(data.port, QByteArray(data.payload, data.payloadSize));
    if (!reopened && isLogged(data.payloadSize))
        logLine(QStringLiteral("_processDataMessage"),
                QString::number(data.payloadSize) +
                    " new bytes to be read by client connected on port " +
                    QString::number(data.port));
    _announcePayload(data.port, locker);
    return true;
}

void UsbHAL::_logFault(Fault fault, const QByteArray &message)
{
    const QString text = toText(message);
    if (fault != Fault::NotValid) {
        const QLatin1String what(fault == Fault::WrongSize ? "wrong size"
                                                           : "invalid connection id");
        logLine(QStringLiteral("_processDataMessage"),
                "ERROR: Received message with " + what + " ! Trash it: " + text);
        return;
    }
    logLine(QStringLiteral("_processDataMessage"), "ERROR: Message received is not valid: " + text);
    const QString shown = excerpt(message);
    if (!shown.isEmpty())
        logLine(QStringLiteral("_processDataMessage"), shown);
}

// The host reopened a port. One that is closed here stays closed: the marker waits unread until the
// port is opened, which discards it.
void UsbHAL::_reopenPort(int port)
{
    SocketState &state = _socketStates[port];
    if (state == SocketState::DISCONNECTED)
        state = SocketState::OPENED;
    _driverState = DriverState::CONNECTED;
    logLine(QStringLiteral("_processDataMessage"),
            "port #" + QString::number(port) + " is now OPENED");
    QSharedPointer<ReadQueue> &queue = _readQueues[port];
    if (!queue)
        queue = QSharedPointer<ReadQueue>::create();
}

bool UsbHAL::_hasRoom(int port, int size) const
{
    // The rule adds a count of messages to a count of bytes; it does not bound the queue's bytes.
    return qint64(_readQueues.value(port)->size()) + size <= readQueueBound;
}

void UsbHAL::_storePayload(int port, const QByteArray &payload)
{
    _readQueues.value(port)->enqueue(payload);
    _totalBytesWaitingRead += static_cast<quint32>(payload.size());
}

void UsbHAL::_announcePayload(int port, QMutexLocker &locker)
{
    _emitUnlocked(locker, [&] {
        emit readyRead(port);
        _readyReadCond.wakeOne();
    });
}

QByteArray UsbHAL::read(int port, unsigned int maxSize)
{
    const CheckedLocker locker(&_mutex);
    ReadQueue *const queue = _readableQueue(port);
    if (!queue)
        return QByteArray();
    QByteArray &head = queue->head();
    QByteArray result;
    if (maxSize < static_cast<unsigned int>(head.size())) {
        result = head.left(static_cast<int>(maxSize));
        head.remove(0, static_cast<int>(maxSize));
    } else {
        result = queue->dequeue();
    }
    _totalBytesWaitingRead -= static_cast<quint32>(result.size());
    if (isLogged(result.size()))
        logLine(QStringLiteral("read"), "Message read for client #" + QString::number(port) +
                                            "of size " + QString::number(result.size()));
    return result;
}

QByteArray UsbHAL::peek(int port, unsigned int maxSize) const
{
    const CheckedLocker locker(&_mutex);
    const ReadQueue *const queue = _readableQueue(port);
    if (!queue)
        return QByteArray();
    const auto size = static_cast<unsigned int>(queue->head().size());
    return queue->head().left(static_cast<int>(qMin(maxSize, size)));
}

QByteArray UsbHAL::readAll(int /*port*/)
{
    return QByteArray();
}

int UsbHAL::nbBytesReceived(int port) const
{
    const CheckedLocker locker(&_mutex);
    return _nbBytesReceived(port);
}

bool UsbHAL::waitForReadyRead(int port, int msecs) const
{
    const CheckedLocker locker(&_mutex);
    if (!_isUsable(port))
        return false;
    return _waitUntil(_readyReadCond, msecs,
                      [&]() REQUIRES(_mutex) { return _nbBytesReceived(port) != 0; });
}

// The port's queue while a client may read it and it holds a message, else null.
UsbHAL::ReadQueue *UsbHAL::_readableQueue(int port) const
{
    if (!_isUsable(port))
        return nullptr;
    ReadQueue *const queue = _readQueues.value(port).data();
    return queue && !queue->isEmpty() ? queue : nullptr;
}

int UsbHAL::_nbBytesReceived(int port) const
{
    const QSharedPointer<ReadQueue> queue = _readQueues.value(port);
    return queue && !queue->isEmpty() ? queue->head().size() : 0;
}

void UsbHAL::_clearReadFifo()
{
    for (const QSharedPointer<ReadQueue> &queue : qAsConst(_readQueues)) {
        if (queue)
            queue->clear();
    }
    _totalBytesWaitingRead = 0;
}
