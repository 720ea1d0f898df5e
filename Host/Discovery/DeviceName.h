// SPDX-License-Identifier: MIT
#ifndef USBHALHOST_DEVICENAME_H
#define USBHALHOST_DEVICENAME_H

#include "DeviceTransport.h"
#include "UsbDevices.h"
#include "UsbHalHostExport.h"

#include <memory>
#include <string>
#include <variant>

namespace usbhalhost {

/** The folder of a simulated device node. */
struct SimulatedNodeName
{
    std::string folder;
};

/** Which device is meant. */
using DeviceName = std::variant<UsbSelector, SimulatedNodeName>;

/** What is wrong with a device's name: one sentence. */
struct DeviceNameFault
{
    std::string text;
};

/**
 * Reads the name of a device as a user writes it: usb, usb:VID:PID, usb:VID:PID:SERIAL with four
 * hexadecimal digits each, usb:BUS-PATH such as usb:1-2.3, or sim:DIR.
 */
USBHALHOST_EXPORT std::variant<DeviceName, DeviceNameFault>
parseDeviceName(const std::string &text);

/** The transport to a device; nothing is opened yet. */
USBHALHOST_EXPORT std::unique_ptr<DeviceTransport> newTransport(const DeviceName &name);

/** Whether the device is there now, free or not. */
USBHALHOST_EXPORT bool isPresent(const DeviceName &name);

} // namespace usbhalhost

#endif
