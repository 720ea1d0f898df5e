// SPDX-License-Identifier: MIT
#include "Http2Peer.h"

#include "Require.h"

#include <cstring>

namespace {

constexpr qint32 widestWindow = 0x7fffffff;
constexpr qint64 windowReserve = 1 << 30; // bytes after which a link is replaced
constexpr int frameHeaderSize = 9;
constexpr qint32 streamId = 1; // a client's first

ssize_t readPayload(nghttp2_session * /*session*/, qint32 /*stream*/, quint8 *buffer, size_t length,
                    quint32 *flags, nghttp2_data_source *source, void * /*user*/)
{
    const auto *const payload = static_cast<const QByteArray *>(source->ptr);
    const auto size = static_cast<size_t>(payload->size());
    if (size > length)
        return NGHTTP2_ERR_CALLBACK_FAILURE;
    std::memcpy(buffer, payload->constData(), size);
    *flags |= NGHTTP2_DATA_FLAG_EOF;
    return static_cast<ssize_t>(size);
}

int storePayload(nghttp2_session * /*session*/, quint8 /*flags*/, qint32 /*stream*/,
                 const quint8 *data, size_t length, void *user)
{
    static_cast<Http2Peer *>(user)->stored.append(
        QByteArray(reinterpret_cast<const char *>(data), static_cast<int>(length)));
    return 0;
}

void carry(nghttp2_session *from, nghttp2_session *to)
{
    const quint8 *bytes = nullptr;
    for (ssize_t size; (size = nghttp2_session_mem_send(from, &bytes)) > 0;) {
        const ssize_t taken = nghttp2_session_mem_recv(to, bytes, static_cast<size_t>(size));
        require(taken == size, "nghttp2 takes what its other end sends");
    }
}

nghttp2_nv header(const char *name, const char *value)
{
    const auto bytes = [](const char *text) {
        return reinterpret_cast<quint8 *>(const_cast<char *>(text));
    };
    return {bytes(name), bytes(value), std::strlen(name), std::strlen(value), NGHTTP2_NV_FLAG_NONE};
}

qint32 openStream(nghttp2_session *client)
{
    const nghttp2_nv headers[] = {header(":method", "POST"), header(":scheme", "http"),
                                  header(":authority", "host"), header(":path", "/")};
    return nghttp2_submit_headers(client, NGHTTP2_FLAG_NONE, -1, nullptr, headers, 4, nullptr);
}

void widenWindows(nghttp2_session *server)
{
    const nghttp2_settings_entry window = {NGHTTP2_SETTINGS_INITIAL_WINDOW_SIZE,
                                           static_cast<quint32>(widestWindow)};
    nghttp2_submit_settings(server, NGHTTP2_FLAG_NONE, &window, 1);
    nghttp2_session_set_local_window_size(server, NGHTTP2_FLAG_NONE, 0, widestWindow);
}

} // namespace

Http2Peer::Http2Peer()
{
    connect();
}

Http2Peer::~Http2Peer()
{
    disconnect();
}

void Http2Peer::frame(const QByteArray &payload, QList<QByteArray> &fifo)
{
    nghttp2_data_provider provider = {};
    provider.source.ptr = const_cast<QByteArray *>(&payload);
    provider.read_callback = readPayload;
    nghttp2_submit_data(_sender, NGHTTP2_FLAG_NONE, streamId, &provider);
    const quint8 *bytes = nullptr;
    const ssize_t size = nghttp2_session_mem_send(_sender, &bytes);
    fifo.append(QByteArray(reinterpret_cast<const char *>(bytes), static_cast<int>(size)));
    _bytes += size;
}

void Http2Peer::receive(const QByteArray &buffer)
{
    const auto size = static_cast<size_t>(buffer.size());
    const auto *const bytes = reinterpret_cast<const quint8 *>(buffer.constData());
    const ssize_t taken = nghttp2_session_mem_recv(_receiver, bytes, size);
    require(taken == buffer.size(), "nghttp2 takes the frames");
    _bytes += size;
}

void Http2Peer::clear()
{
    stored.clear();
    rest();
}

void Http2Peer::rest()
{
    if (_bytes < windowReserve)
        return;
    disconnect();
    connect();
}

QByteArray Http2Peer::dataFrame(const QByteArray &payload)
{
    const int size = payload.size();
    const char head[frameHeaderSize] = {static_cast<char>(size >> 16),
                                        static_cast<char>(size >> 8),
                                        static_cast<char>(size),
                                        0,
                                        0,
                                        0,
                                        0,
                                        0,
                                        streamId}; // type DATA, no flags
    return QByteArray(head, frameHeaderSize) + payload;
}

void Http2Peer::connect()
{
    nghttp2_session_callbacks *callbacks = nullptr;
    nghttp2_session_callbacks_new(&callbacks);
    nghttp2_session_callbacks_set_on_data_chunk_recv_callback(callbacks, storePayload);
    nghttp2_session_client_new(&_sender, callbacks, this);
    nghttp2_session_server_new(&_receiver, callbacks, this);
    nghttp2_session_callbacks_del(callbacks);
    nghttp2_submit_settings(_sender, NGHTTP2_FLAG_NONE, nullptr, 0);
    require(openStream(_sender) == streamId, "nghttp2 opens its first stream");
    widenWindows(_receiver);
    carry(_sender, _receiver);
    carry(_receiver, _sender);
    carry(_sender, _receiver);
    _bytes = 0;
}

void Http2Peer::disconnect()
{
    nghttp2_session_del(_sender);
    nghttp2_session_del(_receiver);
}
