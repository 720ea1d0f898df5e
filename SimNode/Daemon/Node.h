// SPDX-License-Identifier: MIT
#ifndef SIMNODE_NODE_H
#define SIMNODE_NODE_H

#include "Command.h"
#include "DeviceProtocol.h"

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
    using CallId = std::uint64_t;

    /// The end of one system call.
    struct Reply
    {
        CallId call;
        DeviceReply header; ///< the call's result and errno, and the handle after an open
        std::string data;   ///< the bytes of a read
    };

    /// Read and write time-out of a new descriptor.
    static constexpr std::uint32_t defaultTimeout = 2000; // ms

    /// Handles are counted from `firstHandle`; it should differ from one daemon to the next, so
    /// that a descriptor left from the one before is told apart. `timeoutIsError` chooses what a
    /// read returns after its time-out: -1 with ETIMEDOUT, or 0.
    explicit Node(std::uint32_t firstHandle, bool timeoutIsError = false);

    // -- device side

    /// Takes in one system call; its reply comes out of takeReplies() now, later or never.
    /// `data` holds the bytes of a write.
    void submit(CallId call, const DeviceRequest &request, const std::string &data, Time now);
    /// The calling thread no longer waits: nothing more happens for this call.
    void abandon(CallId call);
    /// The descriptor was closed. Calls that are still waiting go on.
    void release(std::uint32_t handle);
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
    /// Takes in one transfer of the host and serves waiting reads; an empty one is ignored.
    void transferFromHost(const std::string &transfer);
    /// The next transfer to the host, or null; it stays until hostTookTransfer() or its time-out.
    const std::string *transferForHost() const;
    /// Ends the write of the transfer that transferForHost() returned.
    void hostTookTransfer();

    // -- control and time

    /// Carries out one command and returns its answer: "ok", "ok <text>" or "error: <why>".
    std::string execute(const Command &command);
    /// Ends the calls whose time is over.
    void advance(Time now);
    /// When advance() has something to do next; nothing while no call waits for a time-out.
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

    struct WaitingWrite
    {
        CallId call;
        std::string transfer;
        Time deadline;
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
    void submitOpen(CallId call, std::uint32_t flags);
    void submitRead(CallId call, const Descriptor &descriptor, std::size_t size, Time now);
    void submitWrite(CallId call, const Descriptor &descriptor, const std::string &data, Time now);
    void submitIoctl(CallId call, Descriptor &descriptor, const DeviceRequest &request);
    void submitToDescriptor(CallId call, const DeviceRequest &request, const std::string &data,
                            Time now);
    void runTriggers(Call call);
    void serveReads();
    std::string takePiece(std::size_t size);
    void startMerge(std::uint32_t transfers);
    std::string inject(const std::string &transfer);
    void setCable(bool in);
    void reset();
    std::string status() const;

    std::uint32_t _nextHandle;
    std::map<std::uint32_t, Descriptor> _descriptors;
    std::vector<Reply> _replies;
    std::deque<WaitingRead> _waitingReads;
    std::deque<WaitingWrite> _waitingWrites;

    std::deque<std::string> _transfers; // from the host, not yet read
    std::size_t _readOffset = 0;        // into the first of them
    std::string _merged;
    std::uint32_t _toMerge = 0;
    std::uint32_t _pieceSize = 0; // 0: whole transfers

    bool _present = true;
    bool _cableIn = true;
    bool _hostConnected = false;
    bool _timeoutIsErrorAtStart;
    bool _timeoutIsError;
    int _openError = 0;
    FaultPlan _readFaults;
    FaultPlan _writeFaults;
    std::vector<Trigger> _triggers;
    Counters _counters;
    std::uint32_t _readTimeout = defaultTimeout;
    std::uint32_t _writeTimeout = defaultTimeout;
};

} // namespace simnode

#endif
