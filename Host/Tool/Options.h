// SPDX-License-Identifier: MIT
#ifndef USBHAL_OPTIONS_H
#define USBHAL_OPTIONS_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/** What the user asks of every command. */
struct LinkOptions
{
    std::string device; ///< empty for the only one there is
    double wait = 10;   ///< seconds for a device to be there, and again for its answer
    bool trace = false;
    std::string capture = {};      ///< the path of a capture; empty for none
    std::uint64_t captureSize = 0; ///< bytes before another file begins; 0: as many as come
};

/** What the user asks of a command that moves bytes through one port. */
struct PipeOptions
{
    int port = 0;
    std::string input = {};  ///< a file or "-"; empty for none
    std::string output = {}; ///< a file or "-"; empty for none
    /** Ends so many seconds after the last byte, when the input has ended; 0 for at once. */
    double linger = 0;
    std::optional<std::uint64_t> bytes = {}; ///< ends when so many were received
    std::optional<double> idle = {};         ///< ends so many seconds after the last byte
    bool endsWithInput = true;               ///< what is received alone decides otherwise
    bool reconnect = false;
};

/** What the user asks of the command that forwards. */
struct ForwardOptions
{
    std::vector<std::string> forwards = {};
    bool hold = false; ///< keeps clients when the link is lost
    /** Ends a client so many seconds after the last byte, when its input has ended. */
    double linger = 0;
};

/** What the user asks of the command that measures. */
struct BenchOptions
{
    int port = 0;
    int count = 100;            ///< round trips
    std::size_t bytes = 500000; ///< of throughput
    bool asJson = false;
};

#endif
