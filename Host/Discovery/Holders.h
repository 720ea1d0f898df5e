// SPDX-License-Identifier: MIT
#ifndef USBHALHOST_HOLDERS_H
#define USBHALHOST_HOLDERS_H

#include <string>

namespace usbhalhost::usb {

/**
 * Who holds an interface of a device, in words: a process that has the device's node open, as far
 * as the system shows it to this user, or a driver of the kernel. Empty when the interface is free.
 */
std::string holderOf(const std::string &busPath, int interface, const std::string &node);

} // namespace usbhalhost::usb

#endif
