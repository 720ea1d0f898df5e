// SPDX-License-Identifier: MIT
// What does not depend on the clock: system calls, requests for memory, and memory held.

#include "Allocations.h"
#include "BenchCore.h"
#include "SystemCalls.h"

#include <Campaign.h>
#include <UsbHalLog.h>

namespace {

constexpr int lines = 1000;

void writeLines()
{
    for (int i = 0; i < lines; ++i)
        logLine("write", {"Add to write queue message of size: ", i});
}

void countForLine()
{
    BenchCore core(true);
    writeLines(); // what is made once is made
    const int calls = countSystemCalls(writeLines);
    const int allocations = Allocations::count(writeLines);
    require(Allocations::count([] { patternBytes(100); }) > 0, "requests for memory are counted");
    Campaign::printFigure("counts.log.calls", double(calls) / lines);
    Campaign::printFigure("counts.log.allocations", double(allocations) / lines);
}

// Places in memory that a payload passes through from the driver's buffer to the client.
void countCopies()
{
    constexpr int size = 9987;
    BenchCore core;
    const QByteArray payload = patternBytes(size);
    const QByteArray buffer = dataMessage(BenchCore::port, payload);
    QByteArray taken;
    const int copies = Allocations::count(
        [&] {
            core.receive(buffer);
            taken = core.read(BenchCore::port, size);
        },
        size);
    require(taken == payload, "the payload arrives");
    Campaign::printFigure("counts.copies", copies);
}

// Bytes that a queued message takes beyond its payload.
template <typename Enqueue>
void measureHeld(const std::string &name, int count, const QByteArray &payload, Enqueue enqueue)
{
    enqueue();
    const std::size_t before = Allocations::bytesInUse();
    for (int i = 0; i < count; ++i)
        enqueue();
    const auto bytes = static_cast<double>(Allocations::bytesInUse() - before);
    Campaign::printFigure("counts.held." + name, bytes / count - payload.size());
}

void measureHeld(int size, int unread)
{
    const QByteArray payload = patternBytes(size);
    const QByteArray buffer = dataMessage(BenchCore::port, payload);
    const std::string suffix = '.' + std::to_string(size);
    BenchCore core;
    measureHeld("unread" + suffix, unread, payload, [&] { core.receive(buffer); });
    require(core.holdsReceived(unread + 1, payload), "the unread messages are there");
    constexpr int unsent = 99;
    measureHeld("unsent" + suffix, unsent, payload, [&] { core.write(BenchCore::port, payload); });
    require(core.holdsWritten(unsent + 1, payload), "the unsent messages are there");
}

} // namespace

int main()
{
    countForLine();
    countCopies();
    measureHeld(16, 100000);
    measureHeld(500, 10000);
    return 0;
}
