// SPDX-License-Identifier: MIT
#ifndef USBHAL_WAITCOMMAND_H
#define USBHAL_WAITCOMMAND_H

#include <optional>
#include <string>

/**
 * Waits until the device is there, or is not there any more. An empty name means any device.
 * Failure when that takes more than so many seconds.
 */
void waitForDevice(const std::string &device, bool connected, std::optional<double> limit);

#endif
