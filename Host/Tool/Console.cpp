// SPDX-License-Identifier: MIT
#include "Console.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <iostream>

namespace {

constexpr std::size_t excerptSize = 40;

} // namespace

void tell(const std::string &text)
{
    std::cerr << "usbhal: " << text << std::endl;
}

std::string excerptOf(const std::string &bytes)
{
    std::string text = "\"";
    for (const char c : bytes.substr(0, excerptSize)) {
        const auto byte = static_cast<unsigned char>(c);
        std::array<char, 8> hexadecimal{};
        std::snprintf(hexadecimal.data(), hexadecimal.size(), "\\x%02x", unsigned{byte});
        text += std::isprint(byte) != 0 ? std::string(1, c) : std::string(hexadecimal.data());
    }
    return text + (bytes.size() > excerptSize ? "...\"" : "\"");
}
