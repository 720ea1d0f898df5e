// SPDX-License-Identifier: MIT
#include "MonitorCommand.h"

#include "Console.h"
#include "ControlChannel.h"
#include "DeviceChoice.h"
#include "DeviceLink.h"
#include "Failure.h"
#include "MonitorView.h"
#include "Signals.h"

#include <thread>

namespace {

void watchForward(RunningForward forward, MonitorView &view)
{
    forward.stream->put("{\"monitor\": true}\n");
    while (!endIsAsked()) {
        const auto counters = countersOf(nextLine(forward).value_or(""));
        if (!counters)
            throw Failure(exitFailed, "usbhal forward (process " + std::to_string(forward.process) +
                                          ") has ended: start the monitor again");
        view.show(*counters);
    }
}

void watchLink(const LinkOptions &options, MonitorView &view)
{
    DeviceLink link(options);
    link.setPause([&](std::chrono::milliseconds time) {
        view.showWhenDue(link.counters());
        std::this_thread::sleep_for(time);
    });
    link.open();
    while (!endIsAsked()) {
        if (!link.step()) {
            tell("the link is lost: " + link.reason() + "; waiting for the device");
            link.reopen();
        }
        view.showWhenDue(link.counters());
    }
}

} // namespace

void monitorDevice(const LinkOptions &options, bool asJson)
{
    MonitorView view(asJson);
    const auto name = chooseDevice(options.device);
    auto forward = name ? findForward(placeOf(*name)) : std::nullopt;
    try {
        if (forward)
            watchForward(std::move(*forward), view);
        else
            watchLink(options, view);
    } catch (const Failure &) {
        if (!endIsAsked())
            throw;
    }
}
