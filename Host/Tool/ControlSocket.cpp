// SPDX-License-Identifier: MIT
#include "ControlSocket.h"

#include "ControlChannel.h"
#include "Failure.h"
#include "Protocol.h"

#include <nlohmann/json.hpp>

#include <unistd.h>

using namespace std::chrono_literals;
using nlohmann::json;

namespace {

constexpr std::size_t longestRequest = 4096;
constexpr auto requestTime = 10s;

ForwardAddress addressOfThisProcess()
{
    ForwardAddress address;
    address.path = makeControlFolder() + '/' + std::to_string(::getpid());
    return address;
}

bool isPort(const json &value)
{
    return value.is_number_integer() && value >= 0 && value <= usbhalhost::maxPort;
}

ControlRequest parseRequest(const std::string &line)
{
    const json value = json::parse(line, nullptr, false);
    ControlRequest request;
    if (value.is_object() && value.contains("monitor")) {
        request.monitors = true;
        return request;
    }
    if (!value.is_object() || !value.contains("port") || !isPort(value["port"]))
        throw Failure(exitFailed, "the request names no port of 0 to 9999");
    request.port = value["port"];
    request.user = value.contains("user") && value["user"].is_string()
                       ? value["user"].get<std::string>()
                       : "an unknown program";
    return request;
}

} // namespace

ControlSocket::ControlSocket() : _listener(addressOfThisProcess()) {}

void ControlSocket::serve(const std::string &place, const Answer &answer)
{
    _welcome(place);
    _callers.remove_if([&answer](Caller &caller) { return _isDone(caller, answer); });
}

void ControlSocket::_welcome(const std::string &place)
{
    const auto connection = _listener.accept();
    if (!connection)
        return;
    auto stream = std::make_unique<FramedStream>(*connection);
    stream->putLine(json{{"process", ::getpid()}, {"place", place}}.dump(
        -1, ' ', false, json::error_handler_t::replace));
    _callers.push_back({std::move(stream), {}, Clock::now(), {}});
}

// One that asks for nothing is let go, as it would keep its descriptor for ever.
bool ControlSocket::_isDone(Caller &caller, const Answer &answer)
{
    if (caller.request.empty()) {
        caller.cutter.append(caller.stream->take(longestRequest));
        const bool isLost = caller.stream->hasEnded() || caller.stream->isBroken();
        const bool isLate = Clock::now() - caller.came > requestTime;
        if (!caller.cutter.takeLine(caller.request))
            return isLost || isLate || caller.cutter.size() >= longestRequest;
    }
    try {
        answer(parseRequest(caller.request), caller.stream);
    } catch (const Failure &failure) {
        caller.stream->putLine(
            json{{"error", failure.what()}}.dump(-1, ' ', false, json::error_handler_t::replace));
        return true;
    }
    return !caller.stream;
}
