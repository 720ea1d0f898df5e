// SPDX-License-Identifier: MIT
#ifndef USBCAPTURE_H
#define USBCAPTURE_H

#include "CaptureFile.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace capture {

/** Where on USB the transfers take place. */
struct UsbPlace
{
    std::uint16_t bus = 1;
    std::uint8_t device = 2;
    std::uint8_t in = 0x81;  ///< address of the bulk endpoint towards the host
    std::uint8_t out = 0x01; ///< address of the bulk endpoint towards the device
};

/** What the host has asked for: one transfer. */
struct UsbRequest
{
    std::uint64_t id = 0;
    std::size_t size = 0; ///< of the transfer to the device, or of the buffer for the device's
};

/**
 * Bulk transfers, in a file as the kernel's usbmon would have them there: a record when the host
 * asks for a transfer and one when that has ended, with the time of the call. Without a file
 * nothing is written, but requests are counted all the same. Not thread-safe.
 */
class UsbCapture
{
public:
    /** How the end of a file before its time is told: one sentence. */
    using Tell = std::function<void(const std::string &text)>;

    explicit UsbCapture(Tell tell) : _tell(std::move(tell)) {}

    /**
     * Begins a file, see CaptureFile, in the place of the one until now. Returns why it cannot be,
     * and nothing when it can.
     */
    std::string start(const std::string &path, std::uint64_t maxSize);
    /** Ends the file, if there is one. */
    void stop() { _file.reset(); }
    /** The records from now on are of this place. */
    void setPlace(const UsbPlace &place) { _place = place; }

    /** The host sends a transfer. */
    UsbRequest submitOut(std::string_view transfer);
    /** The device has taken so many bytes of it; error is the errno of what went wrong, or 0. */
    void completeOut(const UsbRequest &request, int error, std::size_t taken);
    /** The host has a buffer ready for a transfer of the device. */
    UsbRequest submitIn(std::size_t bufferSize);
    /** This has come of it; error is the errno of what went wrong, or 0. */
    void completeIn(const UsbRequest &request, int error, std::string_view transfer);

private:
    struct Event;

    std::string _packetOf(const Event &event, CaptureFile::Time time, std::string_view bytes) const;
    void _write(const Event &event, std::string_view bytes);

    Tell _tell;
    std::optional<CaptureFile> _file;
    UsbPlace _place;
    std::uint64_t _requests = 0;
};

} // namespace capture

#endif
