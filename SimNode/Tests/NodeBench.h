// SPDX-License-Identifier: MIT
#ifndef SIMNODE_NODEBENCH_H
#define SIMNODE_NODEBENCH_H

#include "Node.h"

#include <fcntl.h>
#include <map>
#include <utility>

namespace simnode {

constexpr std::uint32_t readWrite = O_RDWR;

// What the program sees: the call's result, and errno where that is -1.
using Outcome = std::pair<int, int>;

inline Outcome outcome(const Node::Reply &reply)
{
    return {reply.header.result, reply.header.error};
}

/// A node with the one descriptor that most tests need, and the time in their hands.
class Bench
{
public:
    explicit Bench(bool timeoutIsError = false, LinkObserver *observer = nullptr)
        : node(timeoutIsError, observer)
    {
        handle = open().header.handle;
    }

    Node::Reply open(std::uint32_t flags = readWrite)
    {
        return replyTo(submit({protocolVersion, Call::Open, ++_lastHandle, flags, 0}));
    }

    Node::CallId submit(const DeviceRequest &request, const std::string &data = {})
    {
        node.submit(++_lastCall, request, data, now);
        return _lastCall;
    }

    Node::CallId read(std::uint32_t size = 100)
    {
        return submit({protocolVersion, Call::Read, handle, size, 0});
    }

    Node::CallId write(const std::string &data)
    {
        return submit({protocolVersion, Call::Write, handle, 0, 0}, data);
    }

    Node::CallId ioctl(std::uint32_t request, std::uint32_t value)
    {
        return submit({protocolVersion, Call::Ioctl, handle, request, value});
    }

    Node::CallId close() { return submit({protocolVersion, Call::Close, handle, 0, 0}); }

    void pass(std::chrono::milliseconds time)
    {
        now += time;
        node.advance(now);
    }

    bool hasReplyTo(Node::CallId call)
    {
        collect();
        return _replies.count(call) != 0;
    }

    // The reply's call is 0 if there is none.
    Node::Reply replyTo(Node::CallId call)
    {
        return hasReplyTo(call) ? _replies.at(call) : Node::Reply{0, {-2, 0, 0, 0}, {}};
    }

    std::string command(const char *line) { return node.execute(*parseCommand(line).command, now); }

    void transferFromHost(const std::string &transfer) { node.transferFromHost(transfer, now); }

    std::string takeTransfer()
    {
        const std::string *transfer = node.transferForHost(now);
        if (transfer == nullptr)
            return "(none)";
        const std::string taken = *transfer;
        node.hostTookTransfer();
        return taken;
    }

    Node node;
    Node::Time now{};
    std::uint32_t handle = 0;

private:
    void collect()
    {
        for (const Node::Reply &reply : node.takeReplies())
            _replies[reply.call] = reply;
    }

    Node::CallId _lastCall = 0;
    std::uint32_t _lastHandle = 100;
    std::map<Node::CallId, Node::Reply> _replies;
};

} // namespace simnode

#endif
