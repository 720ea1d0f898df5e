// SPDX-License-Identifier: MIT
#include "RemotePort.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <unistd.h>
#include <utility>

using namespace std::chrono_literals;

namespace {

constexpr auto turn = 10ms; // in which more input may come
constexpr std::size_t mostRead = 65536;

std::string requestFor(int port)
{
    const std::string user = "usbhal (process " + std::to_string(::getpid()) + ")";
    return nlohmann::json{{"port", port}, {"user", user}}.dump();
}

} // namespace

RemotePort::RemotePort(RunningForward forward, int port)
    : _forward(std::move(forward)), _largestTransfer(ask(_forward, requestFor(port)))
{
}

bool RemotePort::step(const FrameCutter::Handlers &handlers)
{
    SocketStream &stream = *_forward.stream;
    stream.flush();
    if (!stream.hasEnded())
        stream.waitForBytes(turn);
    _forward.cutter.append(stream.take(mostRead));
    while (_forward.cutter.takeFrame(handlers)) {
    }
    return !stream.hasEnded() && !stream.isBroken();
}
