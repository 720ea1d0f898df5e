// SPDX-License-Identifier: MIT
#ifndef USBHAL_DEVICELINK_H
#define USBHAL_DEVICELINK_H

#include "DeviceName.h"
#include "HostSession.h"
#include "Options.h"
#include "TracingTransport.h"

#include <UsbCapture.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

/**
 * A session with the device that the user means. Says what it waits for, and ends with a Failure
 * when waiting cannot help.
 */
class DeviceLink
{
public:
    /** Begins the capture, if one is asked for; a Failure says why it cannot be. */
    explicit DeviceLink(LinkOptions options);

    /** The first handlers of the sessions to come; what is faulty is told by the link itself. */
    void setHandlers(std::function<void(int port)> received,
                     std::function<void(int port, std::size_t bytes)> delivered);

    /** Waits for the device and its answer, as long as the options say. */
    void open();
    /** Waits for a device that was lost and its answer, until the end is asked for. */
    void reopen();
    /** One turn. False when the link is lost; reason() says why. */
    bool step();

    usbhalhost::HostSession &session() { return *_session; }
    const std::string &reason() const { return _reason; }

private:
    using Clock = std::chrono::steady_clock;
    enum class Attempt { Done, NoDevice, NoAnswer };

    void _openWithin(std::chrono::duration<double> limit);
    Attempt _try(Clock::time_point limit);
    bool _connect();
    bool _establish(Clock::time_point limit);
    void _begin(const usbhalhost::DeviceName &name);
    std::unique_ptr<usbhalhost::DeviceTransport> _newTransport(const usbhalhost::DeviceName &name);
    void _noteFault(const std::string &text);
    void _waitFor(const std::string &what);

    LinkOptions _options;
    capture::UsbCapture _capture;
    std::function<void(int)> _received;
    std::function<void(int, std::size_t)> _delivered;
    std::unique_ptr<TracingTransport> _transport;
    std::unique_ptr<usbhalhost::HostSession> _session;
    std::string _reason;
    Clock::time_point _waitBegan;
    bool _waitTold = false;
    int _faults = 0; // in a row, of a device that has not announced its maximum read size
};

#endif
