// SPDX-License-Identifier: MIT
#include "UsbHalPortStream.h"

#include "PortErrors.h"

#include <QAbstractEventDispatcher>
#include <QDeadlineTimer>

#include <utility>

namespace {

constexpr int largestPort = 9999;

// The device node takes at most one message in 20 ms. To look more often shows nothing new, and
// with several messages queued there is time.
constexpr int shortestPause = 10; // ms
constexpr int longestPause = 50;  // ms
constexpr int messagePause = 5;   // ms, for each queued message

} // namespace

UsbHalPort::Stream::Stream(UsbHalPort *owner, int number)
    : port(owner), portNumber(number), _timer(owner)
{
    _timer.setSingleShot(true);
    QObject::connect(&_timer, &QTimer::timeout, port, [this] { _follow(); });
}

// ---- opening and closing ----

bool UsbHalPort::Stream::open(OpenMode mode)
{
    if (port->isOpen()) {
        _fail(AlreadyOpenError, sentenceOf(AlreadyOpenError));
        return false;
    }
    if (portNumber < 0 || portNumber > largestPort || !(mode & ReadWrite)) {
        _fail(InvalidPortError, sentenceOf(InvalidPortError));
        return false;
    }
    const auto wake = [this] {
        QMetaObject::invokeMethod(
            port, [this] { _follow(); }, Qt::QueuedConnection);
    };
    auto record = std::make_unique<PortRecord>(portNumber, wake);
    const int code = PortHub::instance().open(*record);
    if (code != 0) {
        _fail(errorOf(code), sentenceOf(errorOf(code)));
        return false;
    }
    _record = std::move(record);
    return true;
}

void UsbHalPort::Stream::begin()
{
    ++_session;
    const Session session(this);
    _isStale = false;
    _payloadLimit = PortHub::instance().payloadLimit();
    clearError();
    _tellState(ConnectingState);
    // The link may be up already, or have been and be gone.
    if (!session.isOver())
        PortHub::instance().wake(*_record);
}

void UsbHalPort::Stream::close()
{
    while (_handOn(true)) {
    }
    ++_session;
    const Session session(this);
    const bool wasConnected = state == ConnectedState;
    const bool wasOpen = state != UnconnectedState;
    _timer.stop();
    _leaveLibrary();
    _lost += _outgoing.size();
    _outgoing.clear();
    incoming.clear();
    _arrived = false;
    state = UnconnectedState;
    _tellWritten();
    if (!session.isOver())
        _tellLost();
    if (!session.isOver() && wasOpen)
        emit port->stateChanged(state);
    if (!session.isOver() && wasConnected)
        emit port->readChannelFinished();
    if (!session.isOver() && wasConnected)
        emit port->disconnected();
}

void UsbHalPort::Stream::_leaveLibrary()
{
    if (!_record)
        return;
    PortHub::instance().close(*_record);
    _account(PortHub::instance().look(*_record));
    _record.reset();
    _losses = 0;
    _isBacklogged = false;
}

// ---- from the hub's news to signals ----

void UsbHalPort::Stream::_follow()
{
    if (!_record)
        return;
    const Session session(this);
    const PortHub::View view = PortHub::instance().look(*_record);
    _account(view);
    _tellWritten();
    if (session.isOver())
        return;
    if (view.losses != _losses || (state == ConnectedState && !view.isUp))
        _noteLoss(view.losses);
    if (session.isOver() || !_record)
        return;
    if (view.isUp && state == ConnectingState)
        _tellHost();
    if (session.isOver() || state != ConnectedState)
        return;
    _takeIn();
    while (_handOn(false)) {
    }
    _look(view.libraryMessages);
    _tellIncoming();
}

void UsbHalPort::Stream::_account(const PortHub::View &view)
{
    _queuedBytes -= view.taken + view.lost;
    _written += view.taken;
    _takenBytes += static_cast<quint64>(view.taken);
    _lost += view.lost;
    dropped += view.dropped;
}

void UsbHalPort::Stream::_fail(Error what, const QString &sentence)
{
    error = what;
    port->setErrorString(what == NoError ? sentence : sentence.arg(portNumber));
    if (what != NoError)
        emit port->errorOccurred(what);
}

