// SPDX-License-Identifier: MIT
#include "WslayPeer.h"

#include "Require.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr int longestHeader = 10; // bytes, unmasked

} // namespace

WslayPeer::WslayPeer()
{
    const wslay_frame_callbacks callbacks = {send, recv, nullptr};
    require(wslay_frame_context_init(&_context, &callbacks, this) == 0, "wslay starts");
}

WslayPeer::~WslayPeer()
{
    wslay_frame_context_free(_context);
}

void WslayPeer::frame(const QByteArray &payload, QList<QByteArray> &fifo)
{
    wslay_frame_iocb block = {};
    block.fin = 1;
    block.opcode = WSLAY_BINARY_FRAME;
    block.data = reinterpret_cast<const quint8 *>(payload.constData());
    block.data_length = static_cast<size_t>(payload.size());
    block.payload_length = block.data_length;
    _frame.reserve(longestHeader + payload.size());
    wslay_frame_send(_context, &block);
    fifo.append(std::move(_frame));
    _frame = QByteArray();
}

void WslayPeer::receive(const QByteArray &buffer)
{
    _rest = buffer.constData();
    _restSize = static_cast<size_t>(buffer.size());
    wslay_frame_iocb block = {};
    QByteArray payload;
    while (wslay_frame_recv(_context, &block) >= 0) {
        const int size = static_cast<int>(block.payload_length);
        if (payload.isEmpty())
            payload.reserve(size);
        payload.append(reinterpret_cast<const char *>(block.data),
                       static_cast<int>(block.data_length));
        if (payload.size() < size)
            continue;
        stored.append(std::move(payload));
        payload = QByteArray();
    }
}

ssize_t WslayPeer::send(const quint8 *data, size_t length, int /*flags*/, void *user)
{
    static_cast<WslayPeer *>(user)->_frame.append(reinterpret_cast<const char *>(data),
                                                  static_cast<int>(length));
    return static_cast<ssize_t>(length);
}

// Nothing read means to wslay that more is to come.
ssize_t WslayPeer::recv(quint8 *data, size_t length, int /*flags*/, void *user)
{
    auto *const self = static_cast<WslayPeer *>(user);
    const size_t count = std::min(length, self->_restSize);
    std::memcpy(data, self->_rest, count);
    self->_rest += count;
    self->_restSize -= count;
    return count > 0 ? static_cast<ssize_t>(count) : -1;
}
