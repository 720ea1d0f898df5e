// SPDX-License-Identifier: MIT
#include "UsbHal.h"

#include "UsbHalLog.h"

#include <algorithm>
#include <limits>

using namespace usb_messages;

namespace {

constexpr int fifoLimit = 100;             // messages
constexpr qint64 writeWaitTimeout = 30000; // ms

class MessageIsRelativeToPort
{
public:
    explicit MessageIsRelativeToPort(int port) : _port(port) {}

    bool operator()(const QByteArray &message) const
    {
        const DataMessage data = cutData(message);
        return data.fault == Fault::None && data.size == message.size() && data.port == _port;
    }

private:
    int _port;
};

} // namespace

int UsbHAL::write(int port, QByteArray data)
{
    const CheckedLocker locker(&_mutex);
    if (!_isUsable(port))
        return 0;
    if (isHost())
        _waitForWritePermission();
    const int limit = _payloadLimit();
    if (limit < 1) {
        logLine("write", {"Maximum write size leaves no room for a payload"});
        return 0;
    }
    return _queueMessages(port, data, limit);
}

int UsbHAL::bytesToWrite() const
{
    const CheckedLocker locker(&_mutex);
    return _writeFifo.size();
}

int UsbHAL::getMaxWriteSize() const
{
    const CheckedLocker locker(&_mutex);
    if (!_hwDriver)
        return 0;
    const qint64 size = qint64(_hwDriver->getMaxWriteSize()) - headerSize;
    return static_cast<int>(qMin<qint64>(size, std::numeric_limits<int>::max()));
}

void UsbHAL::flush(int msecs)
{
    const CheckedLocker locker(&_mutex);
    const bool empty = _waitUntil(_fifoEmptyCond, msecs,
                                  [this]() REQUIRES(_mutex) { return _writeFifo.isEmpty(); });
    const int count = _writeFifo.size();
    if (empty)
        logLine("flush", {"FIFO write is empty (", count, ")"});
    else
        logLine("flush", {"FIFO is not empty (", count, "), leaving in timeout"});
}

// Host role: waits until the FIFO has room and the device is ready to read, or for half a minute.
void UsbHAL::_waitForWritePermission()
{
    QElapsedTimer timer;
    timer.start();
    for (;;) {
        const bool full = static_cast<quint32>(_writeFifo.size()) >= _param.maxWriteFifoSize;
        const qint64 left = writeWaitTimeout - timer.elapsed();
        if (!(full || _peerBusy) || left <= 0 || _hasToEnd())
            return;
        QStringList reasons;
        if (full)
            reasons += "FIFO to empty (" + QString::number(_writeFifo.size()) + ")";
        if (_peerBusy)
            reasons += QStringLiteral("device to finish reading");
        logLine("write", {"wait for ", reasons.join(QStringLiteral(" and ")), "..."});
        _writerWaiting = true;
        _waitOn(_writeAllowedCond, left);
        _writerWaiting = false;
    }
}

int UsbHAL::_payloadLimit() const
{
    if (!_hwDriver)
        return defaultPayloadLimit;
    const qint64 limit = qint64(_hwDriver->getMaxWriteSize()) - headerSize;
    return static_cast<int>(qMin<qint64>(limit, largestPayload));
}

int UsbHAL::_queueMessages(int port, const QByteArray &data, int limit)
{
    int total = 0;
    while (total < data.size()) {
        if (_writeFifo.size() >= fifoLimit) {
            logLine("write", {"Write buffer storage limit reached, rest of the data dropped"});
            break;
        }
        const int size = qMin(data.size() - total, limit);
        appendMoved(_writeFifo, frameData(port, data.constData() + total, size));
        total += size;
        const int rest = data.size() - total;
        logLine("write", {"Add to write queue message of size: ", _writeFifo.constLast().size()});
        logLine("write", {"Remaining frame size = ", rest, " is empty = ", rest == 0});
        if (rest != 0)
            logLine("write", {"Continue..."});
    }
    return total;
}

void UsbHAL::_clearWriteFifo()
{
    _writeFifo.clear();
    _writeFifo.reserve(fifoLimit); // its room does not grow with the messages
}

int UsbHAL::_clearWriteFifoForPort(int port)
{
    const int before = _writeFifo.size();
    const auto end =
        std::remove_if(_writeFifo.begin(), _writeFifo.end(), MessageIsRelativeToPort(port));
    _writeFifo.erase(end, _writeFifo.end());
    return before - _writeFifo.size();
}
