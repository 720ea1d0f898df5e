// SPDX-License-Identifier: MIT
#ifndef USBHALHOST_HOSTPROGRAM_H
#define USBHALHOST_HOSTPROGRAM_H

#include "HostSession.h"
#include "SeqPacketTransport.h"

#include <chrono>
#include <cstddef>
#include <string>

namespace usbhalhost {

/** What the user asks of a HostProgram. */
struct HostOptions
{
    std::string node; ///< folder of the simulated node
    int port = 1;
    double linger = 1; ///< seconds without a byte, behind the end of the input, after which it ends
};

/**
 * A host for the shell: standard input goes to one port of the device, and what the device sends on
 * that port goes to standard output. What else happens is told on standard error.
 */
class HostProgram
{
public:
    explicit HostProgram(HostOptions options);

    /**
     * Runs until the end of the input or of the link, and returns whether the device took all that
     * was read.
     */
    bool run();

private:
    using Clock = std::chrono::steady_clock;

    bool _connect();
    void _takeInput();
    void _noteLoss();
    bool _isOver() const;
    void _print(int port);

    HostOptions _options;
    SeqPacketTransport _transport;
    HostSession _session;
    std::size_t _undelivered = 0; // bytes of the input that the device has not answered
    std::size_t _lost = 0;        // bytes of the input that it will never answer
    bool _inputEnded = false;
    Clock::time_point _lastMoved; // when a byte was read, taken or received
};

} // namespace usbhalhost

#endif
