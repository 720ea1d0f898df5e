// SPDX-License-Identifier: MIT
#include "MonitorView.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <iostream>
#include <unistd.h>

using namespace std::chrono_literals;
using nlohmann::json;

namespace {

constexpr auto showPause = 1s;
constexpr const char *clearScreen = "\033[H\033[J";
constexpr double kilo = 1000;

} // namespace

MonitorView::MonitorView(bool asJson)
    : _asJson(asJson || ::isatty(STDOUT_FILENO) != 1), _last(Clock::now())
{
}

void MonitorView::showWhenDue(const LinkCounters &counters)
{
    if (Clock::now() - _last >= showPause)
        show(counters);
}

void MonitorView::show(const LinkCounters &counters)
{
    const auto now = Clock::now();
    _seconds = std::chrono::duration<double>(now - _last).count();
    _last = now;
    if (_asJson)
        _printJson(counters);
    else
        _printTable(counters);
    std::cout.flush();
    _before = counters;
}

double MonitorView::_perSecond(std::uint64_t now, std::uint64_t before) const
{
    return _seconds > 0 ? static_cast<double>(now - before) / _seconds : 0;
}

void MonitorView::_printJson(const LinkCounters &counters) const
{
    json value = json::parse(lineOf(counters));
    const double turns = _perSecond(counters.turns, _before.turns);
    value["cycleMs"] = turns > 0 ? json(kilo / turns) : json();
    for (const auto &[number, port] : counters.ports) {
        const auto found = _before.ports.find(number);
        const PortCounters before = found == _before.ports.end() ? PortCounters() : found->second;
        json &shown = value["ports"][std::to_string(number)];
        shown["receivedPerSecond"] = _perSecond(port.received, before.received);
        shown["deliveredPerSecond"] = _perSecond(port.delivered, before.delivered);
    }
    std::cout << value.dump() << '\n';
}

void MonitorView::_printTable(const LinkCounters &counters) const
{
    const double turns = _perSecond(counters.turns, _before.turns);
    std::printf("%slink %s  cycle %.1f ms  delays %llu  faults %llu  losses %llu\n\n"
                "port      received          rate     delivered          rate\n",
                clearScreen, counters.isUp ? "up" : "down", turns > 0 ? kilo / turns : 0,
                static_cast<unsigned long long>(counters.delays),
                static_cast<unsigned long long>(counters.faults),
                static_cast<unsigned long long>(counters.losses));
    for (const auto &[number, port] : counters.ports) {
        const auto found = _before.ports.find(number);
        const PortCounters before = found == _before.ports.end() ? PortCounters() : found->second;
        std::printf("%4d %10.0f kB %8.1f kB/s %10.0f kB %8.1f kB/s\n", number,
                    static_cast<double>(port.received) / kilo,
                    _perSecond(port.received, before.received) / kilo,
                    static_cast<double>(port.delivered) / kilo,
                    _perSecond(port.delivered, before.delivered) / kilo);
    }
    std::fflush(stdout);
}
