// SPDX-License-Identifier: MIT
#include "LogSink.h"

#include <QString>

class UsbHalLog;

// The linker is told to send the library's calls of UsbHalLog::log() here (--wrap); __real_ is the
// library's own.
extern "C" {
void __real__ZN9UsbHalLog3logE7QStringjS0_(UsbHalLog *self, QString function, unsigned int line,
                                           QString message);
void __wrap__ZN9UsbHalLog3logE7QStringjS0_(UsbHalLog *self, QString function, unsigned int line,
                                           QString message);
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

void __wrap__ZN9UsbHalLog3logE7QStringjS0_(UsbHalLog *self, QString function, unsigned int line,
                                           QString message)
{
    if (active)
        ++swallowed;
    else
        __real__ZN9UsbHalLog3logE7QStringjS0_(self, function, line, message);
}
