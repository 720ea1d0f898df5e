// SPDX-License-Identifier: MIT
// Received messages cut and delivered to their port's queue, against other framings; and a buffer
// full of small messages with the log on.

#include "BenchCore.h"
#include "Http2Peer.h"
#include "Measure.h"
#include "WslayPeer.h"

#include <string>

namespace {

constexpr int manyMessages = 16; // in one buffer

// A buffer that holds one or many messages, and what they carry.
struct Input
{
    QByteArray payload;
    int messages = 1;
    int buffers = 1; // in one batch

    int stored() const { return messages * buffers; }
};

void deliverByCore(benchmark::State &state, const Input &input)
{
    BenchCore core;
    const QByteArray buffer = dataMessage(BenchCore::port, input.payload).repeated(input.messages);
    core.locked([&](QMutexLocker &locker) {
        measureBatches(
            state, input.buffers, [&](int) { core._processAllMessages(buffer, locker); },
            [&] {
                require(core.holdsReceived(input.stored(), input.payload), "the core delivers");
                core._clearReadFifo();
            });
    });
}

template <typename Peer>
void deliverByPeer(benchmark::State &state, const Input &input, Peer &peer,
                   const QByteArray &buffer)
{
    measureBatches(
        state, input.buffers, [&](int) { peer.receive(buffer); },
        [&] {
            require(peer.stored.size() == input.stored() &&
                        peer.stored.constLast() == input.payload,
                    "the peer delivers");
            peer.clear();
        });
}

void deliverByHttp2(benchmark::State &state, const Input &input)
{
    Http2Peer peer;
    deliverByPeer(state, input, peer, Http2Peer::dataFrame(input.payload).repeated(input.messages));
}

void deliverByWslay(benchmark::State &state, const Input &input)
{
    WslayPeer peer;
    QList<QByteArray> frame;
    peer.frame(input.payload, frame);
    deliverByPeer(state, input, peer, frame.constFirst().repeated(input.messages));
}

// A buffer in which nothing but the number of messages changes, with every line written to the log.
void deliverLogged(benchmark::State &state, int messages, int payloadSize)
{
    BenchCore core(messages > 1); // of a buffer's last message nothing is left to log
    const QByteArray payload = patternBytes(payloadSize);
    const QByteArray buffer = dataMessage(BenchCore::port, payload).repeated(messages);
    core.locked([&](QMutexLocker &locker) {
        measureBatches(
            state, 1, [&](int) { core._processAllMessages(buffer, locker); },
            [&] {
                require(core.holdsReceived(messages, payload), "the core delivers with its log on");
                core._clearReadFifo();
            });
    });
}

// The figures of one message, so that buffers of different sizes can be compared.
void addLogged(const std::string &name, int messages, int payloadSize)
{
    benchmark::RegisterBenchmark(("buffer." + name).c_str(), [=](benchmark::State &state) {
        deliverLogged(state, messages, payloadSize);
        state.counters[operationsCounter] = messages;
    })->UseManualTime();
}

void add(const std::string &candidate, int size, int messages,
         void (*function)(benchmark::State &, const Input &))
{
    const Input input = {patternBytes(size), messages, batchSizeFor(size * messages)};
    const std::string name =
        "deliver." + candidate + '.' + std::to_string(size) + (messages > 1 ? ".many" : ".one");
    benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State &state) {
        function(state, input);
        state.counters[operationsCounter] = input.stored();
    })->UseManualTime();
}

const bool registered = [] {
    for (const int size : {16, 500, 10000}) {
        for (const int messages : {1, manyMessages}) {
            add("ours", size, messages, deliverByCore);
            add("nghttp2", size, messages, deliverByHttp2);
            add("wslay", size, messages, deliverByWslay);
        }
    }
    addLogged("10", 10, 3);
    addLogged("600", 600, 3);
    addLogged("whole", 625, 3);
    addLogged("single", 1, 9987);
    return true;
}();

} // namespace