void UsbHalPort::Stream::_tellState(State next)
{
    state = next;
    emit port->stateChanged(next);
}

// What is taken while handlers run is told after them.
void UsbHalPort::Stream::_tellWritten()
{
    if (_inBytesWritten)
        return;
    const Session session(this);
    while (_written > 0) {
        _inBytesWritten = true;
        emit port->bytesWritten(std::exchange(_written, 0));
        if (session.isGone())
            return;
        _inBytesWritten = false;
    }
}

void UsbHalPort::Stream::_tellLost()
{
    if (_lost > 0)
        emit port->bytesLost(std::exchange(_lost, 0));
}

void UsbHalPort::Stream::_tellIncoming()
{
    if (_inReadyRead)
        return;
    const Session session(this);
    while (_arrived) {
        _arrived = false;
        _inReadyRead = true;
        emit port->readyRead();
        if (session.isGone())
            return;
        _inReadyRead = false;
    }
}

// What the link took along is told once; what is written from now on is for the next one.
void UsbHalPort::Stream::_noteLoss(quint32 losses)
{
    _losses = losses;
    if (state != ConnectedState) {
        _tellLost();
        return;
    }
    _timer.stop();
    _lost += _outgoing.size();
    _outgoing.clear();
    _isStale = true;
    ++_lossesTold;
    if (!reopen)
        _leaveLibrary();
    _tellLoss();
}

void UsbHalPort::Stream::_tellLoss()
{
    const Session session(this);
    state = reopen ? ConnectingState : UnconnectedState;
    const State next = state;
    _fail(HostLostError, sentenceOf(HostLostError));
    if (!session.isOver())
        emit port->stateChanged(next);
    if (!session.isOver())
        _tellLost();
    if (!session.isOver() && next == UnconnectedState)
        emit port->readChannelFinished();
    if (!session.isOver())
        emit port->disconnected();
}

void UsbHalPort::Stream::_tellHost()
{
    const Session session(this);
    _payloadLimit = PortHub::instance().payloadLimit();
    _dropStale();
    _tellState(ConnectedState);
    if (!session.isOver())
        emit port->connected();
}

// ---- received bytes ----

// What QIODevice keeps for peek() and transactions goes, too; only a change of the mode removes
// that.
void UsbHalPort::Stream::_dropStale()
{
    if (!std::exchange(_isStale, false))
        return;
    const bool inTransaction = port->isTransactionStarted();
    if (inTransaction)
        port->rollbackTransaction();
    dropped += port->bytesAvailable();
    incoming.clear();
    const OpenMode mode = port->openMode();
    port->setOpenMode(mode & ~OpenMode(ReadOnly));
    port->setOpenMode(mode);
    if (inTransaction)
        port->startTransaction();
}

void UsbHalPort::Stream::_takeIn()
{
    const qint64 before = incoming.size();
    _isBacklogged = PortHub::instance().take(*_record, _losses,
                                             before + qMax<qint64>(_readRoom(), 0), incoming);
    const qint64 arrived = incoming.size() - before;
    if (port->isReadable()) {
        _arrived = _arrived || arrived > 0;
        _arrivedBytes += static_cast<quint64>(arrived);
    } else {
        dropped += arrived;
        incoming.clear();
    }
}

// What was left in the library may be taken now.
void UsbHalPort::Stream::_noteRoom()
{
    if (_isBacklogged && _record)
        PortHub::instance().wake(*_record);
}

void UsbHalPort::Stream::setReadLimit(qint64 bytes)
{
    readLimit = bytes;
    _noteRoom();
}

qint64 UsbHalPort::Stream::_readRoom() const
{
    return readLimit - port->bytesAvailable();
}

qint64 UsbHalPort::Stream::read(char *data, qint64 maxSize)
{
    const qint64 size = incoming.read(data, maxSize);
    if (size > 0)
        _noteRoom();
    // Without a host to come there is nothing more to wait for.
    return size == 0 && maxSize > 0 && state == UnconnectedState ? -1 : size;
}

