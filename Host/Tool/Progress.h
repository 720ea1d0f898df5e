// SPDX-License-Identifier: MIT
#ifndef USBHAL_PROGRESS_H
#define USBHAL_PROGRESS_H

#include <chrono>
#include <cstdint>
#include <optional>

/** One line on standard error that is redrawn, when that is a terminal; nothing otherwise. */
class Progress
{
public:
    /** Counts from now on, towards a total where there is one. */
    explicit Progress(std::optional<std::uint64_t> total);
    /** Ends the line, if there is one. */
    ~Progress();
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;

    void show(std::uint64_t bytes);

private:
    using Clock = std::chrono::steady_clock;

    std::optional<std::uint64_t> _total;
    bool _isTerminal;
    bool _shown = false;
    Clock::time_point _began;
    Clock::time_point _next;
};

#endif
