// SPDX-License-Identifier: MIT
#ifndef COMPARISON_H
#define COMPARISON_H

#include "Sequence.h"

#include <array>
#include <functional>
#include <optional>

/** How much was compared. */
struct Amount
{
    quint64 steps = 0;
    quint64 events = 0; ///< log lines, signals, driver calls and results
    std::array<quint64, Step::KindCount> kinds = {};
    std::array<quint64, Call::KindCount> calls = {};
};

/**
 * Does a sequence to the library's core and to the model, and compares after each step what both
 * did and the state in which they are. Returns the first difference, nothing if there is none.
 */
std::optional<QString> compare(const Sequence &sequence, Amount &amount);

/**
 * Takes steps away from a sequence that fails, as long as it still fails. What is left fails, and
 * needs each of its steps for that.
 */
Sequence shrunk(Sequence sequence, const std::function<bool(const Sequence &)> &fails);

#endif
