// SPDX-License-Identifier: MIT
#include "Allocations.h"

#include <cstdlib>
#include <malloc.h>
#include <utility>

namespace {

int counted = 0;
std::size_t threshold = 0;

void note(std::size_t size)
{
    if (size >= threshold)
        ++counted;
}

} // namespace

int Allocations::restart(std::size_t smallest)
{
    threshold = smallest;
    return std::exchange(counted, 0);
}

std::size_t Allocations::bytesInUse()
{
    return mallinfo2().uordblks;
}

// Stand before the C library's own, for the libraries of the process, too.
extern "C" {

void *__libc_malloc(std::size_t size);
void *__libc_calloc(std::size_t count, std::size_t size);
void *__libc_realloc(void *memory, std::size_t size);

__attribute__((visibility("default"))) void *malloc(std::size_t size) noexcept
{
    note(size);
    return __libc_malloc(size);
}

__attribute__((visibility("default"))) void *calloc(std::size_t count, std::size_t size) noexcept
{
    note(count * size);
    return __libc_calloc(count, size);
}

__attribute__((visibility("default"))) void *realloc(void *memory, std::size_t size) noexcept
{
    note(size);
    return __libc_realloc(memory, size);
}

} // extern "C"
