// SPDX-License-Identifier: MIT
#include "LinkModel.h"

#include <WireMessages.h>

#include <algorithm>

namespace {

constexpr int mostQueued = 100;
constexpr qint64 header = 13;
constexpr qint64 largestPayload = 99995;

} // namespace

int LinkModel::write(int port, const QByteArray &data)
{
    const qint64 limit = std::min(qint64(_driver.getMaxWriteSize()) - header, largestPayload);
    int taken = 0;
    while (ports.isUsable(port) && limit > 0 && taken < data.size() && _fifo.size() < mostQueued) {
        const QByteArray part = data.mid(taken, static_cast<int>(limit));
        _fifo.append({++_lastNumber, port, dataMessage(port, part)});
        taken += part.size();
    }
    return taken;
}

bool LinkModel::close(int port)
{
    const bool wasOpen = ports.port(port).state == SocketState::OPENED;
    const bool closed = ports.close(port);
    if (closed && wasOpen)
        _clearFifoFor(port);
    return closed;
}

void LinkModel::peerDisconnect(int port)
{
    const bool wasOpen = ports.port(port).state == SocketState::OPENED;
    ports.peerDisconnect(port);
    if (wasOpen)
        _clearFifoFor(port);
}

void LinkModel::_clearFifoFor(int port)
{
    // A port that no frame can carry has frames, too, but they are nobody's.
    const auto isPorts = [port](const Queued &queued) {
        return queued.port == port && port >= 0 && port <= 9999;
    };
    _fifo.erase(std::remove_if(_fifo.begin(), _fifo.end(), isPorts), _fifo.end());
    if (_driver.avoidClosingDuringHandshake() && ports.openPorts().isEmpty())
        _forcedLoss = true;
}

QByteArray LinkModel::nextWrite()
{
    _inFlight = _fifo.isEmpty() ? 0 : _fifo.constFirst().number;
    if (_inFlight != 0)
        return _fifo.constFirst().message;
    if (_mustDelay())
        return "DEVICE_WTSEND";
    const quint32 size = _driver.getMaxReadSize();
    if (_encodedSize != size) {
        _encodedSize = size;
        _noData = "DEVICE_NODATA" + QByteArray::number(size).rightJustified(5, '0');
    }
    return _noData;
}

bool LinkModel::_mustDelay()
{
    const quint32 waiting = bytesWaiting();
    if (waiting > 30 * quint64(_driver.getMaxReadSize()))
        _delayRequested = true;
    if (waiting == 0)
        _delayRequested = false;
    return _delayRequested;
}

quint32 LinkModel::bytesWaiting() const
{
    return static_cast<quint32>(ports.bytesHeld()) + ports.remainder;
}

void LinkModel::endRead(const QByteArray &block)
{
    if (block.isEmpty()) {
        ++_readErrors;
    } else {
        const bool accepted = ports.receive(block);
        _readErrors = accepted ? 0 : 1;
        _handshaking = _handshaking && !accepted;
        _readsNext = false;
    }
    _checkLink();
}

void LinkModel::endWrite(bool done)
{
    _writeErrors = done ? 0 : _writeErrors + 1;
    _readsNext = done;
    if (done && !_fifo.isEmpty() && _fifo.constFirst().number == _inFlight)
        _fifo.removeFirst();
    _checkLink();
}

void LinkModel::_checkLink()
{
    const quint32 errors = std::max(_readErrors, _writeErrors);
    if (!_forcedLoss && (_handshaking || errors <= _driver.getNbRetry()))
        return;
    ports.loseLink();
    _fifo.clear();
    _readErrors = 0;
    _writeErrors = 0;
    _readsNext = true;
    _handshaking = true;
    _forcedLoss = false;
}
