// SPDX-License-Identifier: MIT
#ifndef USBHAL_REMOTEPORT_H
#define USBHAL_REMOTEPORT_H

#include "ControlChannel.h"
#include "FramedStream.h"

#include <cstddef>
#include <memory>
#include <string>

/** A port of a device that a running `usbhal forward` of this user has. */
class RemotePort
{
public:
    /** Asks for the port. Failure when it is in use. */
    RemotePort(RunningForward forward, int port);

    /** Moves what can be moved, or waits a little. False when the forward has ended the connection.
     */
    bool step(const FrameCutter::Handlers &handlers);
    void send(const std::string &bytes) { _forward.stream->put(bytes); }
    /** Bytes that the forward has not taken yet. */
    std::size_t unsent() const { return _forward.stream->size(); }
    std::size_t largestTransfer() const { return _largestTransfer; }
    int process() const { return _forward.process; }

private:
    RunningForward _forward;
    std::size_t _largestTransfer;
};

#endif
