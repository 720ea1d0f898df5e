// SPDX-License-Identifier: MIT
#include "ReaderWait.h"

#include "Console.h"

#include <utility>

using namespace std::chrono_literals;

namespace {

constexpr auto longestWait = 500ms;
constexpr auto silentWait = 1s; // of a wait that is not told

} // namespace

void ReaderWait::waitFor(Output &output, const std::string &reader)
{
    if (!std::exchange(_waits, true)) {
        _began = Clock::now();
        _told = false;
    }
    output.flush(longestWait);
    if (output.isFull() && !_told && Clock::now() - _began >= silentWait) {
        _told = true;
        tell(reader + " takes nothing: the exchange with the device waits for it");
    }
}
