// SPDX-License-Identifier: MIT
#ifndef HTTP2PEER_H
#define HTTP2PEER_H

#include <QByteArray>
#include <QList>

#include <nghttp2/nghttp2.h>

/**
 * nghttp2 at the same work: payloads as DATA frames of one open stream, whose windows are as wide
 * as they go.
 */
class Http2Peer
{
public:
    Http2Peer();
    ~Http2Peer();
    Q_DISABLE_COPY(Http2Peer)

    /** Frames a payload of at most 16384 bytes and appends the frame to the FIFO. */
    void frame(const QByteArray &payload, QList<QByteArray> &fifo);

    /** Cuts received frames; each payload ends up in stored. */
    void receive(const QByteArray &buffer);

    /** Forgets what is stored, and rests. */
    void clear();

    /** Replaces a link whose windows run out; to be called between two batches. */
    void rest();

    /** The frame of a payload, written without the library. */
    static QByteArray dataFrame(const QByteArray &payload);

    QList<QByteArray> stored;

private:
    void connect();
    void disconnect();

    nghttp2_session *_sender = nullptr;
    nghttp2_session *_receiver = nullptr;
    qint64 _bytes = 0;
};

#endif
