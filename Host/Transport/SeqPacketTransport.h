// SPDX-License-Identifier: MIT
#ifndef USBHALHOST_SEQPACKETTRANSPORT_H
#define USBHALHOST_SEQPACKETTRANSPORT_H

#include "DeviceTransport.h"

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace usbhalhost {

/**
 * Transfers as packets of a UNIX SOCK_SEQPACKET socket, such as the host's end of a simulated
 * device node. Being connected stands for a plugged cable. Never raises SIGPIPE.
 */
class USBHALHOST_EXPORT SeqPacketTransport : public DeviceTransport
{
public:
    /** Remembers the socket's path; connect() opens it. */
    explicit SeqPacketTransport(std::string path);
    /** Closes the connection, if any. */
    ~SeqPacketTransport() override;
    SeqPacketTransport(const SeqPacketTransport &) = delete;
    SeqPacketTransport &operator=(const SeqPacketTransport &) = delete;

    TransferResult connect() override;
    void close() override;
    bool isConnected() const override;

    /** 65536 bytes. Receiving a longer transfer closes the connection. */
    std::size_t maxTransferSize() const override;

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
    struct USBHALHOST_LOCAL Private;
    std::unique_ptr<Private> _private;
};

} // namespace usbhalhost

#endif
