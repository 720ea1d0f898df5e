// SPDX-License-Identifier: MIT
#include "Console.h"

#include <cstdio>
#include <unistd.h>

namespace {

constexpr qint64 terminalPeriod = 500; // ms
constexpr qint64 filePeriod = 2000;    // ms

constexpr char eraseLine[] = "\r\033[K";

} // namespace

Console::Console() : _isTerminal(::isatty(STDOUT_FILENO) == 1)
{
    _sinceProgress.start();
}

void Console::line(const QString &text)
{
    if (_hasProgress)
        std::fputs(eraseLine, stdout);
    _hasProgress = false;
    std::printf("%s\n", qPrintable(text));
    std::fflush(stdout);
}

bool Console::wantsProgress() const
{
    return _sinceProgress.hasExpired(_isTerminal ? terminalPeriod : filePeriod);
}

void Console::progress(const QString &text)
{
    _sinceProgress.start();
    if (!_isTerminal) {
        line(text);
        return;
    }
    std::printf("%s%s", eraseLine, qPrintable(text));
    std::fflush(stdout);
    _hasProgress = true;
}

void Console::endProgress()
{
    if (_hasProgress)
        std::putchar('\n');
    _hasProgress = false;
}
