// SPDX-License-Identifier: MIT
#ifndef SIMNODE_POLLTIMEOUT_H
#define SIMNODE_POLLTIMEOUT_H

#include <algorithm>
#include <chrono>
#include <climits>

namespace simnode {

/// Milliseconds for poll to wait until the deadline: rounded up, as a loop that is woken too early
/// would spin. A wait that is longer than poll can take ends early, and goes on with the next
/// round.
inline int pollTimeout(std::chrono::steady_clock::time_point deadline)
{
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now())
            .count();
    return static_cast<int>(std::clamp<decltype(left)>(left, 0, INT_MAX));
}

} // namespace simnode

#endif
