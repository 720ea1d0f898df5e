// SPDX-License-Identifier: MIT
#ifndef HOSTPEER_SEQPACKETTRANSPORT_H
#define HOSTPEER_SEQPACKETTRANSPORT_H

#include "MessageTransport.h"

#include <cstddef>
#include <string>

namespace hostpeer {

/**
 * Transfers as packets of a UNIX SOCK_SEQPACKET socket, such as the host's end of a simulated
 * device node. Being connected stands for a plugged cable. Never raises SIGPIPE.
 */
class SeqPacketTransport : public MessageTransport
{
public:
    /** Remembers the socket's path; connect() opens it. */
    explicit SeqPacketTransport(std::string path);
    /** Closes the connection, if any. */
    ~SeqPacketTransport() override;
    SeqPacketTransport(const SeqPacketTransport &) = delete;
    SeqPacketTransport &operator=(const SeqPacketTransport &) = delete;

    /**
     * Connects, after closing a connection that still stands. Does not wait: when nobody takes the
     * connection the result is Closed, with a text, and the call may be repeated at any time.
     */
    TransferResult connect();

    /** Closes the connection, if any: the cable is unplugged. */
    void close();

    /** Whether the connection stands, as far as the last call has seen. */
    bool isConnected() const { return _fd >= 0; }

    /** 65536 bytes. Receiving a longer transfer closes the connection. */
    std::size_t maxTransferSize() const override { return _buffer.size(); }

    /**
     * Sends one packet. TimedOut when the other end takes none within the time-out in ms; Closed,
     * with a text, when there is no connection or it breaks.
     */
    TransferResult send(std::string_view transfer, std::chrono::milliseconds timeout) override;
    /**
     * Replaces transfer by the next packet. TimedOut when none comes within the time-out in ms;
     * Closed, with a text, when there is no connection, it breaks or the other end leaves. Without
     * a packet, transfer stays as it is.
     */
    TransferResult receive(std::string &transfer, std::chrono::milliseconds timeout) override;

private:
    TransferResult _waitFor(short events, std::chrono::steady_clock::time_point deadline) const;
    TransferResult _closed(const std::string &reason);

    std::string _path;
    std::string _buffer;
    int _fd = -1;
};

} // namespace hostpeer

#endif
