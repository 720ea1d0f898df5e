// SPDX-License-Identifier: MIT
#include "NodeTime.h"

#include <atomic>
#include <cstdarg>

// The linker sends the program's calls of ioctl() here.
extern "C" {
int __real_ioctl(int fd, unsigned long request, ...);
int __wrap_ioctl(int fd, unsigned long request, ...);
}

namespace {

constexpr unsigned long setWriteTimeout = 0x5301;
constexpr unsigned long setReadTimeout = 0x5302;

std::atomic<unsigned> nodeTimeDivisor{1};

} // namespace

void setNodeTimeDivisor(unsigned divisor)
{
    nodeTimeDivisor = divisor;
}

int __wrap_ioctl(int fd, unsigned long request, ...)
{
    va_list arguments;
    va_start(arguments, request);
    const unsigned long value = va_arg(arguments, unsigned long);
    va_end(arguments);
    if (request == setWriteTimeout || request == setReadTimeout)
        return __real_ioctl(fd, request, (value + nodeTimeDivisor - 1) / nodeTimeDivisor);
    return __real_ioctl(fd, request, value);
}
