// SPDX-License-Identifier: MIT
#ifndef SOAK_H
#define SOAK_H

#include "SoakLink.h"

#include <functional>
#include <vector>

struct SoakOptions
{
    double seconds = 0; ///< 0: until it is told to stop
    quint32 seed = 0;
    double statusPeriod = 60; ///< seconds
    bool isVirtual = false;
    bool withKills = true;
};

/**
 * Cycles of random traffic, most of them with a fault in it, and the checks that every port that
 * stayed open within one connection got its bytes: all, once, and no other port's.
 */
class Soak
{
public:
    explicit Soak(const SoakOptions &options);

    /** Runs until the time is over or the asker wants it; throws SoakFailure. */
    void run(const std::function<bool()> &isStopRequested);

private:
    struct Fault
    {
        const char *name;
        void (Soak::*play)();
    };

    static std::vector<Fault> faults(bool withKills);
    void runCycle();
    void sendOnAllPorts(int messages);
    void receiveSome();
    void finishTraffic();
    void expectPrefixes();

    // Faults that leave every connection as it is.
    void playNothing();
    void playSlowReader();
    void playFewFailures();
    void playShortWrite();
    // Faults that end a connection, or a port's.
    void playCommandsUntilLoss(const char *fault);
    void playFailedReads() { playCommandsUntilLoss("read fail EIO"); }
    void playFailedWrites() { playCommandsUntilLoss("write fail EPIPE"); }
    void playCableOut() { playCommandsUntilLoss("cable out"); }
    void playHostGone();
    void playClosedPort();
    void playStop();
    void playStopWithoutNode(const char *fault);
    void playNodeMissing() { playStopWithoutNode("node missing"); }
    void playOpenRefused() { playStopWithoutNode("open fail EBUSY"); }
    // Faults that the watchdog ends by a kill.
    void playStuckCall(const char *fault);
    void playStuckRead() { playStuckCall("read stuck 1"); }
    void playStuckWrite() { playStuckCall("write stuck 1"); }

    void printStatus() const;

    const SoakOptions _options;
    const std::vector<Fault> _faults;
    QRandomGenerator _random;
    SoakLink _link;
    QElapsedTimer _clock;
    const char *_fault = "begin";
    bool _inOrder = false;
    quint64 _cycles = 0;
    qint64 _bytes = 0;
    quint64 _kills = 0;
};

#endif
