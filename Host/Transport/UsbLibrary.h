// SPDX-License-Identifier: MIT
#ifndef USBHALHOST_USBLIBRARY_H
#define USBHALHOST_USBLIBRARY_H

#include <libusb.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

/** What libusb hands out, owned; and what of a device on USB concerns this library. */
namespace usbhalhost::usb {

struct Release
{
    void operator()(libusb_context *context) const { libusb_exit(context); }
    void operator()(libusb_device_handle *handle) const { libusb_close(handle); }
    void operator()(libusb_device *device) const { libusb_unref_device(device); }
    void operator()(libusb_transfer *transfer) const { libusb_free_transfer(transfer); }
};
using Context = std::unique_ptr<libusb_context, Release>;
using Handle = std::unique_ptr<libusb_device_handle, Release>;
using Device = std::unique_ptr<libusb_device, Release>;
using Transfer = std::unique_ptr<libusb_transfer, Release>;

/** The interface that carries the ports. */
struct Interface
{
    int number = 0;
    unsigned char in = 0;  ///< address of the bulk endpoint towards the host
    unsigned char out = 0; ///< address of the bulk endpoint towards the device
};

/** A context of its own, which sees the devices of now; null when libusb cannot begin. */
Context newContext();

/** All devices of now. */
std::vector<Device> devicesOf(libusb_context *context);

/**
 * The first interface of the vendor's own class with one bulk endpoint each way and no other. Empty
 * for a device without one.
 */
std::optional<Interface> interfaceOf(libusb_device *device);

/** The bus and the ports on the way to a device, such as 1-2.3: the kernel's name for its place. */
std::string busPathOf(libusb_device *device);

/** The file through which a device is opened. */
std::string nodeOf(libusb_device *device);

} // namespace usbhalhost::usb

#endif
