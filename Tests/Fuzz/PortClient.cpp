// SPDX-License-Identifier: MIT
#include "PortClient.h"

#include "SteppedDriver.h"

#include <WireMessages.h>

#include <QCoreApplication>
#include <QTimer>
#include <QTimerEvent>

#include <utility>

namespace {

constexpr int mostWritten = 20000; // bytes, in one input
constexpr qint64 largeBuffer = 1 << 20;

// No two stretches of a stream are alike, and lines end in it.
QByteArray streamBytes(qint64 position, int size)
{
    QByteArray bytes(size, '\n');
    for (int i = 0; i < size; ++i) {
        const quint64 mixed = (static_cast<quint64>(position + i) + 1) * 0x9e3779b97f4a7c15ULL;
        if ((mixed >> 60) != 0)
            bytes[i] = static_cast<char>(mixed >> 32);
    }
    return bytes;
}

} // namespace

PortClient::PortClient(int number) : _port(number)
{
    QObject::connect(&_port, &UsbHalPort::stateChanged,
                     [this](UsbHalPort::State state) { _onState(state); });
    QObject::connect(&_port, &UsbHalPort::bytesWritten, [this](qint64 size) { _onWritten(size); });
    QObject::connect(&_port, &UsbHalPort::bytesLost, [this](qint64 size) { _onLost(size); });
    QObject::connect(&_port, &UsbHalPort::readyRead, [this] {
        _announced = true;
        if (_readsInHandler)
            _readAll();
    });
}

// ---- operations ----

void PortClient::act(FuzzInput &input)
{
    const unsigned action = input.below(16);
    if (!_port.isOpen())
        return _open(input);
    if (action == 0)
        _close();
    else if (action < 3)
        _configure(input);
    else if (action < 6)
        _write(static_cast<int>(1 + input.number(2) % 3000));
    else if (action == 6)
        _port.flush();
    else if (action == 7)
        _wait(input);
    else if (action < 10)
        _useTransaction(input);
    else
        _read(input);
}

void PortClient::_open(FuzzInput &input)
{
    constexpr QIODevice::OpenMode modes[] = {QIODevice::ReadWrite, QIODevice::ReadWrite,
                                             QIODevice::ReadOnly, QIODevice::WriteOnly};
    const QIODevice::OpenMode mode = modes[input.below(4)];
    _readsInHandler = input.byte() % 4 == 1;
    _forget();
    require(_port.open(mode), "a port that is closed can be opened");
}

void PortClient::_close()
{
    SteppedDriver &driver = SteppedDriver::instance();
    const QByteArray start = dataMessage(number(), QByteArray()).mid(9);
    _isOrphaned = driver.waitForCall() == SteppedDriver::Call::Write &&
                  driver.message().startsWith("FADA") && driver.message().mid(9, 4) == start;
    _port.close();
    require(_port.bytesToWrite() == 0 && _port.bytesAvailable() == 0, "a closed port is empty");
    _forget();
}

void PortClient::_configure(FuzzInput &input)
{
    switch (input.below(4)) {
    case 0:
        return _port.setReopen(false);
    case 1:
        return _port.setReopen(true);
    case 2:
        return _port.setReadBufferSize(input.number(1 + input.below(2)));
    default:
        return _port.setWriteBufferSize(input.number(1 + input.below(2)));
    }
}

void PortClient::_write(int size)
{
    if (!_port.isWritable())
        return;
    const int wanted = std::min(size, mostWritten - _written);
    const qint64 taken = _port.write(streamBytes(_written, wanted));
    const bool isOver = _port.state() == UsbHalPort::UnconnectedState;
    require(isOver ? taken == -1 : taken >= 0 && taken <= wanted, "a write takes what it can");
    _written += static_cast<int>(std::max<qint64>(taken, 0));
}

void PortClient::_wait(FuzzInput &input)
{
    const qint64 toWrite = _port.bytesToWrite();
    _announced = false;
    switch (input.below(3)) {
    case 0:
        require(_port.waitForConnected(0) == (_port.state() == UsbHalPort::ConnectedState),
                "a wait tells the state");
        break;
    case 1:
        if (_port.waitForReadyRead(0))
            require(_announced, "a wait for bytes announces them");
        break;
    default:
        if (_port.waitForBytesWritten(0))
            require(_port.bytesToWrite() < toWrite, "a wait for the node ends when it has taken");
    }
}

