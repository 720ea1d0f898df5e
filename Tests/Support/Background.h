// SPDX-License-Identifier: MIT
#ifndef BACKGROUND_H
#define BACKGROUND_H

#include <chrono>
#include <future>

/** Runs a function in a thread of its own. The result waits for its end when it is destroyed. */
template <typename Function>
auto inBackground(Function function)
{
    return std::async(std::launch::async, function);
}

/** Whether the function ends within that time, ms. */
template <typename Result>
bool endsWithin(const std::future<Result> &result, int msecs)
{
    return result.wait_for(std::chrono::milliseconds(msecs)) == std::future_status::ready;
}

#endif
