// SPDX-License-Identifier: MIT
#include "LinkCounters.h"

#include <nlohmann/json.hpp>

#include <charconv>

using nlohmann::json;

namespace {

std::uint64_t numberIn(const json &object, const char *key)
{
    const auto found = object.find(key);
    return found != object.end() && found->is_number_unsigned() ? found->get<std::uint64_t>() : 0;
}

} // namespace

std::string lineOf(const LinkCounters &counters)
{
    json ports = json::object();
    for (const auto &[number, port] : counters.ports)
        ports[std::to_string(number)] = {{"received", port.received},
                                         {"delivered", port.delivered}};
    return json{{"isUp", counters.isUp},     {"turns", counters.turns},
                {"delays", counters.delays}, {"faults", counters.faults},
                {"losses", counters.losses}, {"ports", ports}}
        .dump();
}

std::optional<LinkCounters> countersOf(const std::string &line)
{
    const json value = json::parse(line, nullptr, false);
    if (!value.is_object() || !value.contains("ports") || !value["ports"].is_object())
        return std::nullopt;
    LinkCounters counters;
    counters.isUp = value.contains("isUp") && value["isUp"] == true;
    counters.turns = numberIn(value, "turns");
    counters.delays = numberIn(value, "delays");
    counters.faults = numberIn(value, "faults");
    counters.losses = numberIn(value, "losses");
    for (const auto &[name, port] : value["ports"].items()) {
        int number = 0;
        std::from_chars(name.data(), name.data() + name.size(), number);
        counters.ports[number] = {numberIn(port, "received"), numberIn(port, "delivered")};
    }
    return counters;
}
