// SPDX-License-Identifier: MIT
#include "CapturingTransport.h"

#include <cerrno>

using namespace usbhalhost;

namespace {

// Where the device is by now; a simulated node has no place of its own.
capture::UsbPlace placeOf(const DeviceName &name)
{
    const auto *selector = std::get_if<UsbSelector>(&name);
    if (selector == nullptr)
        return {};
    const std::vector<UsbDevice> devices = findUsbDevices(*selector);
    if (devices.empty())
        return {};
    const UsbDevice &device = devices.front();
    return {device.bus, device.address, device.endpointIn, device.endpointOut};
}

// The kernel tells a request that its host takes back after a time-out as ENOENT.
int errorOf(const TransferResult &result)
{
    switch (result.status) {
    case TransferResult::Status::TimedOut:
        return ENOENT;
    case TransferResult::Status::Closed:
        return ESHUTDOWN;
    case TransferResult::Status::Done:
        break;
    }
    return 0;
}

} // namespace

CapturingTransport::CapturingTransport(const DeviceName &name, capture::UsbCapture &capture)
    : _name(name), _capture(capture), _transport(newTransport(name))
{
}

TransferResult CapturingTransport::connect()
{
    TransferResult result = _transport->connect();
    if (result.status == TransferResult::Status::Done)
        _capture.setPlace(placeOf(_name));
    return result;
}

void CapturingTransport::close()
{
    _transport->close();
}

bool CapturingTransport::isConnected() const
{
    return _transport->isConnected();
}

std::size_t CapturingTransport::maxTransferSize() const
{
    return _transport->maxTransferSize();
}

TransferResult CapturingTransport::send(std::string_view transfer,
                                        std::chrono::milliseconds timeout)
{
    const capture::UsbRequest request = _capture.submitOut(transfer);
    TransferResult result = _transport->send(transfer, timeout);
    const int error = errorOf(result);
    _capture.completeOut(request, error, error == 0 ? transfer.size() : 0);
    return result;
}

TransferResult CapturingTransport::receive(std::string &transfer, std::chrono::milliseconds timeout)
{
    const capture::UsbRequest request = _capture.submitIn(maxTransferSize());
    TransferResult result = _transport->receive(transfer, timeout);
    const int error = errorOf(result);
    _capture.completeIn(request, error, error == 0 ? std::string_view(transfer) : "");
    return result;
}
