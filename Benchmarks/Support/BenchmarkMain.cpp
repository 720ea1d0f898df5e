// SPDX-License-Identifier: MIT
#include "Measure.h"

#include <Campaign.h>

#include <benchmark/benchmark.h>
#include <malloc.h>

namespace {

constexpr int keptMemory = 1 << 28; // bytes

// Prints a figure for each repetition, ns for one operation.
class FigureReporter : public benchmark::BenchmarkReporter
{
public:
    bool ReportContext(const Context & /*context*/) override { return true; }

    void ReportRuns(const std::vector<Run> &runs) override
    {
        for (const Run &run : runs) {
            if (run.error_occurred)
                _failed = true;
            else if (run.run_type == Run::RT_Iteration)
                report(run);
        }
    }

    bool hasFailed() const { return _failed; }

private:
    static void report(const Run &run)
    {
        const auto counter = run.counters.find(operationsCounter);
        const double operations = counter == run.counters.end() ? 1 : counter->second.value;
        Campaign::printFigure(run.run_name.function_name, run.GetAdjustedRealTime() / operations);
    }

    bool _failed = false;
};

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
    FigureReporter reporter;
    const size_t count = benchmark::RunSpecifiedBenchmarks(&reporter);
    return count > 0 && !reporter.hasFailed() ? 0 : 1;
}
