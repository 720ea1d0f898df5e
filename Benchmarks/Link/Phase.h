// SPDX-License-Identifier: MIT
#ifndef PHASE_H
#define PHASE_H

#include "HostProcess.h"

#include <functional>
#include <string>
#include <vector>

/** What this process has used so far: all of it, and its threads other than the main one. */
struct Usage
{
    double processTime = 0; // ns
    double threadTime = 0;
    double processSwitches = 0;
    double threadSwitches = 0;

    /** To be called in the main thread. */
    static Usage soFar();
};

/** Lets the main thread's event loop run for that time, ms. */
void spin(int msecs);

/** Does so until the condition holds; ends the program when that takes longer than a minute. */
void spinUntil(const char *what, const std::function<bool()> &condition);

/**
 * A stretch of exchanges and what the device's process used in it. The figures of a phase are named
 * after it, candidate first: "link.<candidate>.<what>".
 */
class Phase
{
public:
    /** Runs the event loop for about so many cycles. */
    Phase(const HostProcess &host, int cycles);

    /** Mean and 99th percentile of the cycle, ns, as the host saw it. */
    void printCycles(const std::string &candidate) const;

    /** Processor time (ns) and context switches for each cycle. */
    void printUsage(const std::string &candidate) const;

    double meanCycle() const;

    /** Payload bytes in a second. */
    double rateToDevice() const;
    double rateToHost() const;

private:
    double rate(qint64 HostProcess::Exchange::*bytes) const;

    std::vector<HostProcess::Exchange> _exchanges;
    Usage _before;
    Usage _after;
};

#endif
