// SPDX-License-Identifier: MIT
#ifndef STATISTICS_H
#define STATISTICS_H

#include "Require.h"

#include <algorithm>
#include <cstddef>
#include <numeric>
#include <vector>

/** What is told about many values of one kind; there must be one at least. */
namespace Statistics {

/** The value that is not exceeded by that share of the values, 0 to 1. */
template <typename Value>
Value quantile(std::vector<Value> values, double share)
{
    require(!values.empty(), "there are values to judge");
    const double last = static_cast<double>(values.size() - 1);
    const auto index = static_cast<std::ptrdiff_t>(share * last + 0.5);
    std::nth_element(values.begin(), values.begin() + index, values.end());
    return values[static_cast<std::size_t>(index)];
}

template <typename Value>
Value median(const std::vector<Value> &values)
{
    return quantile(values, 0.5);
}

template <typename Value>
double mean(const std::vector<Value> &values)
{
    require(!values.empty(), "there are values to judge");
    return std::accumulate(values.begin(), values.end(), 0.0) / static_cast<double>(values.size());
}

} // namespace Statistics

#endif
