/*
 * Multi-rank selection on a binary min-heap of (value, index) pairs.
 */
#include <algorithm>
#include <functional>
#include <utility>

#include "util/zel_utils_algo.h"

namespace zel {
namespace util {
namespace algo {

using namespace zel::debug;

namespace {

// Rejects inputs the selection cannot answer: it would otherwise pop past the end of the heap.
bool ranks_fit(const std::vector<uint64_t>& values, const std::vector<int>& ranks) {
    if (values.empty()) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* no value to select from\n");
        return false;
    }
    if (ranks.empty()) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* no k value to find\n");
        return false;
    }
    for (int rank : ranks) {
        if (rank >= 0 && static_cast<uint64_t>(rank) >= values.size()) {
            ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* k value(%d) is out of range, size(%zu)\n", rank,
                    values.size());
            return false;
        }
    }
    return true;
}

}  // namespace

ZelReturn find_kth_biggest_indices_in_vector(std::vector<uint64_t>& values, std::vector<int> ranks,
                                             std::vector<int>& indices) {
    if (!ranks_fit(values, ranks)) return 1;

    // std::greater on pairs puts the smallest value on top, the smaller index first among equals.
    using Entry = std::pair<uint64_t, int>;
    const std::greater<Entry> later;
    std::vector<Entry> heap;
    heap.reserve(values.size());
    for (size_t i = 0; i < values.size(); ++i) {
        heap.emplace_back(values[i], static_cast<int>(i));
        std::push_heap(heap.begin(), heap.end(), later);
    }

    const int last = ranks.back();
    if (last < 0) return 0;

    size_t next = 0;
    int wanted = ranks[next];
    for (int step = 0;; ++step) {
        // Every rank that could still be answered was answered before the heap ran out.
        if (heap.empty()) return 0;
        const Entry& top = heap.front();
        ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  [%d] time(%lu)\n", step, top.first);
        if (step == wanted) {
            indices.push_back(top.second);
            ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  \tFound! -->[%d]=%d time(%lu)\n", step, top.second,
                    top.first);
            if (++next == ranks.size()) return 0;
            wanted = ranks[next];
            if (step > wanted) {
                ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* input k_value vector is not ordered. %d,%d\n",
                        step, wanted);
                return 1;
            }
        }
        std::pop_heap(heap.begin(), heap.end(), later);
        heap.pop_back();
        // The walk ends with the step one past the last rank: a last rank smaller than the one
        // before it (2 then 1) is then still met, answered and reported as out of order.
        if (step == last + 1) return 0;
    }
}

ZelReturn find_kth_biggest_index_in_vector(std::vector<uint64_t>& values, int rank, int& index) {
    std::vector<int> found;
    // A negative rank selects nothing, so there is no index to hand back.
    if (rank >= 0 && find_kth_biggest_indices_in_vector(values, {rank}, found) == 0 &&
        !found.empty()) {
        index = found.front();
        return 0;
    }
    ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Fail to find biggest index for k=%d\n", rank);
    return 1;
}

}  // namespace algo
}  // namespace util
}  // namespace zel
