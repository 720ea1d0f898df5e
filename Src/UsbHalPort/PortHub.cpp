// SPDX-License-Identifier: MIT
#include "PortHub.h"

#include <QMutexLocker>

#include <algorithm>
#include <climits>
#include <limits>
#include <utility>

namespace {

constexpr quint32 threadStopTimeout = 4000; // ms, above a silent read with the default time-outs
constexpr int headerSize = 13;              // bytes of a message that are not its payload
constexpr int largestPayload = 99995;       // bytes, as the facade has it

// Messages of one port in the library's queue: as many as bridge a third of a second of a busy
// thread, so that the other ports have room, too.
constexpr int queuedLimit = 16;
// Less than a whole message is handed on only while so few are queued: the bytes of many small
// writes travel together, and the next message is there when one has been taken.
constexpr int partialLimit = 2;

// While unread messages pile up, the write queue is let run dry now and then: only when there is
// nothing to be written does the request to wait go out, and later the word that it may send again.
// Nothing tells whether a gap was long enough for the thread and the node, so that each is twice as
// long as the one before and comes after twice the time.
constexpr qint64 gapInterval = 400; // ms, to the first one
constexpr qint64 gapTime = 60;      // ms, of the first one
constexpr int lastGap = 4;
constexpr int noGap = lastGap + 1;

namespace ErrorCode {
constexpr int portAlreadyOpen = 4;
constexpr int notInitialized = 7;
} // namespace ErrorCode

// Of the last operation that failed in this thread: the signal comes within the call.
thread_local int lastError = 0;

} // namespace

PortHub &PortHub::instance()
{
    static auto *const hub = new PortHub;
    return *hub;
}

PortHub::PortHub() : _hal(UsbHALIntf::getInstance()), _gap(noGap)
{
    _hal->getDefaultSetup(_param);
    _param.threadStopTimeout = threadStopTimeout;
    _connectSignals();
    _announced = _hal->status() == DriverState::CONNECTED;
}

void PortHub::_connectSignals()
{
    const auto connect = [this](auto signal, auto handler) {
        QObject::connect(_hal, signal, _hal, handler, Qt::DirectConnection);
    };
    connect(&UsbHALIntf::stateChanged, [this](DriverState state) { _onStateChanged(state); });
    connect(QOverload<>::of(&UsbHALIntf::connected), [this] { _wakeAll(); });
    connect(QOverload<int>::of(&UsbHALIntf::connected),
            [this](int port) { _onPortConnected(port); });
    connect(QOverload<int>::of(&UsbHALIntf::disconnected),
            [this](int port) { _onPortDisconnected(port); });
    connect(QOverload<int>::of(&UsbHALIntf::readyRead), [this](int port) { _onReadyRead(port); });
    connect(&UsbHALIntf::error, [](int code, void *) { lastError = code; });
}

bool PortHub::setConfiguration(const ParamHal &param)
{
    const QMutexLocker locker(&_mutex);
    if (_configured)
        return false;
    _param = param;
    return true;
}

ParamHal PortHub::configuration() const
{
    const QMutexLocker locker(&_mutex);
    return _param;
}

// ---- opening and closing ----

int PortHub::open(PortRecord &record)
{
    int error = _reserve(record);
    if (error != 0)
        return error;
    error = _openInLibrary(record);
    const QMutexLocker locker(&_mutex);
    record._opening = false;
    if (error != 0)
        _records.remove(record._port);
    return error;
}

int PortHub::_reserve(PortRecord &record)
{
    const QMutexLocker locker(&_mutex);
    if (!_configured)
        _hal->setupConfig(_param);
    _configured = true;
    // One that is cut off could be opened once more, but would then count twice.
    if (_records.contains(record._port) || _hal->socketStatus(record._port) != SocketState::CLOSED)
        return ErrorCode::portAlreadyOpen;
    _records.insert(record._port, &record);
    record._opening = true;
    return 0;
}

int PortHub::_openInLibrary(PortRecord &record)
{
    lastError = 0;
    if (_hal->openConnection(record._port))
        return 0;
    return lastError != 0 ? lastError : ErrorCode::notInitialized;
}

void PortHub::close(PortRecord &record)
{
    _prepareClose(record);
    if (_hal->socketStatus(record._port) != SocketState::CLOSED)
        _hal->closeConnection(record._port);
    const QMutexLocker locker(&_mutex);
    _followQueue(_hal->bytesToWrite());
    _loseQueued(record);
    _records.remove(record._port);
}

