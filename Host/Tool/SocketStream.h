// SPDX-License-Identifier: MIT
#ifndef USBHAL_SOCKETSTREAM_H
#define USBHAL_SOCKETSTREAM_H

#include "ListeningSocket.h"
#include "ReaderWait.h"
#include "Streams.h"

#include <chrono>
#include <functional>
#include <string>

/** A connection that never waits. What breaks on it concerns it alone: it is broken from then on.
 */
class SocketStream
{
public:
    /** Takes the connection over. A Failure says that there is no descriptor left. */
    explicit SocketStream(const Connection &connection);
    virtual ~SocketStream() = default;
    SocketStream(const SocketStream &) = delete;
    SocketStream &operator=(const SocketStream &) = delete;

    /** What can be read at once, at most so many bytes. */
    std::string take(std::size_t most);
    /** Waits for bytes or the end, so long at most. */
    void waitForBytes(std::chrono::milliseconds limit);
    /** Takes bytes over for the other end. */
    virtual void put(const std::string &bytes);
    /** The device has answered so many bytes of those that were taken. */
    virtual void noteDelivered(std::size_t) {}
    /** Whether the other end is a command of this program, which counts its losses by itself. */
    virtual bool isFramed() const { return false; }
    /** Writes what can be written at once. */
    void flush();
    /** Waits for the other end to read. */
    void waitFor(ReaderWait &wait);

    bool hasEnded() const { return _input.isEnded(); }
    /** Whether it will have ended when all is taken. */
    bool endComes() const { return _input.endComes(); }
    bool isFull() const { return !_broken && _output.isFull(); }
    bool isEmpty() const { return _output.isEmpty(); }
    /** Bytes that are kept for the other end. */
    std::size_t size() const { return _output.size(); }
    bool isBroken() const { return _broken; }
    const std::string &name() const { return _input.name(); }

private:
    void _try(const std::function<void()> &action);

    Input _input;
    Output _output;
    bool _broken = false;
};

#endif
