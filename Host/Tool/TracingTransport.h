// SPDX-License-Identifier: MIT
#ifndef USBHAL_TRACINGTRANSPORT_H
#define USBHAL_TRACINGTRANSPORT_H

#include "DeviceTransport.h"

#include <memory>
#include <string>

/** A transport that remembers what came last, and tells every transfer when that is asked for. */
class TracingTransport : public usbhalhost::DeviceTransport
{
public:
    TracingTransport(std::unique_ptr<usbhalhost::DeviceTransport> transport, bool telling);

    usbhalhost::TransferResult connect() override;
    void close() override;
    bool isConnected() const override;
    std::size_t maxTransferSize() const override;
    usbhalhost::TransferResult send(std::string_view transfer,
                                    std::chrono::milliseconds timeout) override;
    usbhalhost::TransferResult receive(std::string &transfer,
                                       std::chrono::milliseconds timeout) override;

    const std::string &lastReceived() const { return _lastReceived; }

private:
    void _tell(const char *direction, const std::string &bytes) const;

    std::unique_ptr<usbhalhost::DeviceTransport> _transport;
    bool _telling;
    std::string _lastReceived;
};

#endif
