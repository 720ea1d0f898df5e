// SPDX-License-Identifier: MIT
#include "DividedTime.h"

#include <VirtualTime.h>

#include <atomic>

// The linker is told to send the library's ioctl() here (--wrap); the node's two requests carry a
// time in ms as their value.
extern "C" {
int __real_ioctl(int fd, unsigned long request, unsigned int value) noexcept;
int __wrap_ioctl(int fd, unsigned long request, unsigned int value) noexcept;
}

namespace {

std::atomic<unsigned int> timeoutDivisor{1};

} // namespace

void DividedTime::begin()
{
    VirtualTime::setPauseDivisor(divisor);
    timeoutDivisor = divisor;
}

int __wrap_ioctl(int fd, unsigned long request, unsigned int value) noexcept
{
    return __real_ioctl(fd, request, value / timeoutDivisor);
}
