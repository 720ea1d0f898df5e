// SPDX-License-Identifier: MIT
// How long a client's write takes, alone and from four threads, while the communication thread is
// in driver calls of 10 ms and pauses of 10 ms all the time.

#include "ClientThreads.h"
#include "Require.h"
#include "Statistics.h"

#include <Campaign.h>
#include <CoreProbe.h>
#include <WireMessages.h>

#include <QThread>

#include <chrono>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int port = 1;
constexpr int threads = 4;
constexpr int writesBetweenClears = 16; // of each thread; all threads' fit into the FIFO

class SlowDriver : public ScriptedDriver
{
public:
    SlowDriver() { setIdleHost(true); }

    int write(QByteArray data) override
    {
        QThread::msleep(10);
        return ScriptedDriver::write(data);
    }
    int read(QByteArray *data) override
    {
        QThread::msleep(10);
        return ScriptedDriver::read(data);
    }
};

class SlowCore : public CoreProbe
{
public:
    SlowCore() : CoreProbe(QSharedPointer<ScriptedDriver>(new SlowDriver)) {}
    ~SlowCore() override { stop(); }

    void clearFifo()
    {
        locked([this](QMutexLocker &) { _clearWriteFifo(); });
    }

    using UsbHAL::_clearWriteFifo;
};

double nanoseconds(Clock::duration time)
{
    return std::chrono::duration<double, std::nano>(time).count();
}

// The ns that each call took, of one thread.
class Writer
{
public:
    explicit Writer(SlowCore &core) : _core(core) {}

    void write()
    {
        const Clock::time_point begin = Clock::now();
        const int written = _core.write(port, _payload);
        _times.push_back(nanoseconds(Clock::now() - begin));
        require(written == _payload.size(), "a write is taken whole");
        if (_times.size() % writesBetweenClears == 0)
            _core.clearFifo();
    }

    const std::vector<double> &times() const { return _times; }

private:
    SlowCore &_core;
    const QByteArray _payload = patternBytes(16);
    std::vector<double> _times;
};

double mutexRoundTrip(int count)
{
    QMutex mutex;
    const Clock::time_point begin = Clock::now();
    for (int i = 0; i < count; ++i) {
        mutex.lock();
        mutex.unlock();
    }
    return nanoseconds(Clock::now() - begin) / count;
}

void measureAlone(SlowCore &core, int count)
{
    Writer writer(core);
    for (int i = 0; i < count; ++i)
        writer.write();
    Campaign::printFigure("latency.write.alone", Statistics::median(writer.times()));
}

void measureTogether(SlowCore &core, int msecs)
{
    std::vector<Writer> writers(threads, Writer(core));
    {
        const ClientThreads clients(
            threads, [&](int number) { writers[static_cast<size_t>(number - 1)].write(); });
        QThread::msleep(static_cast<unsigned long>(msecs));
    }
    std::vector<double> times;
    for (const Writer &writer : writers)
        times.insert(times.end(), writer.times().begin(), writer.times().end());
    Campaign::printFigure("latency.write.together", Statistics::quantile(times, 0.99));
    Campaign::printFigure("latency.write.longest", Statistics::quantile(times, 1));
}

} // namespace

int main(int argc, char *argv[])
{
    const int msecs = argc == 2 ? atoi(argv[1]) : 0;
    if (msecs <= 0) {
        std::fprintf(stderr, "bench_latency: it should be: bench_latency MILLISECONDS\n");
        return 2;
    }
    SlowCore core;
    require(core.connectLink(port), "the link comes up");
    const int cycles = core.driver->writes();
    Campaign::printFigure("latency.mutex", mutexRoundTrip(100 * msecs));
    measureAlone(core, 10 * msecs);
    measureTogether(core, msecs);
    require(core.driver->waitForWritten(cycles + 2), "the link went round meanwhile");
    return 0;
}
