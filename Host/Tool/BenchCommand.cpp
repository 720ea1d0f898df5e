// SPDX-License-Identifier: MIT
#include "BenchCommand.h"

#include "Failure.h"
#include "PortLink.h"
#include "Signals.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <iostream>
#include <map>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto echoTime = std::chrono::seconds(10);
constexpr double kilo = 1000;
constexpr std::size_t roundTripBytes = 16;
constexpr int widestBar = 50;

/** Sends bytes to the port, and checks that they come back. */
class Echo
{
public:
    Echo(const LinkOptions &link, int port)
        : _port(port),
          _link(link, port,
                {[this](const std::string &bytes) { _receive(bytes); }, [](std::size_t) {}})
    {
        _link.open();
    }

    /** Returns the seconds until all bytes are back. */
    double measure(std::size_t bytes);

private:
    void _receive(const std::string &bytes);
    void _turn(std::size_t end);
    [[noreturn]] void _fail(ExitStatus status, const std::string &what) const;

    int _port;
    std::size_t _sent = 0;
    std::size_t _returned = 0;
    bool _differs = false;
    Clock::time_point _lastMoved;
    PortLink _link;
};

char byteAt(std::size_t place)
{
    return static_cast<char>(place % 251); // no divisor of a transfer's size
}

double Echo::measure(std::size_t bytes)
{
    const std::size_t end = _sent + bytes;
    const auto began = _lastMoved = Clock::now();
    while (_returned < end)
        _turn(end);
    return std::chrono::duration<double>(Clock::now() - began).count();
}

void Echo::_turn(std::size_t end)
{
    std::string next(std::min(_link.room(), end - _sent), '\0');
    for (char &byte : next)
        byte = byteAt(_sent++);
    if (!next.empty())
        _link.send(next);
    if (!_link.step())
        _fail(exitFailed, "the link is lost: " + _link.reason());
    if (endIsAsked())
        _fail(exitFailed, "ended by a signal");
    if (_differs)
        _fail(exitFailed, "something else has come back: does the port echo?");
    if (Clock::now() - _lastMoved > echoTime)
        _fail(exitTimeOut, "nothing has come back for 10 s: does the port echo?");
}

void Echo::_receive(const std::string &bytes)
{
    _lastMoved = Clock::now();
    for (const char byte : bytes)
        _differs = _differs || byte != byteAt(_returned++);
    _differs = _differs || _returned > _sent;
}

void Echo::_fail(ExitStatus status, const std::string &what) const
{
    throw Failure(status, "port " + std::to_string(_port) + " cannot be measured: " + what);
}

struct Measurement
{
    std::vector<double> roundTrips; // ms, sorted
    std::size_t bytes = 0;
    double seconds = 0;

    double quantile(double part) const
    {
        const auto last = static_cast<double>(roundTrips.size() - 1);
        return roundTrips[static_cast<std::size_t>(std::lround(part * last))];
    }
    double bytesPerSecond() const { return static_cast<double>(bytes) / seconds; }
};

void printJson(const Measurement &measured)
{
    const nlohmann::json value = {
        {"roundTripMs",
         {{"min", measured.quantile(0)},
          {"median", measured.quantile(0.5)},
          {"p99", measured.quantile(0.99)},
          {"count", measured.roundTrips.size()}}},
        {"throughput",
         {{"bytes", measured.bytes},
          {"seconds", measured.seconds},
          {"bytesPerSecond", measured.bytesPerSecond()}}},
    };
    std::cout << value.dump(2) << '\n';
}

// A line for each ms in which there are round trips.
void printHistogram(const Measurement &measured)
{
    std::map<int, int> counts;
    for (const double time : measured.roundTrips)
        ++counts[static_cast<int>(time)];
    const auto isSmaller = [](const auto &one, const auto &other) {
        return one.second < other.second;
    };
    const int most = std::max_element(counts.begin(), counts.end(), isSmaller)->second;
    for (const auto &[time, count] : counts) {
        const auto width = static_cast<std::size_t>((count * widestBar + most - 1) / most);
        std::printf("%6d ms %6d %s\n", time, count, std::string(width, '#').c_str());
    }
}

void printText(const Measurement &measured)
{
    std::printf("round trip of %zu bytes, %zu times: min %.2f ms, median %.2f ms, p99 %.2f ms\n",
                roundTripBytes, measured.roundTrips.size(), measured.quantile(0),
                measured.quantile(0.5), measured.quantile(0.99));
    printHistogram(measured);
    std::printf("throughput, both ways at once: %.1f kB/s (%zu bytes in %.2f s)\n",
                measured.bytesPerSecond() / kilo, measured.bytes, measured.seconds);
}

} // namespace

void measurePort(const LinkOptions &link, const BenchOptions &options)
{
    Echo echo(link, options.port);
    Measurement measured;
    for (int i = 0; i < options.count; ++i)
        measured.roundTrips.push_back(kilo * echo.measure(roundTripBytes));
    std::sort(measured.roundTrips.begin(), measured.roundTrips.end());
    measured.bytes = options.bytes;
    measured.seconds = echo.measure(options.bytes);
    if (options.asJson)
        printJson(measured);
    else
        printText(measured);
}
