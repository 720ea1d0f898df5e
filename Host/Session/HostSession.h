// SPDX-License-Identifier: MIT
#ifndef USBHALHOST_HOSTSESSION_H
#define USBHALHOST_HOSTSESSION_H

#include "MessageTransport.h"
#include "Protocol.h"
#include "UsbHalHostExport.h"

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace usbhalhost {

/** Time limits of a HostSession. */
struct SessionTimeouts
{
    /** Longest wait of one step() for the device to take a transfer, and again for its answer. */
    std::chrono::milliseconds step{500};
    /** Silent steps in a row after which a transfer counts as lost and the device is asked again.
     */
    unsigned silentSteps = 4;
};

/**
 * The host's side of the protocol over one transport: writes, then reads, strictly in turn.
 *
 * Ports are served in rotation. One transfer carries as many data messages as fit into the device's
 * maximum read size; a message is never split over two transfers, and a control message always
 * travels alone. The session has no thread and no lock: all calls come from one thread at a time,
 * the handlers run inside step() and may call back into the session, but not step() itself.
 */
class USBHALHOST_EXPORT HostSession
{
public:
    /** What step() tells its caller on the way; each handler may be left empty. */
    struct Handlers
    {
        /** Bytes of this port wait in received(). */
        std::function<void(int port)> bytesReceived;
        /** The device answered a transfer that carried this many payload bytes of the port. */
        std::function<void(int port, std::size_t bytes)> bytesDelivered;
        /** The device asked to delay writes (true) or allowed them again (false). */
        std::function<void(bool delayed)> delayChanged;
        /** The device sent something malformed or left a transfer unanswered; text says what. */
        std::function<void(const std::string &text)> faultSeen;
    };

    enum class StepResult {
        Exchanged, ///< the device answered
        Silent,    ///< nothing came within the step's time; calling step() again goes on waiting
        Closed     ///< the transport is closed, see closeReason(); restart() after a reconnect
    };

    /** Does nothing on the transport, which must outlive the session. Time-outs are in ms. */
    explicit HostSession(MessageTransport &transport, SessionTimeouts timeouts = {});
    ~HostSession();
    HostSession(const HostSession &) = delete;
    HostSession &operator=(const HostSession &) = delete;

    /** Replaces all handlers; not to be called by a handler, which would destroy itself. */
    void setHandlers(Handlers handlers);

    /**
     * Begins anew, to be called after a connect: drops all queued bytes of both directions, as the
     * device does when it loses the link, and forgets what the device has announced.
     */
    void restart();

    /** Queues bytes for a port. Returns false, queueing nothing, for a port outside of 0 to 9999.
     */
    bool send(int port, std::string_view bytes);

    /**
     * Queues the announcement that the port was reopened, ahead of bytes that are still queued for
     * it. Returns false for a port outside of 0 to 9999.
     */
    bool announceReopened(int port);

    /** Bytes queued for a port and not yet taken by the transport; 0 for a port without any. */
    std::size_t pendingBytes(int port) const;

    /** Takes all bytes received for a port so far; empty when there are none. */
    std::string received(int port);

    /**
     * One write, unless an answer is still awaited, and one read. Waits for each at most
     * SessionTimeouts::step ms.
     */
    StepResult step();

    /**
     * One read that does not wait, and no write: for a caller that holds the device back, and wants
     * to see that the link is lost meanwhile. Silent when there is nothing, which does not count.
     */
    StepResult listen();

    /**
     * Whether the device answers: false after restart() and after a transfer that counts as lost,
     * true from the next answer on. No data is sent while it is false.
     */
    bool isEstablished() const;

    /** Whether the device has asked to delay writes. */
    bool isDelayed() const;

    /** Whether the device has announced its maximum read size since the last restart(). */
    bool isMaxWriteSizeKnown() const;

    /**
     * Largest transfer to the device in bytes: as announced, as far as the transport carries it; a
     * cautious default before the announcement.
     */
    std::size_t maxWriteSize() const;

    /** Why the transport is closed; empty while no step() has returned Closed. */
    const std::string &closeReason() const;

private:
    struct USBHALHOST_LOCAL Private;
    std::unique_ptr<Private> _private;
};

} // namespace usbhalhost

#endif
