// SPDX-License-Identifier: MIT
#ifndef USBHALHOST_USBTRANSPORT_H
#define USBHALHOST_USBTRANSPORT_H

#include "DeviceTransport.h"
#include "UsbDevices.h"

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace usbhalhost {

/**
 * Transfers over the bulk endpoints of a device on USB. A thread of its own waits for libusb, and a
 * read is always under way, so that nothing the device sends is lost between two calls and an
 * unplug is seen at once. Each connect() looks at USB anew and finds the device at whatever address
 * it has.
 */
class USBHALHOST_EXPORT UsbTransport : public DeviceTransport
{
public:
    /** Remembers which device is meant; connect() opens it. */
    explicit UsbTransport(UsbSelector selector);
    /** Closes the connection, if any, and waits for the end of the thread. */
    ~UsbTransport() override;
    UsbTransport(const UsbTransport &) = delete;
    UsbTransport &operator=(const UsbTransport &) = delete;

    /**
     * Opens the device that is meant and claims its interface, after closing a connection that
     * still stands. What the device had sent to the connection before is thrown away: that takes 50
     * ms, or half a second of a device that goes on sending. Closed, with a text, when there is no
     * such device, when there are several, without permission and when another one holds the
     * interface.
     */
    TransferResult connect() override;
    /** Withdraws the transfers that are under way, waits for their end, and lets go of the device.
     */
    void close() override;
    bool isConnected() const override;

    /** 65536 bytes. */
    std::size_t maxTransferSize() const override;

    /** An empty packet follows a transfer whose end would not show otherwise. */
    TransferResult send(std::string_view transfer, std::chrono::milliseconds timeout) override;
    TransferResult receive(std::string &transfer, std::chrono::milliseconds timeout) override;

private:
    struct USBHALHOST_LOCAL Private;
    std::unique_ptr<Private> _private;
};

} // namespace usbhalhost

#endif
