// SPDX-License-Identifier: MIT
#ifndef SIMNODE_NODE_H
#define SIMNODE_NODE_H

#include "Command.h"
#include "DeviceProtocol.h"
#include "LinkObserver.h"

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace simnode {

/// The simulated node: its state and every decision, without any I/O. The caller hands in what the
/// programs, the host and the control socket send, and the time; it takes out replies and
/// transfers. Not thread-safe.
class Node
{
public:
    using Time = std::chrono::steady_clock::time_point;
    /// Chosen by the caller of submit(); no two waiting calls may have the same.
    using CallId = simnode::CallId;

    /// The end of one system call.
    struct Reply
    {
        CallId call;
        DeviceReply header; ///< the call's result and errno, and the handle after an open
        std::string data;   ///< the bytes of a read
    };

    /// Read and write time-out of a new descriptor.
    static constexpr std::uint32_t defaultTimeout = 2000; // ms

    /// `timeoutIsError` chooses what a read returns after its time-out: -1 with ETIMEDOUT, or 0.
    /// `observer`, if any, is told of all transfers; it must outlive the node.
    explicit Node(bool timeoutIsError = false, LinkObserver *observer = nullptr);

    // -- device side

    /// Takes in one system call; its reply comes out of takeReplies() now, later or never.
    /// `data` holds the bytes of a write.
    void submit(CallId call, const DeviceRequest &request, const std::string &data, Time now);
    /// The calling thread no longer waits: nothing more happens for this call.
    void abandon(CallId call);
    /// The last copy of the descriptor was closed. Calls that are still waiting go on.
    void release(std::uint32_t handle);
    /// Whether a read on this descriptor would get a transfer at once.
    bool isReadable(std::uint32_t handle) const;
    /// Takes the replies of all calls that have ended since the last call.
    std::vector<Reply> takeReplies();

    // -- host side

    /// Whether the cable is in, so that a host may come.
    bool acceptsHost() const { return _cableIn; }
    /// Whether a host has arrived and not left; false once the cable is pulled.
    bool hostConnected() const { return _hostConnected; }
    /// A host has connected; to be called only while acceptsHost() and without another host.
    void hostArrived() { _hostConnected = true; }
    /// Drops all transfers that the device has not read.
    void hostLeft();
    /// Whether there is room for one more transfer of the host.
    bool takesTransfers() const;
    /// Takes in one transfer of the host and serves waiting reads, after the latency where one is
    /// set; an empty transfer is ignored.
    void transferFromHost(const std::string &transfer, Time now);
    /// The next transfer to the host, or null; it stays until hostTookTransfer() or its time-out.
    const std::string *transferForHost(Time now) const;
    /// Ends the write of the transfer that transferForHost() returned.
    void hostTookTransfer();

    // -- control and time

    /// Carries out one command and returns its answer: "ok", "ok <text>" or "error: <why>".
    std::string execute(const Command &command, Time now);
    /// Ends the calls whose time is over, and delivers the transfers whose latency is.
    void advance(Time now);
    /// When advance() has something to do next; nothing while nothing waits for a time.
    std::optional<Time> nextDeadline() const;

private:
    // What the next calls of one kind meet.
    struct FaultPlan
    {
        Verb fault = Verb::Ok;
        int error = 0;
        std::uint32_t bytes = 0;
        std::uint32_t calls = 0; // 0: until further notice

        FaultPlan next();
    };

    struct Descriptor
    {
        std::uint32_t flags;
        std::uint32_t readTimeout = defaultTimeout;
        std::uint32_t writeTimeout = defaultTimeout;
    };

    struct WaitingRead
    {
        CallId call;
        std::size_t size;
        Time deadline;
        bool silent;
    };

    // In transfers, `onTheWayUntil` holds nothing once its time has come.
    struct WaitingWrite
    {
        CallId call;
        std::string transfer;
        Time deadline;
        std::optional<Time> onTheWayUntil;
    };

    struct UnreadTransfer
    {
        std::string bytes;
        std::size_t sent; // in so many transfers of the host
        std::optional<Time> onTheWayUntil;
    };

    struct Trigger
    {
        Call call;
        std::uint32_t remaining;
        Command command;
    };

    struct Counters
    {
        std::uint64_t opens = 0;
        std::uint64_t reads = 0;
        std::uint64_t writes = 0;
    };

    void answer(CallId call, std::int64_t result, std::string data = {}, std::uint32_t handle = 0);
    void refuse(CallId call, int error);
    void submitLook(CallId call);
    void submitOpen(CallId call, const DeviceRequest &request, Time now);
    void submitRead(CallId call, const Descriptor &descriptor, std::size_t size, Time now);
    void submitWrite(CallId call, const Descriptor &descriptor, const std::string &data, Time now);
    void submitIoctl(CallId call, Descriptor &descriptor, const DeviceRequest &request, Time now);
    void submitClose(CallId call, Time now);
    void submitToDescriptor(CallId call, const DeviceRequest &request, const std::string &data,
                            Time now);
    void runTriggers(Call call, Time now);
    void serveReads();
    bool hasArrivedTransfer() const;
    std::optional<Time> arrivalOf(Time sent) const;
    void queueTransfer(std::string bytes, std::size_t sent, Time now);
    void queueMerged(Time now);
    void dropTransfers();
    std::string takePiece(std::size_t size);
    void startMerge(std::uint32_t transfers, Time now);
    std::string inject(const std::string &transfer, Time now);
    std::string capture(const std::string &path);
    void setCable(bool in);
    void endJourneys(Time now);
    void endReads(Time now);
    void endWrites(Time now);
    void reset();
    std::string status() const;

    std::map<std::uint32_t, Descriptor> _descriptors;
    std::vector<Reply> _replies;
    std::deque<WaitingRead> _waitingReads;
    std::deque<WaitingWrite> _waitingWrites;

    std::deque<UnreadTransfer> _transfers; // from the host
    std::size_t _readOffset = 0;           // into the first of them
    std::string _merged;
    std::size_t _mergedTransfers = 0;
    std::uint32_t _toMerge = 0;
    std::uint32_t _pieceSize = 0; // 0: whole transfers

    LinkObserver *_observer;
    bool _present = true;
    bool _cableIn = true;
    bool _hostConnected = false;
    bool _timeoutIsErrorAtStart;
    bool _timeoutIsError;
    std::chrono::milliseconds _latency{0};
    FaultPlan _openFaults;
    FaultPlan _readFaults;
    FaultPlan _writeFaults;
    FaultPlan _ioctlFaults;
    FaultPlan _closeFaults;
    std::vector<Trigger> _triggers;
    Counters _counters;
    std::uint32_t _readTimeout = defaultTimeout;
    std::uint32_t _writeTimeout = defaultTimeout;
};

} // namespace simnode

#endif
