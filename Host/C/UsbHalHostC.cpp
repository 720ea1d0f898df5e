// SPDX-License-Identifier: MIT
#include "UsbHalHostC.h"

#include "DeviceName.h"
#include "DeviceThread.h"
#include "Protocol.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <string>
#include <variant>

using namespace usbhalhost;

struct usbhal_device
{
    explicit usbhal_device(const DeviceName &name) : thread(newTransport(name)) {}
    DeviceThread thread;
};

namespace {

constexpr double longestTime = 86400.0 * 365;

DeviceThread::Clock::time_point after(double seconds)
{
    const std::chrono::duration<double> time(std::clamp(seconds, 0.0, longestTime));
    return DeviceThread::Clock::now() +
           std::chrono::duration_cast<DeviceThread::Clock::duration>(time);
}

int resultOf(DeviceThread::Outcome outcome)
{
    switch (outcome) {
    case DeviceThread::Outcome::Done:
        return usbhal_done;
    case DeviceThread::Outcome::TimedOut:
        return usbhal_timed_out;
    case DeviceThread::Outcome::NotOpen:
        return usbhal_not_open;
    case DeviceThread::Outcome::Lost:
        return usbhal_lost;
    case DeviceThread::Outcome::Failed:
        break;
    }
    return usbhal_failed;
}

bool isPort(int port)
{
    return port >= 0 && port <= maxPort;
}

void copyText(const std::string &from, char *to, size_t size)
{
    if (size > 0)
        to[from.copy(to, size - 1)] = '\0';
}

} // namespace

usbhal_device *usbhal_open(const char *name, char *text, size_t size)
{
    const auto parsed = parseDeviceName(name);
    if (const auto *fault = std::get_if<DeviceNameFault>(&parsed)) {
        copyText(fault->text, text, size);
        return nullptr;
    }
    return new usbhal_device(std::get<DeviceName>(parsed));
}

void usbhal_close(usbhal_device *device)
{
    delete device;
}

int usbhal_wait(usbhal_device *device, int connected, double seconds)
{
    return resultOf(device->thread.waitConnected(connected != 0, after(seconds)));
}

int usbhal_is_connected(usbhal_device *device)
{
    return device->thread.isConnected() ? 1 : 0;
}

void usbhal_reason(usbhal_device *device, char *text, size_t size)
{
    copyText(device->thread.reason(), text, size);
}

int usbhal_open_port(usbhal_device *device, int port)
{
    if (!isPort(port))
        return usbhal_wrong;
    device->thread.openPort(port);
    return usbhal_done;
}

int usbhal_close_port(usbhal_device *device, int port)
{
    if (!isPort(port))
        return usbhal_wrong;
    device->thread.closePort(port);
    return usbhal_done;
}

int usbhal_write(usbhal_device *device, int port, const void *bytes, size_t size, double seconds)
{
    if (!isPort(port))
        return usbhal_wrong;
    const std::string_view view(static_cast<const char *>(bytes), size);
    return resultOf(device->thread.write(port, view, after(seconds)));
}

long usbhal_read(usbhal_device *device, int port, void *bytes, size_t size, double seconds)
{
    if (!isPort(port))
        return usbhal_wrong;
    std::string read;
    const auto outcome = device->thread.read(port, size, after(seconds), read);
    if (outcome != DeviceThread::Outcome::Done)
        return resultOf(outcome);
    std::memcpy(bytes, read.data(), read.size());
    return static_cast<long>(read.size());
}
