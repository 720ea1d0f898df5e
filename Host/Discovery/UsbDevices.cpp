// SPDX-License-Identifier: MIT
#include "UsbDevices.h"

#include "Holders.h"
#include "UsbMatching.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <fstream>

namespace usbhalhost {

namespace usb {

namespace {

// The system's own record of a device, which everybody may read; asking the device takes
// permission.
std::string attributeOf(const std::string &busPath, const std::string &name)
{
    std::ifstream file("/sys/bus/usb/devices/" + busPath + "/" + name);
    std::string text;
    std::getline(file, text);
    return text;
}

bool isMeant(const UsbDevice &device, const UsbSelector &selector)
{
    return (!selector.vendor || *selector.vendor == device.vendor) &&
           (!selector.product || *selector.product == device.product) &&
           (selector.serial.empty() || selector.serial == device.serial) &&
           (selector.busPath.empty() || selector.busPath == device.busPath);
}

UsbDevice describe(libusb_device *device, const Interface &interface)
{
    libusb_device_descriptor descriptor{};
    libusb_get_device_descriptor(device, &descriptor);
    UsbDevice shown;
    shown.busPath = busPathOf(device);
    shown.vendor = descriptor.idVendor;
    shown.product = descriptor.idProduct;
    shown.serial = attributeOf(shown.busPath, "serial");
    shown.description = attributeOf(shown.busPath, "product");
    shown.speed = attributeOf(shown.busPath, "speed");
    shown.bus = libusb_get_bus_number(device);
    shown.address = libusb_get_device_address(device);
    shown.endpointIn = interface.in;
    shown.endpointOut = interface.out;
    return shown;
}

} // namespace

std::vector<Match> matchesOf(libusb_context *context, const UsbSelector &selector)
{
    std::vector<Match> matches;
    for (Device &device : devicesOf(context)) {
        const auto interface = interfaceOf(device.get());
        if (!interface)
            continue;
        UsbDevice shown = describe(device.get(), *interface);
        if (isMeant(shown, selector))
            matches.push_back({std::move(device), *interface, std::move(shown)});
    }
    std::sort(matches.begin(), matches.end(), [](const Match &left, const Match &right) {
        return left.shown.busPath < right.shown.busPath;
    });
    return matches;
}

std::string wordsFor(const UsbSelector &selector)
{
    std::string words = "a device";
    if (selector.vendor && selector.product) {
        std::array<char, 16> id{};
        std::snprintf(id.data(), id.size(), " %04x:%04x", unsigned{*selector.vendor},
                      unsigned{*selector.product});
        words += id.data();
    }
    if (!selector.serial.empty())
        words += " with the serial number " + selector.serial;
    words += " on USB";
    if (!selector.busPath.empty())
        words += " at " + selector.busPath;
    return words;
}

} // namespace usb

std::vector<UsbDevice> findUsbDevices(const UsbSelector &selector)
{
    const usb::Context context = usb::newContext();
    std::vector<UsbDevice> devices;
    if (!context)
        return devices;
    for (usb::Match &match : usb::matchesOf(context.get(), selector)) {
        match.shown.holder = usb::holderOf(match.shown.busPath, match.interface.number,
                                           usb::nodeOf(match.device.get()));
        devices.push_back(std::move(match.shown));
    }
    return devices;
}

} // namespace usbhalhost
