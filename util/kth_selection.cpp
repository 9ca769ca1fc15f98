/*
 * Multi-rank selection over (value, index) pairs.
 *
 * The answer is defined by a walk that visits the pairs in ascending order, one step per pair,
 * and picks the pair at each asked rank. Every pair is distinct, so that order is total and the
 * pair at a step does not depend on how it was found. The walk's course (which steps answer a
 * rank, where it stops, whether the ranks are reported out of order) depends on the ranks alone.
 * With the debug trace on, every step is printed, so the visited prefix is put in order and
 * walked; with it off, only the answered ranks are selected.
 */
#include <algorithm>
#include <utility>

#include "util/zel_utils_algo.h"

namespace zel {
namespace util {
namespace algo {

using namespace zel::debug;

namespace {

using Entry = std::pair<uint64_t, int>;

// Rejects inputs the selection cannot answer: the walk would otherwise step past the last value.
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

std::vector<Entry> entries_of(const std::vector<uint64_t>& values) {
    std::vector<Entry> entries(values.size());
    for (size_t i = 0; i < values.size(); ++i)
        entries[i] = {values[i], static_cast<int>(i)};
    return entries;
}

// Puts the entry of each rank in [rank, rank_end) (ascending, all inside [first, last)) at its
// place. The rank nearest the middle splits the range, so clustered ranks cost little more than
// one selection.
void select_ranks(std::vector<Entry>& entries, size_t first, size_t last, const int* rank,
                  const int* rank_end) {
    while (rank != rank_end) {
        if (last - first <= 32) {
            std::sort(entries.begin() + first, entries.begin() + last);
            return;
        }
        const size_t middle = first + (last - first) / 2;
        const int* split = std::lower_bound(rank, rank_end, static_cast<int>(middle));
        if (split == rank_end || (split != rank && middle - split[-1] < split[0] - middle)) --split;
        const size_t at = *split;
        std::nth_element(entries.begin() + first, entries.begin() + at, entries.begin() + last);
        select_ranks(entries, first, at, rank, split);
        first = at + 1;
        rank = split + 1;
    }
}

}  // namespace

ZelReturn find_kth_biggest_indices_in_vector(std::vector<uint64_t>& values, std::vector<int> ranks,
                                             std::vector<int>& indices) {
    if (!ranks_fit(values, ranks)) return 1;
    const int last = ranks.back();
    if (last < 0) return 0;

    // Ascending ranks stop the walk one step past the last rank. Other ranks let it go one step
    // past the largest, so that a rank smaller than one already answered is met and reported.
    const bool ascending = std::is_sorted(ranks.begin(), ranks.end());
    const int end = *std::max_element(ranks.begin(), ranks.end()) + 1;

    if (check_print_mask(ZONE_DBG, PRINT_TRACE)) {
        std::vector<Entry> order = entries_of(values);
        std::partial_sort(order.begin(), order.begin() + end, order.end());
        size_t next = 0;
        int wanted = ranks[next];
        for (int step = 0;;) {
            const Entry& top = order[step];
            ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  [%d] time(%lu)\n", step, top.first);
            if (step == wanted) {
                indices.push_back(top.second);
                ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  \tFound! -->[%d]=%d time(%lu)\n", step,
                        top.second, top.first);
                if (++next == ranks.size()) return 0;
                wanted = ranks[next];
                if (step > wanted) {
                    ZEL_LOG(ZONE_ERR, PRINT_ALWAYS,
                            "* input k_value vector is not ordered. %d,%d\n", step, wanted);
                    return 1;
                }
            }
            if (++step == end) {
                if (ascending) return 0;
                ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* input k_value vector is not ordered. %d,%d\n",
                        step, wanted);
                return 1;
            }
        }
    }

    // The same walk without its traces. It answers the leading strictly ascending ranks: a rank
    // equal to the one before it was passed when that one was answered, and is then waited for
    // until the walk ends.
    size_t answered = ranks[0] >= 0 ? 1 : 0;
    while (answered > 0 && answered < ranks.size() && ranks[answered] > ranks[answered - 1])
        ++answered;
    if (answered > 0) {
        std::vector<Entry> order = entries_of(values);
        select_ranks(order, 0, order.size(), ranks.data(), ranks.data() + answered);
        for (size_t i = 0; i < answered; ++i)
            indices.push_back(order[ranks[i]].second);
    }
    if (answered == ranks.size() || ascending) return 0;
    // Met at the step of the rank answered last, or else when the walk ends.
    const bool met = answered > 0 && ranks[answered] < ranks[answered - 1];
    ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* input k_value vector is not ordered. %d,%d\n",
            met ? ranks[answered - 1] : end, ranks[answered]);
    return 1;
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
