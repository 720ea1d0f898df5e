// SPDX-License-Identifier: MIT
#ifndef USBHAL_READERWAIT_H
#define USBHAL_READERWAIT_H

#include "Streams.h"

#include <chrono>
#include <string>

/** The wait for a reader that takes nothing, which is told once. */
class ReaderWait
{
public:
    /** Writes to the reader for half a second at most. A failure to write is a Failure. */
    void waitFor(Output &output, const std::string &reader);
    /** The reader has taken enough: the next wait is a new one. */
    void end() { _waits = false; }

private:
    using Clock = std::chrono::steady_clock;

    Clock::time_point _began;
    bool _waits = false;
    bool _told = false;
};

#endif
