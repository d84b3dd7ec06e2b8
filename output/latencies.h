/*
 * latencies.h: how long events were on their way, as counts of ranges.
 */
#ifndef OUTPUT_LATENCIES_H
#define OUTPUT_LATENCIES_H

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <iterator>

namespace output
{

struct Latencies {
    /* Microseconds up to which a range goes; the last range has no bound. */
    static constexpr uint64_t kBounds[] = {100,    250,     500,     1000,    2500,      5000,      10'000,    25'000,
                                           50'000, 100'000, 250'000, 500'000, 1'000'000, 2'500'000, 10'000'000};
    static constexpr size_t kRanges = std::size(kBounds) + 1;

    std::array<uint64_t, kRanges> counts = {};
    uint64_t count = 0, sum_us = 0;

    void add(uint64_t us)
    {
        counts[static_cast<size_t>(std::lower_bound(std::begin(kBounds), std::end(kBounds), us) - kBounds)]++;
        count++;
        sum_us += us;
    }
};

}  // namespace output

#endif
