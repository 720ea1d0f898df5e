// SPDX-License-Identifier: MIT
#ifndef USBHALHOST_USBMATCHING_H
#define USBHALHOST_USBMATCHING_H

#include "UsbDevices.h"
#include "UsbLibrary.h"

#include <string>
#include <vector>

namespace usbhalhost::usb {

/** A device that is meant, as libusb and as the user know it. */
struct Match
{
    Device device;
    Interface interface;
    UsbDevice shown;
};

/** The devices of the context's now that are meant, in the order of their places. */
std::vector<Match> matchesOf(libusb_context *context, const UsbSelector &selector);

/** What is asked for, in words: "a device 1234:5678 on USB". */
std::string wordsFor(const UsbSelector &selector);

} // namespace usbhalhost::usb

#endif
