#include "zel_prof/stage_table.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "util/zel_utils_algo.h"

namespace zel_prof {

using zel::util::ProfileNode;
using zel::util::ZelProfiler;

bool BuildStageTable(const ZelProfiler& profiler, StageTable* table, std::string* error) {
    *table = StageTable{};
    if (!profiler.finalized || profiler.root == nullptr || profiler.num_iter == 0 ||
        profiler.root->self_time.size() != profiler.num_iter) {
        *error = "the profile holds no iteration";
        return false;
    }
    table->iterations = profiler.num_iter;

    // The iterations the summary shows, picked as the library picks them: by the total's rank.
    std::vector<uint64_t> totals = profiler.root->self_time;
    int median = 0;
    int p90 = 0;
    zel::util::algo::find_kth_biggest_index_in_vector(totals, static_cast<int>(totals.size() / 2),
                                                      median);
    zel::util::algo::find_kth_biggest_index_in_vector(
            totals, static_cast<int>(static_cast<double>(totals.size()) * 0.9), p90);
    table->median_iteration = static_cast<uint64_t>(median);
    table->p90_iteration = static_cast<uint64_t>(p90);

    // Depth first, children in order, without recursion: trees from devices can be deep.
    std::vector<std::pair<const ProfileNode*, size_t>> pending{{profiler.root.get(), 0}};
    while (!pending.empty()) {
        const ProfileNode* node = pending.back().first;
        const size_t parent = pending.back().second;
        pending.pop_back();
        Stage stage;
        stage.label = node->label;
        stage.postfix = node->labelPostfix;
        stage.name = ZelProfiler::labelToString(node->label);
        if (node->labelPostfix != 0) {
            char postfix[24];
            snprintf(postfix, sizeof(postfix), "_0x%llx",
                     static_cast<unsigned long long>(node->labelPostfix));
            stage.name += postfix;
        }
        const bool top = table->stages.empty();
        stage.parent = top ? 0 : parent;
        stage.depth = top ? 0 : table->stages[parent].depth + 1;
        stage.path = top ? stage.name : table->stages[parent].path + "/" + stage.name;
        stage.self_time = node->self_time;
        stage.time = top ? node->self_time : node->duration;
        const size_t index = table->stages.size();
        table->stages.push_back(std::move(stage));
        for (auto child = node->children.rbegin(); child != node->children.rend(); ++child)
            pending.emplace_back(child->get(), index);
    }
    return true;
}

SummaryFigures Summarize(const StageTable& table, const std::vector<uint64_t>& values) {
    SummaryFigures figures;
    if (values.empty()) return figures;
    // The library sums the low 32 bits in a signed 32-bit accumulator and reads the widened
    // sum as unsigned; the same arithmetic gives the same figure.
    uint32_t sum = 0;
    for (uint64_t value : values)
        sum += static_cast<uint32_t>(value);
    const uint64_t widened = static_cast<uint64_t>(static_cast<int64_t>(static_cast<int32_t>(sum)));
    figures.average = static_cast<double>(widened) / static_cast<double>(table.iterations);
    figures.median = values[std::min<uint64_t>(table.median_iteration, values.size() - 1)];
    figures.p90 = values[std::min<uint64_t>(table.p90_iteration, values.size() - 1)];
    const auto range = std::minmax_element(values.begin(), values.end());
    figures.min = *range.first;
    figures.max = *range.second;
    return figures;
}

}  // namespace zel_prof
