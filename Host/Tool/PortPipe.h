// SPDX-License-Identifier: MIT
#ifndef USBHAL_PORTPIPE_H
#define USBHAL_PORTPIPE_H

#include "Options.h"
#include "PortLink.h"
#include "Progress.h"
#include "ReaderWait.h"
#include "Streams.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

/**
 * Moves an input to a port of the device and what the port sends to an output. While the reader of
 * the output takes nothing, at most 1 MiB is kept and no turn is taken.
 */
class PortPipe
{
public:
    /** Opens input and output. Failure when that cannot be done. */
    PortPipe(const LinkOptions &link, PipeOptions options);

    /** Runs to the end. Failure for all that went wrong on the way, lost bytes among it. */
    void run();

private:
    using Clock = std::chrono::steady_clock;

    bool _isOver() const;
    bool _isQuietFor(double seconds) const;
    void _turn();
    void _feed();
    void _receive(std::string bytes);
    void _noteDelivered(std::size_t bytes);
    void _noteSilence();
    void _countLoss();
    void _handleLoss();
    void _finish();

    PipeOptions _options;
    PortLink _link;
    std::unique_ptr<Input> _input;
    std::unique_ptr<Output> _output;
    std::unique_ptr<Progress> _progress;
    ReaderWait _readerWait;
    std::uint64_t _delivered = 0;
    std::uint64_t _received = 0;
    std::uint64_t _lost = 0;
    Clock::time_point _lastMoved;
    bool _complete = false; // the link is lost, and nothing with it
};

#endif
