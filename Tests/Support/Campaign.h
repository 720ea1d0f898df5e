// SPDX-License-Identifier: MIT
#ifndef CAMPAIGN_H
#define CAMPAIGN_H

#include <QtGlobal>

#include <iostream>
#include <limits>
#include <string>

/** What the long-running tests share: their size, their seed and the figures that they report. */
namespace Campaign {

/** Whether a sanitizer watches: its runtime takes time, and memory of its own, which grows. */
#ifdef USBHAL_SANITIZED
constexpr bool isSanitized = true;
#else
constexpr bool isSanitized = false;
#endif

/** What the resident memory may gain, kB: what is allowed, and anything under a sanitizer. */
constexpr long memoryLimit(long allowed)
{
    return isSanitized ? std::numeric_limits<long>::max() / 2 : allowed;
}

/**
 * That part of a full-sized campaign's count which this run does: the count divided by the
 * environment's USBHAL_SCALE (1: full size; 100 when it is not set), at least 1.
 */
quint64 scaled(quint64 fullCount);

/** USBHAL_SEED of the environment, else a new seed; printed, so that the run can be repeated. */
quint32 seed();

/**
 * Resident memory of this process, kB; where an emulator runs it, whose own memory grows, what the
 * heap has given out.
 */
long residentMemory();
/** Open file descriptors of this process. */
int openDescriptors();

/**
 * Adds a figure as a line of JSON, {"figure": what, "value": value}, to the file that the
 * environment's USBHAL_FIGURES names; without that does nothing. Several processes may share a
 * file. Ends the process where the file cannot be written.
 */
void recordFigure(const std::string &what, double value);

/** Prints a figure, and records it for the scripts that collect what programs count. */
template <typename Value>
void printFigure(const std::string &what, const Value &value)
{
    std::cout << what << ": " << value << std::endl;
    recordFigure(what, static_cast<double>(value));
}

} // namespace Campaign

#endif
