// SPDX-License-Identifier: MIT
#ifndef USBHALHOST_USBDEVICES_H
#define USBHALHOST_USBDEVICES_H

#include "UsbHalHostExport.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace usbhalhost {

/** Which devices on USB are meant; what is empty is met by every device. */
struct UsbSelector
{
    std::optional<std::uint16_t> vendor = {};
    std::optional<std::uint16_t> product = {};
    std::string serial = {};
    std::string busPath = {}; ///< the kernel's name for a place, such as 1-2.3
};

/** A device on USB that has an interface for ports. */
struct UsbDevice
{
    std::string busPath; ///< the kernel's name for its place, such as 1-2.3
    std::uint16_t vendor = 0;
    std::uint16_t product = 0;
    std::string serial = {};      ///< empty for a device without
    std::string description = {}; ///< what the device says of itself; empty for one that does not
    std::string speed = {};       ///< in Mbit/s
    std::string holder = {};      ///< who holds the interface; empty when nobody is known to
    std::uint8_t bus = 0;         ///< the number of the bus, as in captures
    std::uint8_t address = 0;     ///< on the bus, another one after each plugging in
    std::uint8_t endpointIn = 0;  ///< address of the bulk endpoint towards the host
    std::uint8_t endpointOut = 0; ///< address of the bulk endpoint towards the device
};

/**
 * The devices of now that are meant, in the order of their places. They are looked at and not
 * opened, so no permission is needed. May be called from any thread.
 */
USBHALHOST_EXPORT std::vector<UsbDevice> findUsbDevices(const UsbSelector &selector = {});

} // namespace usbhalhost

#endif
