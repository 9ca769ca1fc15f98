/*
 * Order selection over series of 64-bit measurements (stage times of the profiler).
 *
 * A rank r, counted from 0, names the element that stands at position r when the values are
 * sorted in ascending order, equal values ordered by ascending index: rank 0 is the smallest
 * value, rank n-1 the largest. A median of n values is rank n/2.
 */
#pragma once

#include <cstdint>
#include <vector>

#include "debug/zel_debug.h"

namespace zel {
namespace util {
namespace algo {

// Appends to `indices` the index into `values` of each rank in `ranks`. The answer is that of a
// walk over the values in ascending order, one step per value, that answers each rank at its
// step: with zone 3's trace on, every step prints "  [<step>] time(<value>)" and every answer
// "  \tFound! -->[<step>]=<index> time(<value>)". `ranks` must be ascending; a rank equal to the
// one before it is passed already when it comes up, so it is not answered again and the walk
// waits for it until it stops one step past the last rank. Returns 0, also when the last rank is
// negative (nothing is appended). Ranks that are not ascending return 1 with
// "* input k_value vector is not ordered. <step>,<rank>" (the indices appended so far stay): at
// the step where a rank smaller than the one just answered comes up, or else one step past the
// largest rank. Empty `values`, empty `ranks` or a rank at or beyond the number of values return
// 1 with an always-printed "* " line and append nothing.
ZelReturn find_kth_biggest_indices_in_vector(std::vector<uint64_t>& values, std::vector<int> ranks,
                                             std::vector<int>& indices);

// Stores in `index` the index of the element with rank `rank` and returns 0, or returns 1 with
// "* Fail to find biggest index for k=<rank>" (also for a negative rank, which has no element).
ZelReturn find_kth_biggest_index_in_vector(std::vector<uint64_t>& values, int rank, int& index);

}  // namespace algo
}  // namespace util
}  // namespace zel
