// SPDX-License-Identifier: MIT
#include "LogSink.h"

#include <UsbHalLog.h>

// The linker is told to send the library's calls of logLine() here (--wrap); __real_ is the
// library's own.
extern "C" {
void __real__Z7logLinePKcSt16initializer_listI7LogPartEj(const char *function, LogPart::List text,
                                                         unsigned int line);
void __wrap__Z7logLinePKcSt16initializer_listI7LogPartEj(const char *function, LogPart::List text,
                                                         unsigned int line);
}

namespace {

bool active = false;
quint64 swallowed = 0;

} // namespace

void LogSink::setActive(bool isActive)
{
    active = isActive;
}

quint64 LogSink::swallowedLines()
{
    return swallowed;
}

void __wrap__Z7logLinePKcSt16initializer_listI7LogPartEj(const char *function, LogPart::List text,
                                                         unsigned int line)
{
    if (active)
        ++swallowed;
    else
        __real__Z7logLinePKcSt16initializer_listI7LogPartEj(function, text, line);
}
