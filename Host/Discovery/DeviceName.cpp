// SPDX-License-Identifier: MIT
#include "DeviceName.h"

#include "SeqPacketTransport.h"
#include "SimulatedNodes.h"
#include "UsbTransport.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>

namespace usbhalhost {

namespace {

constexpr std::size_t idDigits = 4;

bool startsWith(const std::string &text, const std::string &start)
{
    return text.compare(0, start.size(), start) == 0;
}

std::optional<std::uint16_t> parseId(const std::string &field)
{
    const auto isHexadecimal = [](unsigned char c) { return std::isxdigit(c) != 0; };
    if (field.size() != idDigits || !std::all_of(field.begin(), field.end(), isHexadecimal))
        return std::nullopt;
    return static_cast<std::uint16_t>(std::strtoul(field.c_str(), nullptr, 16));
}

// Numbers between one "-" and, behind it, any number of "."; the first may not be missing.
bool isBusPath(const std::string &text)
{
    const auto isDigit = [](char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; };
    bool digitBefore = false;
    bool hasDash = false;
    for (const char c : text) {
        const bool separates = digitBefore && (c == '-' ? !hasDash : c == '.' && hasDash);
        if (!isDigit(c) && !separates)
            return false;
        hasDash = hasDash || c == '-';
        digitBefore = isDigit(c);
    }
    return hasDash && digitBefore;
}

DeviceNameFault fault(const std::string &text, const std::string &reason)
{
    return {"'" + text + "' names no device: " + reason +
            "; write usb, usb:VID:PID[:SERIAL], usb:BUS-PATH or sim:DIR"};
}

std::variant<DeviceName, DeviceNameFault> parseUsb(const std::string &text, const std::string &rest)
{
    UsbSelector selector;
    if (isBusPath(rest)) {
        selector.busPath = rest;
        return selector;
    }
    const std::size_t colon = rest.find(':');
    if (colon == std::string::npos)
        return fault(text, "'" + rest + "' is no place such as 1-2.3");
    const std::size_t second = rest.find(':', colon + 1);
    selector.vendor = parseId(rest.substr(0, colon));
    selector.product = parseId(rest.substr(colon + 1, second - colon - 1));
    if (!selector.vendor || !selector.product)
        return fault(text, "VID and PID have four hexadecimal digits each");
    if (second != std::string::npos)
        selector.serial = rest.substr(second + 1);
    if (second != std::string::npos && selector.serial.empty())
        return fault(text, "the serial number is empty");
    return selector;
}

} // namespace

std::variant<DeviceName, DeviceNameFault> parseDeviceName(const std::string &text)
{
    const std::string usb = "usb";
    const std::string sim = "sim:";
    if (text == usb)
        return UsbSelector{};
    if (startsWith(text, usb + ":"))
        return parseUsb(text, text.substr(usb.size() + 1));
    if (!startsWith(text, sim))
        return fault(text, "it begins with neither usb nor sim:");
    if (text == sim)
        return fault(text, "the folder is missing");
    return SimulatedNodeName{text.substr(sim.size())};
}

std::unique_ptr<DeviceTransport> newTransport(const DeviceName &name)
{
    if (const auto *selector = std::get_if<UsbSelector>(&name))
        return std::make_unique<UsbTransport>(*selector);
    return std::make_unique<SeqPacketTransport>(std::get<SimulatedNodeName>(name).folder + "/host");
}

bool isPresent(const DeviceName &name)
{
    if (const auto *selector = std::get_if<UsbSelector>(&name))
        return !findUsbDevices(*selector).empty();
    std::error_code error;
    const auto wanted =
        std::filesystem::weakly_canonical(std::get<SimulatedNodeName>(name).folder, error);
    const std::vector<SimulatedNode> nodes = findSimulatedNodes();
    return std::any_of(nodes.begin(), nodes.end(), [&](const SimulatedNode &node) {
        return std::filesystem::weakly_canonical(node.folder, error) == wanted;
    });
}

} // namespace usbhalhost
