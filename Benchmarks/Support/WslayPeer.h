// SPDX-License-Identifier: MIT
#ifndef WSLAYPEER_H
#define WSLAYPEER_H

#include <QByteArray>
#include <QList>

#include <wslay/wslay.h>

/** wslay at the same work: payloads as unmasked binary WebSocket frames. */
class WslayPeer
{
public:
    WslayPeer();
    ~WslayPeer();
    Q_DISABLE_COPY(WslayPeer)

    /** Frames a payload and appends the frame to the FIFO. */
    void frame(const QByteArray &payload, QList<QByteArray> &fifo);

    /** Cuts received frames, the last of which is whole; each payload ends up in stored. */
    void receive(const QByteArray &buffer);

    /** Forgets what is stored. */
    void clear() { stored.clear(); }

    QList<QByteArray> stored;

private:
    static ssize_t send(const quint8 *data, size_t length, int flags, void *user);
    static ssize_t recv(quint8 *data, size_t length, int flags, void *user);

    wslay_frame_context_ptr _context = nullptr;
    QByteArray _frame;
    const char *_rest = nullptr;
    size_t _restSize = 0;
};

#endif
