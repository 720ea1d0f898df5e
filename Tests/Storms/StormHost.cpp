// SPDX-License-Identifier: MIT
#include "StormHost.h"

#include <WireMessages.h>

#include <QMutexLocker>

namespace {

const QByteArray delayRequest = "DEVICE_WTSEND";
const QByteArray noData = "DEVICE_NODATA";

constexpr quint64 messagesInFullBlock = 8;

// Seven blocks in eight hold one message: behind each other one the library logs what is left.
quint64 messagesIn(quint64 block)
{
    return block % 8 == 0 ? messagesInFullBlock : 1;
}

} // namespace

void StormHost::sendToEachPort(quint64 messages, bool honoursDelays)
{
    const QMutexLocker locker(&_hostMutex);
    _toSend += messages * portCount;
    _honoursDelays = honoursDelays;
    _done = false;
}

bool StormHost::isDone() const
{
    const QMutexLocker locker(&_hostMutex);
    return _done;
}

bool StormHost::isDelayed() const
{
    const QMutexLocker locker(&_hostMutex);
    return _delayed;
}

quint64 StormHost::delays() const
{
    const QMutexLocker locker(&_hostMutex);
    return _delays;
}

quint64 StormHost::received(int port) const
{
    const QMutexLocker locker(&_hostMutex);
    return _received.at(static_cast<size_t>(port));
}

QString StormHost::fault() const
{
    const QMutexLocker locker(&_hostMutex);
    return _fault;
}

int StormHost::read(QByteArray *data)
{
    const QMutexLocker locker(&_hostMutex);
    if (_sent == _toSend)
        _done = true;
    _block.clear();
    if (!(_honoursDelays && _delayed))
        _fillBlock();
    if (_block.isEmpty())
        _block = noData;
    data->setRawData(_block.constData(), static_cast<uint>(_block.size()));
    return _block.size();
}

void StormHost::_fillBlock()
{
    const auto limit = static_cast<int>(getMaxReadSize());
    for (quint64 left = messagesIn(_sent); left > 0 && _sent < _toSend; --left) {
        const int port = static_cast<int>(_sent % portCount) + 1;
        const QByteArray message =
            dataMessage(port, payloadOf(Way::ToDevice, port, _sent / portCount));
        if (!_block.isEmpty() && _block.size() + message.size() > limit)
            return;
        _block += message;
        ++_sent;
    }
}

int StormHost::write(QByteArray data)
{
    const QMutexLocker locker(&_hostMutex);
    if (data == delayRequest) {
        _delays += _delayed ? 0 : 1;
        _delayed = true;
    } else if (data.startsWith(noData)) {
        _delayed = false;
    } else {
        _check(data);
    }
    return data.size();
}

void StormHost::_check(const QByteArray &message)
{
    const int port = message.mid(9, 4).toInt();
    if (port >= 1 && port <= portCount) {
        quint64 &number = _received[static_cast<size_t>(port)];
        if (message == dataMessage(port, payloadOf(Way::ToHost, port, number))) {
            ++number;
            return;
        }
    }
    if (_fault.isEmpty())
        _fault = "the host did not expect " + QString::fromLatin1(message.toHex());
}
