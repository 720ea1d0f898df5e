// SPDX-License-Identifier: MIT
#ifndef USBHAL_LINKCOUNTERS_H
#define USBHAL_LINKCOUNTERS_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>

/** Payload bytes of one port since the program began. */
struct PortCounters
{
    std::uint64_t received = 0;  ///< from the device
    std::uint64_t delivered = 0; ///< answered by the device
};

/** What has happened on a link since the program began. */
struct LinkCounters
{
    bool isUp = false;
    std::uint64_t turns = 0;  ///< transfers of the device
    std::uint64_t delays = 0; ///< requests of the device to wait
    std::uint64_t faults = 0;
    std::uint64_t losses = 0; ///< of the link
    std::map<int, PortCounters> ports = {};
};

/** The counters as a line of JSON, without its end. */
std::string lineOf(const LinkCounters &counters);

/** Reads such a line; empty for anything else. */
std::optional<LinkCounters> countersOf(const std::string &line);

#endif
