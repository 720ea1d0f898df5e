// SPDX-License-Identifier: MIT
#include "LogSink.h"

#include <UsbHalLog.h>

// The linker is told to send the library's calls of UsbHalLog::log() here (--wrap); __real_ is the
// library's own.
extern "C" {
void __real__ZN9UsbHalLog3logERK7LogPartjRKSt16initializer_listIS0_E(UsbHalLog *self,
                                                                     const LogPart &function,
                                                                     unsigned int line,
                                                                     const LogText &text);
void __wrap__ZN9UsbHalLog3logERK7LogPartjRKSt16initializer_listIS0_E(UsbHalLog *self,
                                                                     const LogPart &function,
                                                                     unsigned int line,
                                                                     const LogText &text);
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

void __wrap__ZN9UsbHalLog3logERK7LogPartjRKSt16initializer_listIS0_E(UsbHalLog *self,
                                                                     const LogPart &function,
                                                                     unsigned int line,
                                                                     const LogText &text)
{
    if (active)
        ++swallowed;
    else
        __real__ZN9UsbHalLog3logERK7LogPartjRKSt16initializer_listIS0_E(self, function, line, text);
}
