// Result reports of a finalized profiler: the multi-record table and the summary.
//
// Representative iterations are chosen once, by ranking the root's self time (the whole request)
// across iterations; every stage is then shown in those same iterations, so that a row reads as
// "this stage in the iteration that was typical for the request". Both go through the profiler's
// tree walk, so that deeply nested raw data cannot exhaust the thread's stack.
#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

#include "util/profiler/internal.h"
#include "util/zel_utils_algo.h"
#include "util/zel_utils_profiler.h"

namespace zel {
namespace util {

namespace {

constexpr size_t kCellLimit = 15;  // a cell of this many characters or more stops the row
constexpr size_t kCellWidth = 18;
constexpr size_t kColumns = 7;

// liblog cuts every line at 1023 characters, so a deeper prefix than this could never show;
// capping it keeps the cost of a line independent of its depth.
constexpr size_t kPrefixLimit = 1024;

std::string depth_prefix(int depth) {
    return std::string(depth > 0 ? std::min(static_cast<size_t>(depth), kPrefixLimit) : 0, '_');
}

void pad_append(std::string& line, const std::string& cell) {
    if (cell.size() < kCellWidth) line.append(kCellWidth - cell.size(), ' ');
    line += cell;
}

bool indices_valid(const std::vector<int>& indices, size_t iterations) {
    for (int index : indices) {
        if (index < 0 || static_cast<size_t>(index) >= iterations) return false;
    }
    return true;
}

}  // namespace

void ZelProfiler::show_output(bool force) {
    if (!finalized) {
        ZEL_LOG(ZONE_WAR, PRINT_IF_ON, "  Not finalized so skip show output\n");
        return;
    }
    if (!show_flag && !force) {
        ZEL_LOG(ZONE_INF, PRINT_ALWAYS, "* Output show flag OFF. Skip print profile\n");
        return;
    }
    show_result_multi_records(0.9f, 3);
    if (show_result_summary() != 0) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Fail to show_result_summary\n");
        throw std::runtime_error("finalize fail\n");
    }
}

ZelReturn ZelProfiler::show_result_multi_records(float ratio, int range) {
    const int32_t center = static_cast<int32_t>(static_cast<float>(num_iter) * ratio);
    int32_t start = center - range;
    int32_t end = center + range;
    if (start < 0) {
        ZEL_LOG(ZONE_WAR, PRINT_IF_ON,
                "  Profiler: start iter is invalid so it has been changed to 0. (%.3f, %d)\n",
                static_cast<double>(ratio), range);
        start = 0;
    }
    if (end >= static_cast<int32_t>(num_iter)) {
        ZEL_LOG(ZONE_WAR, PRINT_IF_ON,
                "  Profiler: end iter is invalid(%d) so it has been changed to %lu. (%.3f, %d)\n",
                end, num_iter - 1, static_cast<double>(ratio), range);
        end = static_cast<int32_t>(num_iter - 1);
    }
    ZEL_LOG(ZONE_INF, PRINT_ALWAYS, "* print result of iter(%d~%d)\n", start, end);
    show_result_nth_nodes(start, end, root);
    return 0;
}

ZelReturn ZelProfiler::show_result_nth_nodes(int start_rank, int end_rank,
                                             std::shared_ptr<ProfileNode> node) {
    // Ranks outside the series cannot be answered: asking anyway would read past it, and a range
    // of them is refused before anything is built for it.
    const bool ranks_valid =
            node && (end_rank < start_rank ||
                     (start_rank >= 0 && static_cast<size_t>(end_rank) < node->self_time.size()));
    std::vector<int> ranks;
    for (int rank = start_rank; ranks_valid && rank <= end_rank; ++rank) {
        ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  ------- rank to find : %d\n", rank);
        ranks.push_back(rank);
    }
    std::vector<int> indices;
    if (!ranks_valid ||
        algo::find_kth_biggest_indices_in_vector(node->self_time, ranks, indices) != 0 ||
        indices.size() != ranks.size()) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Fail to find biggest indices vector\n");
        return 1;
    }
    for (int index : indices)
        ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  ------- found index: %d\n", index);

