// SPDX-License-Identifier: MIT
#ifndef USBHAL_MONITORVIEW_H
#define USBHAL_MONITORVIEW_H

#include "LinkCounters.h"

#include <chrono>

/** Shows a link on standard output: a table that is redrawn, or lines of JSON. */
class MonitorView
{
public:
    /** A table where standard output is a terminal, unless JSON is asked for. */
    explicit MonitorView(bool asJson);

    /** Shows the counters of now, with the rates since the last time. */
    void show(const LinkCounters &counters);
    /** Shows them once a second. */
    void showWhenDue(const LinkCounters &counters);

private:
    using Clock = std::chrono::steady_clock;

    double _perSecond(std::uint64_t now, std::uint64_t before) const;
    void _printJson(const LinkCounters &counters) const;
    void _printTable(const LinkCounters &counters) const;

    bool _asJson;
    LinkCounters _before;
    Clock::time_point _last;
    double _seconds = 0; // since the last time
};

#endif
