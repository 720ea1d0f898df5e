// SPDX-License-Identifier: MIT
#include "UsbLibrary.h"

#include <array>
#include <cstdio>

namespace usbhalhost::usb {

namespace {

constexpr int mostPorts = 7; // the depth of hubs that USB allows

bool isBulk(const libusb_endpoint_descriptor &endpoint)
{
    return (endpoint.bmAttributes & LIBUSB_TRANSFER_TYPE_MASK) == LIBUSB_TRANSFER_TYPE_BULK;
}

std::optional<Interface> asInterface(const libusb_interface_descriptor &descriptor)
{
    if (descriptor.bInterfaceClass != LIBUSB_CLASS_VENDOR_SPEC || descriptor.bNumEndpoints != 2)
        return std::nullopt;
    Interface result;
    result.number = descriptor.bInterfaceNumber;
    for (int i = 0; i < descriptor.bNumEndpoints; ++i) {
        const libusb_endpoint_descriptor &endpoint = descriptor.endpoint[i];
        if (!isBulk(endpoint))
            return std::nullopt;
        const bool in = (endpoint.bEndpointAddress & LIBUSB_ENDPOINT_DIR_MASK) != 0;
        (in ? result.in : result.out) = endpoint.bEndpointAddress;
    }
    if (result.in == 0 || result.out == 0)
        return std::nullopt;
    return result;
}

std::optional<Interface> firstInterfaceOf(const libusb_config_descriptor &configuration)
{
    for (int i = 0; i < configuration.bNumInterfaces; ++i) {
        const libusb_interface &settings = configuration.interface[i];
        if (settings.num_altsetting < 1)
            continue;
        if (const auto found = asInterface(settings.altsetting[0]))
            return found;
    }
    return std::nullopt;
}

} // namespace

Context newContext()
{
    libusb_context *context = nullptr;
    return Context(libusb_init(&context) == LIBUSB_SUCCESS ? context : nullptr);
}

std::vector<Device> devicesOf(libusb_context *context)
{
    libusb_device **list = nullptr;
    const ssize_t count = libusb_get_device_list(context, &list);
    std::vector<Device> devices;
    for (ssize_t i = 0; i < count; ++i)
        devices.emplace_back(list[i]); // with the reference that the list held
    if (count >= 0)
        libusb_free_device_list(list, 0);
    return devices;
}

std::optional<Interface> interfaceOf(libusb_device *device)
{
    libusb_config_descriptor *configuration = nullptr;
    if (libusb_get_active_config_descriptor(device, &configuration) != LIBUSB_SUCCESS)
        return std::nullopt;
    const auto found = firstInterfaceOf(*configuration);
    libusb_free_config_descriptor(configuration);
    return found;
}

std::string busPathOf(libusb_device *device)
{
    std::array<unsigned char, mostPorts> ports{};
    const int count = libusb_get_port_numbers(device, ports.data(), mostPorts);
    std::string path = std::to_string(libusb_get_bus_number(device));
    for (int i = 0; i < count; ++i)
        path += (i == 0 ? "-" : ".") + std::to_string(ports[static_cast<std::size_t>(i)]);
    return path;
}

std::string nodeOf(libusb_device *device)
{
    std::array<char, 32> path{};
    std::snprintf(path.data(), path.size(), "/dev/bus/usb/%03u/%03u",
                  unsigned{libusb_get_bus_number(device)},
                  unsigned{libusb_get_device_address(device)});
    return path.data();
}

} // namespace usbhalhost::usb
