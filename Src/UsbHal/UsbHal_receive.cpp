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

// The rule adds a count of messages to a count of bytes; it does not bound the queue's bytes.
bool hasRoom(const QQueue<QByteArray> &queue, int size)
{
    return qint64(queue.size()) + size <= readQueueBound;
}

} // namespace

bool UsbHAL::_processAllMessages(const QByteArray &buffer, QMutexLocker &locker)
{
    QByteArray rest = QByteArray::fromRawData(buffer.constData(), buffer.size());
    for (;;) {
        unsigned int consumed = 0;
        const bool accepted = _processMessage(rest, locker, consumed);
        const int left = rest.size() - static_cast<int>(consumed);
        if (left <= 0)
            return accepted;
        rest.setRawData(rest.constData() + consumed, static_cast<uint>(left));
        logLine("_processAllMessages", {"Remaining frame size : ", left});
        logLine("_processAllMessages", {"Message: ", LogPart(rest, shownBytes)});
        // What follows a stop would bring the link up again, and reach ports that are opened anew.
        if (!accepted || _hasToEnd())
            return accepted;
    }
}

bool UsbHAL::_processMessage(const QByteArray &message, QMutexLocker &locker,
                             unsigned int &consumed)
{
    // Most messages are data, which one comparison tells.
    if (!hasMagicNumber(message) && message.startsWith(devNoData)) {
        _peerBusy = false;
        consumed =
            isHost() ? _takeMaxWriteSize(message) : static_cast<unsigned int>(devNoData.size());
    } else if (message == waitSend) {
        _peerBusy = true;
        consumed = static_cast<unsigned int>(waitSend.size());
    } else if (!_processDataMessage(message, locker, consumed)) {
        return false;
    }
    // A link must not come up after a stop, or in a thread that a kill is sent to.
    if (!message.isEmpty() && !_hasToEnd() && _updateStatus(DriverState::CONNECTED, locker) &&
        !_hasToEnd())
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
            logLine("_processMessage", {"max write size set to ", *size});
            _maxSizeExchanged = true;
        } else {
            logLine("_processMessage", {"max write size is invalid : ", message});
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
    ReadQueue *queue = _openQueue(data.port);
    const bool reopened = !queue;
    if (reopened) {
        if (QByteArray::fromRawData(data.payload, data.payloadSize) != deviceConn) {
            logLine("_processDataMessage",
                    {"ERROR: message received for non-connected port: ", data.port});
            return true;
        }
        queue = _reopenPort(data.port);
    } else if (!hasRoom(*queue, data.payloadSize)) {
        logLine("_processDataMessage", {"ERROR: Buffer Overflow on port #", data.port});
        return false;
    }
    appendMoved(*queue, QByteArray(data.payload, data.payloadSize));
    _totalBytesWaitingRead += static_cast<quint32>(data.payloadSize);
    if (!reopened && isLogged(data.payloadSize))
        logLine(
            "_processDataMessage",
            {data.payloadSize, " new bytes to be read by client connected on port ", data.port});
    _announcePayload(data.port, locker);
    return true;
}

void UsbHAL::_logFault(Fault fault, const QByteArray &message)
{
    if (fault != Fault::NotValid) {
        const char *const what = fault == Fault::WrongSize ? "wrong size" : "invalid connection id";
        logLine("_processDataMessage",
                {"ERROR: Received message with ", what, " ! Trash it: ", message});
        return;
    }
    logLine("_processDataMessage", {"ERROR: Message received is not valid: ", message});
    const QString shown = excerpt(message);
    if (!shown.isEmpty())
        logLine("_processDataMessage", {shown});
}

// The host reopened a port. One that is closed here stays closed: the marker waits unread until the
// port is opened, which discards it. Returns the port's queue.
UsbHAL::ReadQueue *UsbHAL::_reopenPort(int port)
{
    SocketState &state = _socketStates[port];
    if (state == SocketState::DISCONNECTED)
        state = SocketState::OPENED;
    _driverState = DriverState::CONNECTED;
    logLine("_processDataMessage", {"port #", port, " is now OPENED"});
    QSharedPointer<ReadQueue> &queue = _readQueues[port];
    if (!queue)
        queue = QSharedPointer<ReadQueue>::create();
    return queue.data();
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
    const bool wholeHead = maxSize >= static_cast<unsigned int>(queue->head().size());
    QByteArray result =
        wholeHead ? _takeHead(port, *queue) : _takePart(port, *queue, static_cast<int>(maxSize));
    _totalBytesWaitingRead -= static_cast<quint32>(result.size());
    if (isLogged(result.size()))
        logLine("read", {"Message read for client #", port, "of size ", result.size()});
    return result;
}

QByteArray UsbHAL::_takeHead(int port, ReadQueue &queue)
{
    QByteArray head = queue.dequeue();
    if (_partlyRead.contains(port)) {
        head = QByteArray(head.constData(), head.size());
        _partlyRead.remove(port);
    }
    return head;
}

// Copies what it returns and nothing else: what is left of the head becomes a view into the whole.
QByteArray UsbHAL::_takePart(int port, ReadQueue &queue, int size)
{
    QByteArray &head = queue.head();
    if (!_partlyRead.contains(port))
        _partlyRead.insert(port, head);
    QByteArray result(head.constData(), size);
    head.setRawData(head.constData() + size, static_cast<uint>(head.size() - size));
    return result;
}

QByteArray UsbHAL::peek(int port, unsigned int maxSize) const
{
    const CheckedLocker locker(&_mutex);
    const ReadQueue *const queue = _readableQueue(port);
    if (!queue)
        return QByteArray();
    const QByteArray &head = queue->head();
    const int size = static_cast<int>(qMin(maxSize, static_cast<unsigned int>(head.size())));
    // A view must not get out: what it points into goes with its last byte.
    return _partlyRead.contains(port) ? QByteArray(head.constData(), size) : head.left(size);
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

// The port's queue, null for one that has none.
UsbHAL::ReadQueue *UsbHAL::_readQueue(int port) const
{
    const auto found = _readQueues.constFind(port);
    return found == _readQueues.constEnd() ? nullptr : found->data();
}

// The port's queue while the port is open, else null.
UsbHAL::ReadQueue *UsbHAL::_openQueue(int port) const
{
    return _socketStates.value(port) == SocketState::OPENED ? _readQueue(port) : nullptr;
}

bool UsbHAL::_isUsable(int port) const
{
    return _socketStates.value(port) == SocketState::OPENED &&
           _driverState == DriverState::CONNECTED;
}

// The port's queue while a client may read it and it holds a message, else null.
UsbHAL::ReadQueue *UsbHAL::_readableQueue(int port) const
{
    ReadQueue *const queue = _isUsable(port) ? _readQueue(port) : nullptr;
    return queue && !queue->isEmpty() ? queue : nullptr;
}

int UsbHAL::_nbBytesReceived(int port) const
{
    const ReadQueue *const queue = _readQueue(port);
    return queue && !queue->isEmpty() ? queue->head().size() : 0;
}

void UsbHAL::_clearReadFifo()
{
    for (const QSharedPointer<ReadQueue> &queue : qAsConst(_readQueues)) {
        if (queue)
            queue->clear();
    }
    _partlyRead.clear();
    _totalBytesWaitingRead = 0;
}
