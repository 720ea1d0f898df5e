// SPDX-License-Identifier: MIT
#include "Phase.h"

#include "Require.h"
#include "Statistics.h"

#include <Campaign.h>

#include <QElapsedTimer>
#include <QEventLoop>
#include <QTimer>

#include <sys/resource.h>
#include <time.h>

namespace {

constexpr int roughCycle = 21;     // ms
constexpr int longestWait = 60000; // ms

double clockTime(clockid_t clock)
{
    timespec time = {};
    clock_gettime(clock, &time);
    return 1e9 * static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec);
}

double switches(int who)
{
    rusage usage = {};
    getrusage(who, &usage);
    return static_cast<double>(usage.ru_nvcsw + usage.ru_nivcsw);
}

} // namespace

Usage Usage::soFar()
{
    Usage usage;
    usage.processTime = clockTime(CLOCK_PROCESS_CPUTIME_ID);
    usage.threadTime = usage.processTime - clockTime(CLOCK_THREAD_CPUTIME_ID);
    usage.processSwitches = switches(RUSAGE_SELF);
    usage.threadSwitches = usage.processSwitches - switches(RUSAGE_THREAD);
    return usage;
}

void spin(int msecs)
{
    QEventLoop loop;
    QTimer::singleShot(msecs, Qt::PreciseTimer, &loop, &QEventLoop::quit);
    loop.exec();
}

void spinUntil(const char *what, const std::function<bool()> &condition)
{
    QElapsedTimer timer;
    timer.start();
    while (!condition()) {
        require(timer.elapsed() < longestWait, what);
        spin(roughCycle);
    }
}

Phase::Phase(const HostProcess &host, int cycles)
{
    const quint32 first = host.exchanges();
    _before = Usage::soFar();
    spin(cycles * roughCycle);
    spinUntil("the link goes round", // on a busy machine it takes longer
              [&] { return host.exchanges() - first >= static_cast<quint32>(cycles) / 2; });
    _after = Usage::soFar();
    const quint32 last = host.exchanges();
    for (quint32 i = first; i < last; ++i)
        _exchanges.push_back(host.exchange(i));
}

void Phase::printCycles(const std::string &candidate) const
{
    std::vector<double> times;
    for (size_t i = 1; i < _exchanges.size(); ++i)
        times.push_back(static_cast<double>(_exchanges[i].time - _exchanges[i - 1].time));
    Campaign::printFigure("link." + candidate + ".mean", Statistics::mean(times));
    Campaign::printFigure("link." + candidate + ".p99", Statistics::quantile(times, 0.99));
}

void Phase::printUsage(const std::string &candidate) const
{
    const auto print = [&](const char *what, double Usage::*field) {
        const double perCycle =
            (_after.*field - _before.*field) / static_cast<double>(_exchanges.size());
        Campaign::printFigure("link." + candidate + what, perCycle);
    };
    print(".process.time", &Usage::processTime);
    print(".process.switches", &Usage::processSwitches);
    print(".thread.time", &Usage::threadTime);
    print(".thread.switches", &Usage::threadSwitches);
}

double Phase::meanCycle() const
{
    const auto time = static_cast<double>(_exchanges.back().time - _exchanges.front().time);
    return time / static_cast<double>(_exchanges.size() - 1);
}

double Phase::rateToDevice() const
{
    return rate(&HostProcess::Exchange::bytesToDevice);
}

double Phase::rateToHost() const
{
    return rate(&HostProcess::Exchange::bytesToHost);
}

double Phase::rate(qint64 HostProcess::Exchange::*bytes) const
{
    const HostProcess::Exchange &first = _exchanges.front();
    const HostProcess::Exchange &last = _exchanges.back();
    return 1e9 * static_cast<double>(last.*bytes - first.*bytes) /
           static_cast<double>(last.time - first.time);
}
