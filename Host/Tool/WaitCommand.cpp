// SPDX-License-Identifier: MIT
#include "WaitCommand.h"

#include "Console.h"
#include "DeviceChoice.h"
#include "Failure.h"
#include "Signals.h"
#include "SimulatedNodes.h"

#include <chrono>
#include <thread>

using namespace usbhalhost;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

constexpr auto lookPause = 100ms;
constexpr auto silentWait = 1s; // of a wait that is not told

bool isThere(const std::string &device)
{
    if (device.empty())
        return !findUsbDevices().empty() || !findSimulatedNodes().empty();
    return isPresent(*chooseDevice(device));
}

} // namespace

void waitForDevice(const std::string &device, bool connected, std::optional<double> limit)
{
    const std::string what =
        wordsFor(device) + (connected ? " to be connected" : " to be disconnected");
    const auto began = Clock::now();
    bool told = false;
    while (isThere(device) != connected) {
        const std::chrono::duration<double> waited = Clock::now() - began;
        if (limit && waited.count() >= *limit)
            throw Failure(exitTimeOut, "the time is over, waiting for " + what);
        if (endIsAsked())
            throw Failure(exitFailed, "ended by a signal while waiting for " + what);
        if (!told && waited >= silentWait) {
            tell("waiting for " + what);
            told = true;
        }
        std::this_thread::sleep_for(lookPause);
    }
}
