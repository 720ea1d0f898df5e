// SPDX-License-Identifier: MIT
#ifndef USBHAL_CAPTURINGTRANSPORT_H
#define USBHAL_CAPTURINGTRANSPORT_H

#include "DeviceName.h"
#include "DeviceTransport.h"

#include <UsbCapture.h>

#include <memory>

/** A transport whose transfers go into a capture, as the kernel would record them. */
class CapturingTransport : public usbhalhost::DeviceTransport
{
public:
    /** The transport to the named device; the capture must outlive this one. */
    CapturingTransport(const usbhalhost::DeviceName &name, capture::UsbCapture &capture);

    usbhalhost::TransferResult connect() override;
    void close() override;
    bool isConnected() const override;
    std::size_t maxTransferSize() const override;
    usbhalhost::TransferResult send(std::string_view transfer,
                                    std::chrono::milliseconds timeout) override;
    usbhalhost::TransferResult receive(std::string &transfer,
                                       std::chrono::milliseconds timeout) override;

private:
    usbhalhost::DeviceName _name;
    capture::UsbCapture &_capture;
    std::unique_ptr<usbhalhost::DeviceTransport> _transport;
};

#endif
