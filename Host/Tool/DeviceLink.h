// SPDX-License-Identifier: MIT
#ifndef USBHAL_DEVICELINK_H
#define USBHAL_DEVICELINK_H

#include "DeviceName.h"
#include "HostSession.h"
#include "LinkCounters.h"
#include "Options.h"
#include "TracingTransport.h"

#include <UsbCapture.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
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

    /** What becomes of bytes; what is faulty is told by the link itself. To be set before open().
     */
    void setHandlers(std::function<void(int port, const std::string &bytes)> received,
                     std::function<void(int port, std::size_t bytes)> delivered);
    /** Another way to the device, tried first each time: when it works, there is no session. */
    void setDetour(std::function<bool()> detour);

    /**
     * What is done in place of sleeping while the device is waited for: at least twice a second,
     * and for so many ms.
     */
    void setPause(std::function<void(std::chrono::milliseconds)> pause);

    /** Waits for the device and its answer, as long as the options say. */
    void open();
    /** Waits for a device that was lost and its answer, until the end is asked for. */
    void reopen();
    /** One turn. False when the link is lost; reason() says why. */
    bool step();

    usbhalhost::HostSession &session() { return *_session; }
    const usbhalhost::HostSession &session() const { return *_session; }
    /** Where the device is: a name by which every program knows it. */
    const std::string &place() const { return _place; }
    const std::string &reason() const { return _reason; }
    const LinkCounters &counters() const { return _counters; }

private:
    using Clock = std::chrono::steady_clock;
    enum class Attempt { Done, NoDevice, NoAnswer };

    void _openWithin(std::chrono::duration<double> limit);
    Attempt _try(Clock::time_point limit);
    bool _connect();
    bool _establish(Clock::time_point limit);
    void _begin(const usbhalhost::DeviceName &name);
    std::unique_ptr<usbhalhost::DeviceTransport> _newTransport(const usbhalhost::DeviceName &name);
    void _noteReceived(int port);
    void _noteDelivered(int port, std::size_t bytes);
    void _noteDelay(bool delayed);
    void _noteFault(const std::string &text);
    void _waitFor(const std::string &what);

    LinkOptions _options;
    capture::UsbCapture _capture;
    std::function<void(int, const std::string &)> _received;
    std::function<void(int, std::size_t)> _delivered;
    std::function<void(std::chrono::milliseconds)> _pause;
    std::function<bool()> _detour;
    std::unique_ptr<TracingTransport> _transport;
    std::unique_ptr<usbhalhost::HostSession> _session;
    std::optional<usbhalhost::DeviceName> _name;
    std::string _place;
    std::string _reason;
    Clock::time_point _waitBegan;
    LinkCounters _counters;
    bool _waitTold = false;
    bool _wasOpen = false;
    int _faults = 0; // in a row, of a device that has not announced its maximum read size
};

#endif
