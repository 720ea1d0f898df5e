// SPDX-License-Identifier: MIT
#ifndef USBHAL_FRAMEDSTREAM_H
#define USBHAL_FRAMEDSTREAM_H

#include "SocketStream.h"

#include <cstddef>
#include <functional>
#include <string>

/**
 * A connection of another command of this program. Towards it go frames: "D 3\n" and three bytes of
 * the device, or "A 3\n" when the device has answered three bytes. What it sends is not framed.
 */
class FramedStream : public SocketStream
{
public:
    using SocketStream::SocketStream;

    /** Takes a line over as it stands. */
    void putLine(const std::string &line) { SocketStream::put(line + '\n'); }
    void put(const std::string &bytes) override;
    void noteDelivered(std::size_t bytes) override;
    bool isFramed() const override { return true; }
};

/** Cuts what comes on such a connection into lines and frames. */
class FrameCutter
{
public:
    struct Handlers
    {
        std::function<void(const std::string &bytes)> received;
        std::function<void(std::size_t bytes)> delivered;
    };

    void append(const std::string &bytes) { _bytes += bytes; }
    std::size_t size() const { return _bytes.size(); }

    /** Takes a whole line, without its end. False when there is none yet. */
    bool takeLine(std::string &line);
    /** Takes a whole frame. False when there is none yet, or what there is is no frame. */
    bool takeFrame(const Handlers &handlers);

private:
    std::string _bytes;
};

#endif
