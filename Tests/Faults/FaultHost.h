// SPDX-License-Identifier: MIT
#ifndef FAULTHOST_H
#define FAULTHOST_H

#include "TrafficLedger.h"

#include <HostSession.h>
#include <SeqPacketTransport.h>

#include <atomic>
#include <thread>

/**
 * A host that comes back whenever it can and, when it is let, keeps one record for each port on its
 * way. It exchanges transfers in a thread of its own.
 */
class FaultHost
{
public:
    /** Begins unplugged. */
    FaultHost(const std::string &nodeFolder, const QList<int> &ports, TrafficLedger &ledger);
    ~FaultHost();
    FaultHost(const FaultHost &) = delete;
    FaultHost &operator=(const FaultHost &) = delete;

    void setPlugged(bool plugged) { _plugged = plugged; }
    /** Size of the records to a port, 0: none. */
    void setRecordSize(int port, int size) { _sizes[port] = size; }

    /** Whether the device has announced how much it reads at once. */
    bool knowsReadSize() const { return _knowsReadSize; }
    /** Whether nothing is queued for the device. */
    bool hasSentAll() const { return _sentAll; }
    bool isConnected() const { return _connected; }

private:
    void run();
    void exchange();
    void queueRecords();
    void take(int port);

    static constexpr size_t maxPorts = 10;

    const QList<int> _ports;
    TrafficLedger &_ledger;
    usbhalhost::SeqPacketTransport _transport;
    usbhalhost::HostSession _session;
    std::atomic<int> _sizes[maxPorts] = {};
    std::atomic<int> _connection{0};
    std::atomic<bool> _plugged{false};
    std::atomic<bool> _connected{false};
    std::atomic<bool> _sentAll{true};
    std::atomic<bool> _knowsReadSize{false};
    std::atomic<bool> _ending{false};
    std::thread _thread;
};

#endif
