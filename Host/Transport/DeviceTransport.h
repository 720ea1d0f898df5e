// SPDX-License-Identifier: MIT
#ifndef USBHALHOST_DEVICETRANSPORT_H
#define USBHALHOST_DEVICETRANSPORT_H

#include "MessageTransport.h"

namespace usbhalhost {

/** A transport to one device that comes and goes. Used by one thread at a time. */
class USBHALHOST_EXPORT DeviceTransport : public MessageTransport
{
public:
    ~DeviceTransport() override;

    /**
     * Connects, after closing a connection that still stands. Does not wait: without a device the
     * result is Closed, with a text, and the call may be repeated at any time.
     * TransferResult::mayComeLater tells whether that can help.
     */
    virtual TransferResult connect() = 0;

    /** Closes the connection, if any: to the device the cable is unplugged. */
    virtual void close() = 0;

    /** Whether the connection stands, as far as the last call has seen. */
    virtual bool isConnected() const = 0;
};

} // namespace usbhalhost

#endif
