// SPDX-License-Identifier: MIT
#ifndef SIMNODE_LINKOBSERVER_H
#define SIMNODE_LINKOBSERVER_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace simnode {

/// One system call of a program on the node.
using CallId = std::uint64_t;

/// Is told of what happens on the cable of the simulated node. This one does not care.
class LinkObserver
{
public:
    virtual ~LinkObserver() = default;

    /// Writes what comes into a capture from now on, or no more with an empty path. Returns why
    /// that cannot be, or why the last capture has ended before its time; else nothing.
    virtual std::string capture(const std::string & /*path*/)
    {
        return "nobody writes captures of this node";
    }

    /// The host has sent a transfer.
    virtual void hostSent(const std::string & /*transfer*/) {}
    /// The device has read the oldest unread transfers of the host, so many of them.
    virtual void deviceRead(std::size_t /*transfers*/) {}
    /// What the device has not read is gone.
    virtual void unreadDropped() {}
    /// The device writes.
    virtual void writeBegan(CallId /*call*/) {}
    /// Nobody waits for the write any more, and `transfer` has reached the host. `error` is the
    /// call's errno, or 0. Any call that is no write which still waits has no meaning here.
    virtual void writeEnded(CallId /*call*/, int /*error*/, const std::string & /*transfer*/) {}
};

} // namespace simnode

#endif
