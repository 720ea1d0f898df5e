// SPDX-License-Identifier: MIT
// What the operations cost as messages pile up: unread ones on the port, and unsent ones.

#include "BenchCore.h"
#include "Measure.h"

#include <array>
#include <functional>
#include <string>

namespace {

constexpr int fifoLimit = 100;

class CrowdedCore : public BenchCore
{
public:
    explicit CrowdedCore(int unread) : _unread(unread)
    {
        for (int i = 0; i < unread; ++i)
            deliver();
    }

    void deliver() { require(receive(message), "the core takes a message"); }
    void fetch() { require(read(port, 1000) == payload, "the core hands a message out"); }
    void checkUnread() { require(queuedMessages(port) == _unread, "as many wait as at first"); }

    void deliverBatch()
    {
        for (int i = 0; i < batch; ++i)
            deliver();
    }
    void fetchBatch()
    {
        for (int i = 0; i < batch; ++i)
            fetch();
    }

    const QByteArray payload = patternBytes(16);
    const QByteArray message = dataMessage(port, payload);
    static constexpr int batch = batchSizeFor(16);

private:
    const int _unread;
};

void write(benchmark::State &state, int unread)
{
    CrowdedCore core(unread);
    measureBatches(
        state, CrowdedCore::batch, [&](int) { core.write(BenchCore::port, core.payload); },
        [&] {
            require(core.holdsWritten(CrowdedCore::batch, core.payload), "the core takes a write");
            core.locked([&](QMutexLocker &) { core._clearWriteFifo(); });
            core.checkUnread();
        });
}

void deliver(benchmark::State &state, int unread)
{
    CrowdedCore core(unread);
    measureBatches(
        state, CrowdedCore::batch, [&](int) { core.deliver(); },
        [&] {
            core.fetchBatch();
            core.checkUnread();
        });
}

void read(benchmark::State &state, int unread)
{
    CrowdedCore core(unread);
    core.deliverBatch();
    measureBatches(
        state, CrowdedCore::batch, [&](int) { core.fetch(); },
        [&] {
            core.checkUnread();
            core.deliverBatch();
        });
}

// Each of several FIFOs of so many messages is cleared of the port, which they all belong to.
void clear(benchmark::State &state, int unread, int unsent)
{
    constexpr int fifos = 16;
    CrowdedCore core(unread);
    std::array<QList<QByteArray>, fifos> prepared;
    const auto prepare = [&] {
        for (QList<QByteArray> &fifo : prepared) {
            for (int i = 0; i < unsent; ++i)
                fifo.append(QByteArray(core.message.constData(), core.message.size()));
        }
    };
    prepare();
    core.locked([&](QMutexLocker &) {
        measureBatches(
            state, fifos,
            [&](int i) {
                core._writeFifo.swap(prepared[static_cast<size_t>(i)]);
                const int removed = core._clearWriteFifoForPort(BenchCore::port);
                require(removed == unsent, "the core clears the FIFO");
            },
            prepare);
    });
}

void add(const std::string &name, const std::function<void(benchmark::State &)> &function)
{
    benchmark::RegisterBenchmark(("growth." + name).c_str(), function)->UseManualTime();
}

const bool registered = [] {
    for (const int unread : {1, 100, 10000, 100000}) {
        const std::string suffix = '.' + std::to_string(unread);
        add("write" + suffix, [=](benchmark::State &state) { write(state, unread); });
        add("deliver" + suffix, [=](benchmark::State &state) { deliver(state, unread); });
        add("read" + suffix, [=](benchmark::State &state) { read(state, unread); });
        add("clear" + suffix, [=](benchmark::State &state) { clear(state, unread, fifoLimit); });
    }
    for (const int unsent : {1, 10, fifoLimit})
        add("clearfifo." + std::to_string(unsent),
            [=](benchmark::State &state) { clear(state, 1, unsent); });
    return true;
}();

} // namespace
