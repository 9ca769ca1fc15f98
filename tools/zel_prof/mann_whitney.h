// Two-sample statistics for comparing profiles: the two-sided Mann-Whitney U test over
// per-iteration durations, and order statistics with the library's rank convention.
#pragma once

#include <cstdint>
#include <vector>

namespace zel_prof {

struct MannWhitneyResult {
    double u = 0;        // U of the first sample: pairs (x, y) with x > y, ties counting one half
    double p = 1;        // two-sided p-value
    bool exact = false;  // p from the exact null distribution rather than the normal one
};

// Two-sided Mann-Whitney U test of `x` against `y` (both non-empty). The exact null distribution
// is used when one sample has at most 8 values and no value occurs twice across both; otherwise
// the normal approximation with the tie correction of the variance and a continuity correction
// of 1/2 towards the mean. The p-value is twice the tail beyond the larger of the two U values,
// capped at 1.
MannWhitneyResult MannWhitneyU(const std::vector<uint64_t>& x, const std::vector<uint64_t>& y);

// The value of rank `rank` (counted from 0) among `values` in ascending order, the rank the
// library's reports use: the median is rank n/2, the 90th percentile rank n*0.9 truncated.
// `values` must not be empty.
uint64_t ValueAtRank(std::vector<uint64_t> values, uint64_t rank);
uint64_t Median(const std::vector<uint64_t>& values);
uint64_t Percentile90(const std::vector<uint64_t>& values);

}  // namespace zel_prof
