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

// Appends to `indices` the index into `values` of each rank in `ranks`, answering all of them in
// one pass over a min-heap of (value, index) pairs. `ranks` must be ascending; a repeated rank is
// answered once. Returns 0, also when the last rank is negative (nothing is appended), or 1 with
// "* input k_value vector is not ordered. <step>,<rank>" when a rank is smaller than one already
// answered (the indices appended so far stay). Empty `values`, empty `ranks` or a rank at or
// beyond the number of values return 1 with an always-printed "* " line and append nothing.
ZelReturn find_kth_biggest_indices_in_vector(std::vector<uint64_t>& values, std::vector<int> ranks,
                                             std::vector<int>& indices);

// Stores in `index` the index of the element with rank `rank` and returns 0, or returns 1 with
// "* Fail to find biggest index for k=<rank>" (also for a negative rank, which has no element).
ZelReturn find_kth_biggest_index_in_vector(std::vector<uint64_t>& values, int rank, int& index);

}  // namespace algo
}  // namespace util
}  // namespace zel
