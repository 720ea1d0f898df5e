// SPDX-License-Identifier: MIT
#include "Holders.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <unistd.h>

namespace usbhalhost::usb {

namespace {

namespace fs = std::filesystem;

// The driver that the kernel gives to an interface which a process has claimed.
constexpr const char *claimedByProcess = "usbfs";

std::string driverOf(const std::string &busPath, int interface)
{
    // The configuration's number is part of the name, so the interface is looked for by its end.
    const std::string end = "." + std::to_string(interface);
    const fs::path device = "/sys/bus/usb/devices/" + busPath;
    std::error_code error;
    for (const auto &entry : fs::directory_iterator(device, error)) {
        const std::string name = entry.path().filename();
        if (name.rfind(busPath + ":", 0) == 0 && name.size() > end.size() &&
            name.compare(name.size() - end.size(), end.size(), end) == 0)
            return fs::read_symlink(entry.path() / "driver", error).filename();
    }
    return {};
}

bool hasOpen(const fs::path &process, const std::string &file)
{
    std::error_code error;
    for (const auto &entry : fs::directory_iterator(process / "fd", error)) {
        if (fs::read_symlink(entry.path(), error) == file)
            return true;
    }
    return false;
}

bool isNumber(const std::string &text)
{
    return std::all_of(text.begin(), text.end(),
                       [](unsigned char c) { return std::isdigit(c) != 0; });
}

std::string nameOf(const fs::path &process)
{
    std::ifstream file(process / "comm");
    std::string name;
    std::getline(file, name);
    return name + " (process " + process.filename().string() + ")";
}

std::string processWith(const std::string &file)
{
    const std::string own = std::to_string(::getpid());
    std::error_code error;
    for (const auto &entry : fs::directory_iterator("/proc", error)) {
        const std::string number = entry.path().filename();
        if (isNumber(number) && number != own && hasOpen(entry.path(), file))
            return nameOf(entry.path());
    }
    return {};
}

} // namespace

std::string holderOf(const std::string &busPath, int interface, const std::string &node)
{
    const std::string driver = driverOf(busPath, interface);
    if (driver.empty())
        return {};
    if (driver != claimedByProcess)
        return "the kernel's driver " + driver;
    const std::string process = processWith(node);
    return process.empty() ? "a process of another user" : process;
}

} // namespace usbhalhost::usb
