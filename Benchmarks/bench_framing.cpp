// SPDX-License-Identifier: MIT
// One message framed into the FIFO, against a copy of its payload and against other framings.

#include "BenchCore.h"
#include "Http2Peer.h"
#include "Measure.h"
#include "WslayPeer.h"

#include <cstring>
#include <string>
#include <vector>

namespace {

void frameByCore(benchmark::State &state, const QByteArray &payload, int count)
{
    BenchCore core;
    core.locked([&](QMutexLocker &) {
        measureBatches(
            state, count, [&](int) { core.queue(payload); },
            [&] {
                require(core.holdsWritten(count, payload), "the core frames");
                core._clearWriteFifo();
            });
    });
}

void writeByClient(benchmark::State &state, const QByteArray &payload, int count)
{
    BenchCore core;
    measureBatches(
        state, count, [&](int) { core.write(BenchCore::port, payload); },
        [&] {
            require(core.holdsWritten(count, payload), "the core takes what is written");
            core._clearWriteFifo();
        });
}

void copy(benchmark::State &state, const QByteArray &payload, int count)
{
    const auto size = static_cast<size_t>(payload.size());
    std::vector<std::vector<char>> copies(static_cast<size_t>(count), std::vector<char>(size));
    measureBatches(
        state, count,
        [&](int i) {
            char *const target = copies[static_cast<size_t>(i)].data();
            std::memcpy(target, payload.constData(), size);
            benchmark::DoNotOptimize(target);
        },
        [&] {
            require(payload == QByteArray(copies.back().data(), payload.size()), "memcpy copies");
        });
}

void copyIntoFifo(benchmark::State &state, const QByteArray &payload, int count)
{
    QList<QByteArray> fifo;
    measureBatches(
        state, count, [&](int) { fifo.append(QByteArray(payload.constData(), payload.size())); },
        [&] {
            require(fifo.size() == count && fifo.constLast() == payload, "the copy is there");
            fifo.clear();
        });
}

void frameByHttp2(benchmark::State &state, const QByteArray &payload, int count)
{
    Http2Peer peer;
    QList<QByteArray> fifo;
    measureBatches(
        state, count, [&](int) { peer.frame(payload, fifo); },
        [&] {
            require(fifo.size() == count && fifo.constLast() == Http2Peer::dataFrame(payload),
                    "nghttp2 frames");
            fifo.clear();
            peer.rest();
        });
}

void frameByWslay(benchmark::State &state, const QByteArray &payload, int count)
{
    WslayPeer peer;
    QList<QByteArray> fifo;
    measureBatches(
        state, count, [&](int) { peer.frame(payload, fifo); },
        [&] {
            require(fifo.size() == count && fifo.constLast().endsWith(payload), "wslay frames");
            fifo.clear();
        });
}

void add(const std::string &candidate, int size,
         void (*function)(benchmark::State &, const QByteArray &, int))
{
    const QByteArray payload = patternBytes(size);
    const int count = batchSizeFor(size);
    benchmark::RegisterBenchmark(("frame." + candidate + '.' + std::to_string(size)).c_str(),
                                 [=](benchmark::State &state) { function(state, payload, count); })
        ->UseManualTime();
}

const bool registered = [] {
    for (const int size : {16, 500, 10000}) {
        add("ours", size, frameByCore);
        add("client", size, writeByClient);
        add("copy", size, copy);
        add("owned", size, copyIntoFifo);
        add("nghttp2", size, frameByHttp2);
        add("wslay", size, frameByWslay);
    }
    return true;
}();

} // namespace