qint64 UsbHalPort::Stream::readLine(char *data, qint64 maxSize)
{
    const qint64 line = incoming.lineSize(maxSize);
    return read(data, line > 0 ? line : maxSize);
}

// ---- written bytes ----

qint64 UsbHalPort::Stream::write(const char *data, qint64 size)
{
    if (state == UnconnectedState) {
        port->setErrorString(
            tr("Port %1 is not connected; close it and open it again.").arg(portNumber));
        return -1;
    }
    qint64 total = 0;
    while (_outgoing.isEmpty() && state == ConnectedState && total < size) {
        const int part = static_cast<int>(qMin<qint64>(size - total, _payloadLimit));
        const int handed = _hand(QByteArray::fromRawData(data + total, part), false);
        if (handed == 0)
            break;
        total += handed;
    }
    const qint64 kept = qMin(size - total, qMax<qint64>(writeLimit - _outgoing.size(), 0));
    _outgoing.append(data + total, kept, _payloadLimit);
    if (!_timer.isActive())
        _look(0);
    return total + kept;
}

bool UsbHalPort::Stream::flush()
{
    const qint64 before = _outgoing.size();
    while (_handOn(true)) {
    }
    return _outgoing.size() != before;
}

bool UsbHalPort::Stream::_handOn(bool urgent)
{
    if (_outgoing.isEmpty() || state != ConnectedState)
        return false;
    const int size = _hand(_outgoing.front(_payloadLimit), urgent);
    if (size > 0)
        _outgoing.removeFront(size);
    return size > 0;
}

int UsbHalPort::Stream::_hand(const QByteArray &bytes, bool urgent)
{
    const int size = PortHub::instance().hand(*_record, _losses, bytes, urgent);
    _queuedBytes += size;
    return size;
}

// Has the library's queue looked at again, as long as it concerns this port.
void UsbHalPort::Stream::_look(int libraryMessages)
{
    if (state != ConnectedState || unwritten() == 0)
        _timer.stop();
    else if (QAbstractEventDispatcher::instance())
        _timer.start(qBound(shortestPause, libraryMessages * messagePause, longestPause));
}

// ---- waiting ----

// Until isDone() or isVain(); both are asked while the port is open and no handler has closed it.
template <typename IsDone, typename IsVain>
bool UsbHalPort::Stream::_waitUntil(int msecs, IsDone isDone, IsVain isVain)
{
    const QDeadlineTimer deadline = deadlineIn(msecs);
    const Session session(this);
    for (;;) {
        _follow();
        if (session.isOver())
            return false;
        if (isDone())
            return true;
        if (!_record || isVain())
            return false;
        if (deadline.hasExpired()) {
            _fail(TimeoutError, sentenceOf(TimeoutError));
            return false;
        }
        const bool looks = state == ConnectedState && unwritten() > 0;
        const int left = static_cast<int>(deadline.remainingTime()); // below 0 for ever
        const bool isLong = left < 0 || left > shortestPause;
        PortHub::instance().waitForWake(*_record, looks && isLong ? shortestPause : left);
    }
}

bool UsbHalPort::Stream::waitForConnected(int msecs)
{
    return _waitUntil(
        msecs, [this] { return state == ConnectedState; }, [] { return false; });
}

bool UsbHalPort::Stream::waitForDisconnected(int msecs)
{
    const quint32 before = _lossesTold;
    return _waitUntil(
        msecs, [=] { return state != ConnectedState || _lossesTold != before; },
        [] { return false; });
}

bool UsbHalPort::Stream::waitForReadyRead(int msecs)
{
    const quint64 before = _arrivedBytes;
    return _waitUntil(
        msecs,
        [=] {
            if (_arrivedBytes == before)
                return false;
            _arrived = false; // the caller knows
            return true;
        },
        [this] { return _readRoom() <= 0 || !port->isReadable(); });
}

bool UsbHalPort::Stream::waitForBytesWritten(int msecs)
{
    const quint64 before = _takenBytes;
    return _waitUntil(
        msecs, [=] { return _takenBytes != before; }, [this] { return unwritten() == 0; });
}
