// SPDX-License-Identifier: MIT
#ifndef USBHAL_CONTROLCHANNEL_H
#define USBHAL_CONTROLCHANNEL_H

#include "FramedStream.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

/**
 * Commands reach a device that a running `usbhal forward` of the same user has through a UNIX
 * socket of that program. It greets with a line of JSON, {"process": 12, "place": "sim:/tmp/node"},
 * and is asked by one:
 * {"user": "usbhal cat (process 34)", "port": 3} or {"monitor": true}. It answers {"largest":
 * 10000} and frames, or {"error": "..."} and the end.
 */

/** The folder of these sockets, which is made if it is missing. Failure when others may use it. */
std::string makeControlFolder();

/** A program that forwards, and a connection to it. */
struct RunningForward
{
    int process = 0;
    std::string place; ///< of its device; empty while it has none
    std::unique_ptr<SocketStream> stream;
    FrameCutter cutter = {};
};

/** The forwards of this user. Takes as long as they need to answer, a few seconds at most. */
std::vector<RunningForward> findForwards();

/** The forward that has the device at this place, if there is one. */
std::optional<RunningForward> findForward(const std::string &place);

/** Waits for the next line of a forward; nothing when it has ended or says nothing. */
std::optional<std::string> nextLine(RunningForward &forward);

/**
 * Waits for the answer to a line of JSON, and returns the number in it, which is not 0. Failure
 * when it refuses, or does not answer for a few seconds.
 */
std::size_t ask(RunningForward &forward, const std::string &request);

#endif
