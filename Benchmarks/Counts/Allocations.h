// SPDX-License-Identifier: MIT
#ifndef ALLOCATIONS_H
#define ALLOCATIONS_H

#include <cstddef>

/**
 * The memory that a program asks for, which has to be linked with this. One thread at a time.
 */
namespace Allocations {

/** Runs a function and returns how often it asked for at least so many bytes. */
template <typename Function>
int count(Function function, std::size_t smallest = 0);

/** Bytes in use. */
std::size_t bytesInUse();

/** Counts from now on what asks for at least so many bytes, and returns what was counted so far. */
int restart(std::size_t smallest);

} // namespace Allocations

template <typename Function>
int Allocations::count(Function function, std::size_t smallest)
{
    restart(smallest);
    function();
    return restart(smallest);
}

#endif
