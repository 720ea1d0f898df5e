// SPDX-License-Identifier: MIT
#include "Progress.h"

#include <cstdio>
#include <unistd.h>

namespace {

constexpr auto redrawPause = std::chrono::milliseconds(200);

} // namespace

Progress::Progress(std::optional<std::uint64_t> total)
    : _total(total),
      _isTerminal(::isatty(STDERR_FILENO) == 1),
      _began(Clock::now()),
      _next(_began + redrawPause)
{
}

Progress::~Progress()
{
    if (_shown)
        std::fputc('\n', stderr);
}

void Progress::show(std::uint64_t bytes)
{
    const auto now = Clock::now();
    if (!_isTerminal || now < _next)
        return;
    _next = now + redrawPause;
    _shown = true;
    const double seconds = std::chrono::duration<double>(now - _began).count();
    const double rate = static_cast<double>(bytes) / seconds;
    std::fprintf(stderr, "\r%10.0f kB  %6.0f kB/s", static_cast<double>(bytes) / 1000, rate / 1000);
    if (_total && *_total > 0 && rate > 0) {
        const auto total = static_cast<double>(*_total);
        std::fprintf(stderr, "  %3.0f %%  %4.0f s left  ", 100 * static_cast<double>(bytes) / total,
                     (total - static_cast<double>(bytes)) / rate);
    }
}