    for (size_t row = 0; row < ranks.size(); row += kColumns) {
        const size_t row_end = std::min(ranks.size(), row + kColumns);
        std::vector<int> row_ranks(ranks.begin() + row, ranks.begin() + row_end);
        std::vector<int> row_indices(indices.begin() + row, indices.begin() + row_end);
        for (size_t j = 0; j < row_ranks.size(); ++j) {
            ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  [%d]=%d\n", row_ranks[j], row_indices[j]);
        }
        show_records_7columns(0, row_ranks, row_indices, node);
    }
    return 0;
}

void ZelProfiler::show_records_7columns(int depth, std::vector<int> ranks, std::vector<int> indices,
                                        std::shared_ptr<ProfileNode> node) {
    using profiler_internal::TreeWalk;
    using profiler_internal::Visit;
    if (!node || ranks.size() != indices.size() ||
        !indices_valid(indices, node->self_time.size())) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Wrong iteration columns. ranks(%zu) indices(%zu)\n",
                ranks.size(), indices.size());
        return;
    }

    // Prints one node's line (and, for TOTAL, the banner and heading). When a cell is too wide,
    // that node and its subtree are left out and the rest of the table goes on.
    auto print_node = [&](TreeWalk::Frame& frame, TreeWalk::Frame*) {
        const ProfileNode* n = frame.node;
        if (n->label == TOTAL) {
            ZEL_LOG(ZONE_INF, PRINT_ALWAYS,
                    "* ===========================================  Result: modelId(0x%016lx)  "
                    "unit(us) iter(%8lu)  ==============================================\n",
                    key, num_iter);
            std::string heading;
            for (int rank : ranks) {
                const std::string cell = " [" + std::to_string(rank) + "th]";
                if (cell.size() >= kCellLimit) {
                    ZEL_LOG(ZONE_ERR, PRINT_IF_ON,
                            "  laben name size is too big. so stop print. %d vs %d\n",
                            static_cast<int>(cell.size()), static_cast<int>(kCellLimit));
                    return Visit::kOver;
                }
                pad_append(heading, cell);
            }
            ZEL_LOG(ZONE_INF, PRINT_ALWAYS, "* %s\n", heading.c_str());
        }
        std::string line;
        for (int index : indices) {
            const uint64_t value = n->self_time[index];
            const std::string cell = std::to_string(value);
            if (cell.size() >= kCellLimit) {
                ZEL_LOG(ZONE_ERR, PRINT_IF_ON,
                        "  String size is big(%d). Timevalue(%lu) might be too big. so stop "
                        "print. (limit:%d)\n",
                        static_cast<int>(cell.size()), value, static_cast<int>(kCellLimit));
                return Visit::kOver;
            }
            pad_append(line, cell);
        }
        const std::string prefix = depth_prefix(frame.depth);
        if (n->labelPostfix != 0) {
            ZEL_LOG(ZONE_INF, PRINT_ALWAYS, "*  %s %s%s_0x%lx\n", line.c_str(), prefix.c_str(),
                    labelToString(n->label), n->labelPostfix);
        } else {
            ZEL_LOG(ZONE_INF, PRINT_ALWAYS, "*  %s %s%s\n", line.c_str(), prefix.c_str(),
                    labelToString(n->label));
        }
        return Visit::kInto;
    };
    auto close_total = [](TreeWalk::Frame& frame, TreeWalk::Frame*) {
        if (frame.node->label != TOTAL) return;
        ZEL_LOG(ZONE_INF, PRINT_ALWAYS,
                "* "
                "=============================================================================="
                "=============================================================================="
                "=\n");
    };
    profiler_internal::walk_tree(node.get(), depth, print_node, close_total);
}

