// SPDX-License-Identifier: MIT
#include "Payloads.h"

#include <cstring>

namespace {

// One step of a generator whose states need not be close to random (splitmix64).
quint64 nextWord(quint64 &state)
{
    state += 0x9e3779b97f4a7c15u;
    quint64 word = state;
    word = (word ^ (word >> 30)) * 0xbf58476d1ce4e5b9u;
    word = (word ^ (word >> 27)) * 0x94d049bb133111ebu;
    return word ^ (word >> 31);
}

int sizeFor(quint64 word)
{
    const auto within = [word](quint64 from, quint64 to) {
        return static_cast<int>(from + (word >> 8) % (to - from + 1));
    };
    const quint64 percent = word % 100;
    if (percent < 86)
        return within(1, 5);
    return percent < 93 ? within(6, 499) : within(500, 987);
}

} // namespace

QByteArray payloadOf(Way way, int port, quint64 number)
{
    quint64 state = (static_cast<quint64>(way) << 60) + (static_cast<quint64>(port) << 40) + number;
    QByteArray payload(sizeFor(nextWord(state)), Qt::Uninitialized);
    for (int i = 0; i < payload.size(); i += int(sizeof(quint64))) {
        const quint64 word = nextWord(state);
        const int size = qMin(int(sizeof word), payload.size() - i);
        std::memcpy(payload.data() + i, &word, static_cast<size_t>(size));
    }
    return payload;
}
