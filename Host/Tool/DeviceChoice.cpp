// SPDX-License-Identifier: MIT
#include "DeviceChoice.h"

#include "Failure.h"
#include "SimulatedNodes.h"

#include <filesystem>
#include <vector>

using namespace usbhalhost;

namespace {

DeviceName named(const std::string &name)
{
    auto parsed = parseDeviceName(name);
    if (const auto *fault = std::get_if<DeviceNameFault>(&parsed))
        throw Failure(exitUsage, fault->text);
    return std::get<DeviceName>(std::move(parsed));
}

std::vector<std::string> namesOfAll()
{
    std::vector<std::string> names;
    for (const UsbDevice &device : findUsbDevices())
        names.push_back("usb:" + device.busPath);
    for (const SimulatedNode &node : findSimulatedNodes())
        names.push_back("sim:" + node.folder);
    return names;
}

} // namespace

std::optional<DeviceName> chooseDevice(const std::string &name)
{
    if (!name.empty())
        return named(name);
    const std::vector<std::string> names = namesOfAll();
    if (names.empty())
        return std::nullopt;
    if (names.size() == 1)
        return named(names.front());
    std::string list;
    for (const std::string &each : names)
        list += (list.empty() ? "" : ", ") + each;
    throw Failure(exitUsage, "there are several devices: name one with --device, of " + list);
}

std::string placeOf(const DeviceName &name)
{
    if (const auto *node = std::get_if<SimulatedNodeName>(&name)) {
        std::error_code error;
        return "sim:" + std::filesystem::weakly_canonical(node->folder, error).string();
    }
    const auto devices = findUsbDevices(std::get<UsbSelector>(name));
    return devices.size() == 1 ? "usb:" + devices.front().busPath : std::string();
}

std::string wordsFor(const std::string &name)
{
    return name.empty() ? "a device" : "the device " + name;
}
