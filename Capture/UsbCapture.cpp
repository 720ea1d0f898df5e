// SPDX-License-Identifier: MIT
#include "UsbCapture.h"

#include <cerrno>
#include <pcap/pcap.h>
#include <pcap/usb.h>

namespace capture {

namespace {

constexpr std::uint32_t flagIn = 0x0200; // URB_DIR_IN of the kernel
constexpr char noSetup = '-';

} // namespace

struct UsbCapture::Event
{
    std::uint8_t type;
    std::uint64_t id;
    std::uint8_t endpoint;
    int status;
    std::size_t size; // asked for, or in the end moved
    char noData;      // what stands for bytes that the other record of the request has
};

std::string UsbCapture::start(const std::string &path, std::uint64_t maxSize)
{
    stop();
    _file.emplace(path, maxSize, DLT_USB_LINUX_MMAPPED);
    std::string error = _file->error();
    if (!error.empty())
        stop();
    return error;
}

UsbRequest UsbCapture::submitOut(std::string_view transfer)
{
    const UsbRequest request = {++_requests, transfer.size()};
    _write({URB_SUBMIT, request.id, _place.out, -EINPROGRESS, request.size, 0}, transfer);
    return request;
}

void UsbCapture::completeOut(const UsbRequest &request, int error, std::size_t taken)
{
    _write({URB_COMPLETE, request.id, _place.out, -error, taken, '>'}, {});
}

UsbRequest UsbCapture::submitIn(std::size_t bufferSize)
{
    const UsbRequest request = {++_requests, bufferSize};
    _write({URB_SUBMIT, request.id, _place.in, -EINPROGRESS, request.size, '<'}, {});
    return request;
}

void UsbCapture::completeIn(const UsbRequest &request, int error, std::string_view transfer)
{
    _write({URB_COMPLETE, request.id, _place.in, -error, transfer.size(), 0}, transfer);
}

// A record of usbmon: its header, and what of the transfer this event knows.
std::string UsbCapture::_packetOf(const Event &event, CaptureFile::Time time,
                                  std::string_view bytes) const
{
    using namespace std::chrono;
    const auto now = duration_cast<microseconds>(time.time_since_epoch()).count();
    pcap_usb_header_mmapped header = {};
    header.id = event.id;
    header.event_type = event.type;
    header.transfer_type = URB_BULK;
    header.endpoint_number = event.endpoint;
    header.device_address = _place.device;
    header.bus_id = _place.bus;
    header.setup_flag = noSetup;
    header.data_flag = event.noData;
    header.ts_sec = now / 1000000;
    header.ts_usec = static_cast<std::int32_t>(now % 1000000);
    header.status = event.status;
    header.urb_len = static_cast<std::uint32_t>(event.size);
    header.data_len = static_cast<std::uint32_t>(bytes.size());
    header.xfer_flags = (event.endpoint & URB_TRANSFER_IN) != 0 ? flagIn : 0;
    return std::string(reinterpret_cast<const char *>(&header), sizeof header).append(bytes);
}

void UsbCapture::_write(const Event &event, std::string_view bytes)
{
    if (!_file)
        return;
    const CaptureFile::Time now = std::chrono::system_clock::now();
    _file->write(now, _packetOf(event, now, bytes));
    if (_file->error().empty())
        return;
    _tell(_file->error());
    stop();
}

} // namespace capture
