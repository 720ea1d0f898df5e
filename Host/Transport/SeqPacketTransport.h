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

    /** 65536 bytes. */
    std::size_t maxTransferSize() const override;

    TransferResult send(std::string_view transfer, std::chrono::milliseconds timeout) override;
    TransferResult receive(std::string &transfer, std::chrono::milliseconds timeout) override;

private:
    struct USBHALHOST_LOCAL Private;
    std::unique_ptr<Private> _private;
};

} // namespace usbhalhost

#endif
