// SPDX-License-Identifier: MIT
#include "ForwardAddress.h"

#include "Failure.h"
#include "Protocol.h"

#include <charconv>
#include <string_view>

namespace {

constexpr std::string_view unixPrefix = "unix:";
constexpr int largestLocalPort = 65535;

[[noreturn]] void refuse(const std::string &text, const std::string &reason)
{
    throw Failure(exitUsage, "'" + text + "' names no forward: " + reason +
                                 "; write [BIND:]LOCAL:PORT or unix:PATH:PORT");
}

int numberOf(const std::string &digits, int largest, const std::string &text, const char *what)
{
    int number = -1;
    const char *end = digits.data() + digits.size();
    const auto [rest, error] = std::from_chars(digits.data(), end, number);
    if (error != std::errc() || rest != end || number < 0 || number > largest)
        refuse(text, "'" + digits + "' is no " + what + " of 0 to " + std::to_string(largest));
    return number;
}

std::string withoutBrackets(const std::string &host)
{
    const bool inBrackets = host.size() > 2 && host.front() == '[' && host.back() == ']';
    return inBrackets ? host.substr(1, host.size() - 2) : host;
}

ForwardAddress localPartOf(const std::string &part, const std::string &text)
{
    ForwardAddress address;
    if (part.rfind(unixPrefix, 0) == 0) {
        address.path = part.substr(unixPrefix.size());
        if (address.path.empty())
            refuse(text, "the path is missing");
        return address;
    }
    const std::size_t colon = part.rfind(':');
    if (colon != std::string::npos)
        address.host = withoutBrackets(part.substr(0, colon));
    if (address.host.empty())
        refuse(text, "the address to bind is empty");
    const std::string digits = colon == std::string::npos ? part : part.substr(colon + 1);
    address.localPort = numberOf(digits, largestLocalPort, text, "local port");
    return address;
}

} // namespace

ForwardAddress parseForwardAddress(const std::string &text)
{
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos)
        refuse(text, "the port of the device is missing");
    ForwardAddress address = localPartOf(text.substr(0, colon), text);
    address.port =
        numberOf(text.substr(colon + 1), usbhalhost::maxPort, text, "port of the device");
    return address;
}