void PortClient::_useTransaction(FuzzInput &input)
{
    if (!_port.isReadable())
        return;
    if (!_port.isTransactionStarted())
        return _port.startTransaction();
    if (input.flag()) {
        _port.commitTransaction();
        _expected.remove(0, _cursor);
    } else {
        _port.rollbackTransaction();
    }
    _cursor = 0;
}

void PortClient::_read(FuzzInput &input)
{
    if (!_port.isReadable())
        return;
    const unsigned how = input.below(4);
    const int size = static_cast<int>(1 + input.byte());
    const QByteArray unread = _unread();
    const int line = unread.indexOf('\n') + 1;
    require(_port.canReadLine() == (line > 0), "a line can be read when there is one");
    if (how == 0)
        _readAll();
    else if (how == 1)
        _readRest(line > 0 ? unread.left(line) : unread, _port.readLine());
    else if (how == 2)
        _readRest(unread.left(size), _port.read(size));
    else
        require(_port.peek(size) == unread.left(size), "what is peeked at is what comes next");
}

void PortClient::_readAll()
{
    const QByteArray unread = _unread();
    _readRest(unread, _port.readAll());
}

void PortClient::_readRest(const QByteArray &wanted, const QByteArray &bytes)
{
    require(bytes == wanted, "the bytes are read that the host sent, in their order");
    _cursor += bytes.size();
    if (_port.isTransactionStarted())
        return;
    _expected.remove(0, _cursor);
    _cursor = 0;
}

// What can be read now; the model may hold more, which the library has or has lost.
QByteArray PortClient::_unread() const
{
    const qint64 available = _port.bytesAvailable();
    require(available <= _expected.size() - _cursor, "no byte is invented");
    return _expected.mid(_cursor, static_cast<int>(available));
}

// ---- the end of an input ----

void PortClient::writeOn(int size)
{
    if (!_port.isOpen())
        require(_port.open(QIODevice::ReadWrite), "a port that is closed can be opened");
    _write(size);
}

void PortClient::readOn()
{
    if (!_port.isReadable())
        return;
    if (_port.isTransactionStarted())
        _port.rollbackTransaction();
    _cursor = 0;
    _port.setReadBufferSize(largeBuffer);
    _readAll();
}

bool PortClient::isSettled() const
{
    if (_port.state() == UsbHalPort::UnconnectedState)
        return true;
    return _port.state() == UsbHalPort::ConnectedState && !_isFresh && _port.bytesToWrite() == 0 &&
           _expected.isEmpty();
}

// ---- events ----

void PortClient::follow()
{
    const qint64 before = _port.bytesAvailable();
    _announced = false;
    QCoreApplication::sendPostedEvents();
    QTimer *const timer = _port.findChild<QTimer *>();
    if (timer->isActive()) {
        QTimerEvent event(timer->timerId());
        QCoreApplication::sendEvent(timer, &event);
    }
    require(_port.bytesAvailable() <= before || _announced, "new bytes are announced");
}

void PortClient::check() const
{
    require(_told + _port.bytesToWrite() == _written, "a byte is told once, or still waits");
    _unread();
}

void PortClient::arrive(const QByteArray &payload)
{
    if (_port.isReadable())
        (_isFresh ? _fresh : _expected) += payload;
}

QByteArray PortClient::nextSent(int size)
{
    const QByteArray bytes = streamBytes(_sent, size);
    _sent += size;
    return bytes;
}

void PortClient::endWrite(const QByteArray &payload, bool works)
{
    if (std::exchange(_isOrphaned, false) || !works)
        return;
    require(_taken + payload.size() <= _written, "the host gets no more than was written");
    require(payload == streamBytes(_taken, payload.size()), "the host gets it in its order");
    _taken += payload.size();
}

void PortClient::noteLoss()
{
    _fresh.clear();
    _isFresh = true;
}

void PortClient::_forget()
{
    _expected.clear();
    _cursor = 0;
    noteLoss();
}

void PortClient::_onState(UsbHalPort::State state)
{
    if (state != UsbHalPort::ConnectedState)
        return;
    require(_port.bytesAvailable() == 0, "no byte of the old link is left on the new one");
    require(_isFresh, "a port that is connected anew has a new link");
    _expected = std::exchange(_fresh, QByteArray());
    _isFresh = false;
    _cursor = 0;
}

void PortClient::_onWritten(qint64 size)
{
    _told += size;
    require(_told <= _taken, "a byte is told as written when the node has taken it");
}

void PortClient::_onLost(qint64 size)
{
    require(_told == _taken, "no byte is told as lost that the node has taken");
    _told += size;
    _taken = _told;
}