ZelReturn ZelProfiler::show_result_summary() {
    if (!root) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* No profile tree to summarise\n");
        return 1;
    }
    const size_t n = root->self_time.size();
    const size_t rank_90 = static_cast<size_t>(static_cast<double>(n) * 0.9);
    if (!(num_iter > rank_90)) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Wrong 90th index(%zu)>%lu\n", rank_90, num_iter);
        return 1;
    }
    int idx_90 = 0;
    if (rank_90 >= n || algo::find_kth_biggest_index_in_vector(
                                root->self_time, static_cast<int>(rank_90), idx_90) != 0) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Fail to get median. rank(%zu)\n", rank_90);
        return 1;
    }
    const size_t rank_median = static_cast<size_t>(num_iter / 2);
    int idx_median = 0;
    if (rank_median >= n ||
        algo::find_kth_biggest_index_in_vector(root->self_time, static_cast<int>(rank_median),
                                               idx_median) != 0) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Fail to get median. rank(%zu)\n", rank_median);
        return 1;
    }
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  Median(%zu th)->%d, 90%%(%zu th)->%d\n", rank_median,
            idx_median, rank_90, idx_90);
    show_result_summary_nodes(0, idx_90, idx_median, root);
    return 0;
}

ZelReturn ZelProfiler::show_result_summary_nodes(int depth, int idx_90, int idx_median,
                                                 std::shared_ptr<ProfileNode> node) {
    using profiler_internal::TreeWalk;
    using profiler_internal::Visit;
    if (!node || !indices_valid({idx_90, idx_median}, node->self_time.size())) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Wrong summary iterations. 90%%(%d) median(%d)\n", idx_90,
                idx_median);
        return 1;
    }

    auto print_node = [&](TreeWalk::Frame& frame, TreeWalk::Frame*) {
        const ProfileNode* n = frame.node;
        if (n->label == TOTAL) {
            ZEL_LOG(ZONE_INF, PRINT_ALWAYS,
                    "* ============  Result: modelId(0x%016lx)  unit(us) iter(%8lu)  "
                    "=============\n",
                    key, num_iter);
            ZEL_LOG(ZONE_INF, PRINT_ALWAYS,
                    "*              <avg>              <median>               <90%%>   "
                    "<label>\n");
        }
        // The total is kept in 32 bits, wrapping, and read back sign-extended: a total above
        // 2^31 us prints as a huge average. Readers of these reports rely on the numbers as
        // they have always come out.
        uint32_t total = 0;
        for (uint64_t value : n->self_time)
            total += static_cast<uint32_t>(value);
        const int64_t widened = static_cast<int32_t>(total);
        const double average =
                static_cast<double>(static_cast<uint64_t>(widened)) / static_cast<double>(num_iter);
        const std::string prefix = depth_prefix(frame.depth);
        if (n->labelPostfix != 0) {
            ZEL_LOG(ZONE_INF, PRINT_ALWAYS,
                    "*       %12.1f          %12lu        %12lu    %s%s_0x%lx\n", average,
                    n->self_time[idx_median], n->self_time[idx_90], prefix.c_str(),
                    labelToString(n->label), n->labelPostfix);
        } else {
            ZEL_LOG(ZONE_INF, PRINT_ALWAYS, "*       %12.1f          %12lu        %12lu    %s%s\n",
                    average, n->self_time[idx_median], n->self_time[idx_90], prefix.c_str(),
                    labelToString(n->label));
        }
        return Visit::kInto;
    };
    auto close_total = [](TreeWalk::Frame& frame, TreeWalk::Frame*) {
        if (frame.node->label != TOTAL) return;
        ZEL_LOG(ZONE_INF, PRINT_ALWAYS,
                "* "
                "=============================================================================="
                "===========\n");
    };
    profiler_internal::walk_tree(node.get(), depth, print_node, close_total);
    return 0;
}

}  // namespace util
}  // namespace zel