// What a close discards unread would count as unread for ever, from its first zero byte on.
void PortHub::_prepareClose(PortRecord &record)
{
    const QMutexLocker locker(&_mutex);
    record._closing = true;
    _setBacklogged(record, false);
    _discardUnread(record);
}

// ---- the owner's side ----

PortHub::View PortHub::look(PortRecord &record)
{
    _revive(record);
    const QMutexLocker locker(&_mutex);
    record._awake = false;
    const int messages = _hal->bytesToWrite();
    _followQueue(messages);
    const bool isUp = _isUp(record);
    if (isUp && _payloadLimit == 0)
        _payloadLimit = qMin(_hal->getMaxWriteSize(), largestPayload);
    return {isUp,
            record._losses,
            std::exchange(record._taken, 0),
            std::exchange(record._lost, 0),
            std::exchange(record._dropped, 0),
            messages};
}

void PortHub::wake(PortRecord &record)
{
    const QMutexLocker locker(&_mutex);
    _wake(record);
}

void PortHub::waitForWake(PortRecord &record, int msecs)
{
    const QMutexLocker locker(&_mutex);
    const QDeadlineTimer deadline = deadlineIn(msecs);
    while (!record._awake && !deadline.hasExpired())
        _woken.wait(&_mutex, deadline.isForever()
                                 ? ULONG_MAX
                                 : static_cast<unsigned long>(deadline.remainingTime()));
}

bool PortHub::take(PortRecord &record, quint32 losses, qint64 maxSize, ByteChunks &to)
{
    const QMutexLocker locker(&_mutex);
    if (record._losses != losses)
        return false;
    const int port = record._port;
    int size = _hal->nbBytesReceived(port);
    // A message without bytes hides what is behind it until it is read.
    while (size > 0 || record._announced > 0) {
        const qint64 room = maxSize - to.size();
        if (room <= 0)
            break;
        const QByteArray bytes = _hal->read(
            port, static_cast<unsigned int>(qMin<qint64>(room, std::numeric_limits<int>::max())));
        if (bytes.size() == size)
            --record._announced;
        else if (bytes.isEmpty())
            break;
        to.append(bytes);
        size = _hal->nbBytesReceived(port);
    }
    _setBacklogged(record, (size > 0 || record._announced > 0) && to.size() >= maxSize);
    return record._backlogged;
}

int PortHub::hand(PortRecord &record, quint32 losses, const QByteArray &bytes, bool urgent)
{
    const QMutexLocker locker(&_mutex);
    const int messages = _hal->bytesToWrite();
    _followQueue(messages);
    if (record._losses != losses || (!urgent && _leavesGap(messages)) ||
        !_mayHand(record, bytes.size(), urgent))
        return 0;
    const int size = _hal->write(record._port, bytes);
    if (size <= 0)
        return 0;
    _queue.append({&record, size});
    record._queuedBytes += size;
    ++record._queuedMessages;
    return size;
}

int PortHub::payloadLimit() const
{
    const QMutexLocker locker(&_mutex);
    if (_payloadLimit > 0)
        return _payloadLimit;
    const qint64 configured = qint64(_param.maxWriteSize) - headerSize;
    return static_cast<int>(qBound<qint64>(1, configured, largestPayload));
}

// ---- the facade's signals, in whatever thread ----

void PortHub::_onStateChanged(DriverState state)
{
    const QMutexLocker locker(&_mutex);
    _announced = state == DriverState::CONNECTED;
    if (!_announced) {
        _payloadLimit = 0;
        _followQueue(_hal->bytesToWrite());
    }
    for (PortRecord *const record : qAsConst(_records)) {
        if (!_announced) {
            _loseQueued(*record);
            ++record->_losses;
        }
        _wake(*record);
    }
}

void PortHub::_onPortConnected(int port)
{
    const QMutexLocker locker(&_mutex);
    PortRecord *const record = _records.value(port);
    if (!record)
        return;
    // The port comes back with the link, and no message of the new one is stored for it yet.
    if (!record->_opening)
        record->_dropped += _discardUnread(*record);
    _wake(*record);
}

void PortHub::_onPortDisconnected(int port)
{
    const QMutexLocker locker(&_mutex);
    PortRecord *const record = _records.value(port);
    if (!record)
        return;
    _followQueue(_hal->bytesToWrite());
    _loseQueued(*record);
    ++record->_losses;
    _wake(*record);
}

