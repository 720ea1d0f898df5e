// SPDX-License-Identifier: MIT
#ifndef USBHAL_PORTLINK_H
#define USBHAL_PORTLINK_H

#include "DeviceLink.h"
#include "FramedStream.h"
#include "Options.h"
#include "Outbox.h"
#include "RemotePort.h"

#include <cstddef>
#include <memory>
#include <string>

/**
 * One port of the device that the user means: over a link of this program's own, or through a
 * running `usbhal forward` that has the device. Counts what is on its way.
 */
class PortLink
{
public:
    using Handlers = FrameCutter::Handlers;

    PortLink(const LinkOptions &options, int port, Handlers handlers);

    /** Waits for the device and its answer, as long as the options say. */
    void open();
    /** Waits for a device that was lost until the end is asked for, and hands on what was not sent.
     */
    void reopen();
    /** One turn. False when the link is lost; reason() says why. */
    bool step();
    const std::string &reason() const;
    /** Whether the device answers. */
    bool answers() const;

    /** How many bytes more keep the next transfers full. */
    std::size_t room() const;
    void send(const std::string &bytes);
    /** Bytes that the device has not answered. */
    std::size_t undelivered() const { return _outbox.size(); }
    /** How many bytes were on their way, when the link is lost or the device does not answer. */
    std::size_t takeLoss();

private:
    bool _reachForward();
    void _noteDelivered(std::size_t bytes);
    std::size_t _unsent() const;

    std::string _device;
    int _port;
    Handlers _handlers;
    DeviceLink _link;
    std::unique_ptr<RemotePort> _remote;
    std::string _remoteReason;
    Outbox _outbox;
};

#endif
