// SPDX-License-Identifier: MIT
#ifndef MEASURE_H
#define MEASURE_H

#include <benchmark/benchmark.h>

#include <chrono>

/**
 * Operations between two looks at the clock: fewer than the 100 messages that the FIFO takes, and
 * so few of the big ones that they stay in the processor's cache.
 */
constexpr int batchSizeFor(int payloadSize)
{
    return payloadSize > 1000 ? 8 : 64;
}

/** The counter of a run that tells how many operations one of its iterations holds. */
constexpr const char *operationsCounter = "operations";

/**
 * Times operation(0) to operation(count - 1) as one iteration, and cleanUp() apart from it. Each
 * figure is then for one operation.
 */
template <typename Operation, typename CleanUp>
void measureBatches(benchmark::State &state, int count, Operation operation, CleanUp cleanUp)
{
    using Clock = std::chrono::steady_clock;
    for (auto _ : state) {
        const Clock::time_point begin = Clock::now();
        for (int i = 0; i < count; ++i)
            operation(i);
        benchmark::ClobberMemory();
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - begin).count());
        cleanUp();
    }
    state.counters[operationsCounter] = count;
}

#endif