void PortHub::_onReadyRead(int port)
{
    const QMutexLocker locker(&_mutex);
    if (PortRecord *const record = _records.value(port)) {
        ++record->_announced;
        if (record->_closing)
            _discardUnread(*record);
        _wake(*record);
    }
    // A link that came up without a signal concerns every port.
    if (_announced || _hal->status() != DriverState::CONNECTED)
        return;
    for (PortRecord *const record : qAsConst(_records))
        _wake(*record);
}

void PortHub::_wakeAll()
{
    const QMutexLocker locker(&_mutex);
    for (PortRecord *const record : qAsConst(_records))
        _wake(*record);
}

void PortHub::_wake(PortRecord &record)
{
    if (record._awake)
        return;
    record._awake = true;
    record._wake();
    _woken.wakeAll();
}

// ---- what lies in the library; with the mutex held ----

// Messages leave the library's queue at its head, so of ours no more can be left than it holds.
void PortHub::_followQueue(int messages)
{
    const int gone = qMax(_queue.size() - messages, 0);
    for (int i = 0; i < gone; ++i) {
        const Queued &entry = _queue.at(i);
        entry.record->_taken += entry.bytes;
        entry.record->_queuedBytes -= entry.bytes;
        --entry.record->_queuedMessages;
    }
    _queue.remove(0, gone);
}

void PortHub::_loseQueued(PortRecord &record)
{
    const auto end = std::remove_if(_queue.begin(), _queue.end(),
                                    [&](const Queued &entry) { return entry.record == &record; });
    _queue.erase(end, _queue.end());
    record._lost += std::exchange(record._queuedBytes, 0);
    record._queuedMessages = 0;
}

// Whether nothing may be handed on now, so that the queue runs dry for a moment.
bool PortHub::_leavesGap(int messages)
{
    if (_gap == noGap) {
        _busy.start();
        _empty.invalidate();
        return false;
    }
    if (_busy.elapsed() < gapInterval << _gap)
        return false;
    if (messages > 0)
        _empty.invalidate();
    else if (!_empty.isValid())
        _empty.start();
    if (messages > 0 || _empty.elapsed() < gapTime << _gap)
        return true;
    _busy.start();
    _empty.invalidate();
    ++_gap;
    if (_backlogs > 0 || _hasUnread())
        _gap = qMin(_gap, lastGap);
    return false;
}

bool PortHub::_hasUnread() const
{
    return std::any_of(
        _records.constBegin(), _records.constEnd(),
        [this](const PortRecord *record) { return _hal->nbBytesReceived(record->_port) > 0; });
}

bool PortHub::_mayHand(const PortRecord &record, int size, bool urgent)
{
    const bool isWhole = size >= _payloadLimit;
    const bool few = !urgent && (_gap == 0 || !isWhole);
    return _payloadLimit > 0 && record._queuedMessages < (few ? partialLimit : queuedLimit);
}

void PortHub::_setBacklogged(PortRecord &record, bool backlogged)
{
    if (record._backlogged == backlogged)
        return;
    record._backlogged = backlogged;
    _backlogs += backlogged ? 1 : -1;
    _gap = 0;
}

qint64 PortHub::_discardUnread(PortRecord &record)
{
    qint64 total = 0;
    int size = _hal->nbBytesReceived(record._port);
    while (size > 0 || record._announced > 0) {
        const int read = _hal->read(record._port, std::numeric_limits<int>::max()).size();
        --record._announced;
        if (read < size)
            break; // the port cannot be read now
        total += read;
        size = _hal->nbBytesReceived(record._port);
    }
    return total;
}

bool PortHub::_isUp(const PortRecord &record) const
{
    return _hal->status() == DriverState::CONNECTED &&
           _hal->socketStatus(record._port) == SocketState::OPENED;
}

// A link that came up without a signal leaves the other ports cut off; without the mutex held, for
// the signals of the open.
void PortHub::_revive(PortRecord &record)
{
    {
        const QMutexLocker locker(&_mutex);
        if (_announced || _hal->status() != DriverState::CONNECTED ||
            _hal->socketStatus(record._port) != SocketState::DISCONNECTED)
            return;
        record._opening = true;
    }
    _hal->closeConnection(record._port);
    _hal->openConnection(record._port);
    const QMutexLocker locker(&_mutex);
    record._opening = false;
}
