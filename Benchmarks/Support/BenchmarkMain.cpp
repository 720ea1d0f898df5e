// SPDX-License-Identifier: MIT
#include <benchmark/benchmark.h>
#include <malloc.h>

namespace {

constexpr int keptMemory = 1 << 28; // bytes

} // namespace

int main(int argc, char *argv[])
{
    // A batch is freed at once: what that gives back to the system would have to be asked for
    // again, page by page, within the next batch's time. A link has one message at a time to free.
    mallopt(M_TRIM_THRESHOLD, keptMemory);
    mallopt(M_MMAP_THRESHOLD, keptMemory);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 2;
    return benchmark::RunSpecifiedBenchmarks() > 0 ? 0 : 1;
}
