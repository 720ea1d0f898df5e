// SPDX-License-Identifier: MIT
#include "Console.h"

#include "Failure.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <sstream>

namespace {

constexpr std::size_t excerptSize = 40;

std::ofstream &logFile()
{
    static std::ofstream file;
    return file;
}

std::string timeText()
{
    const auto now = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    const auto fraction = now.time_since_epoch() % std::chrono::seconds(1);
    std::tm local{};
    localtime_r(&seconds, &local);
    std::ostringstream text;
    text << std::put_time(&local, "%F %T.") << std::setw(3) << std::setfill('0')
         << std::chrono::duration_cast<std::chrono::milliseconds>(fraction).count();
    return text.str();
}

} // namespace

void tell(const std::string &text)
{
    std::cerr << "usbhal: " << text << std::endl;
    if (logFile().is_open())
        logFile() << timeText() << ' ' << text << std::endl;
}

void logTo(const std::string &path)
{
    logFile().open(path, std::ios::app);
    if (!logFile())
        throw Failure(exitFailed, "cannot write " + path + ": " + std::strerror(errno) +
                                      "; name a file that can be written");
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
