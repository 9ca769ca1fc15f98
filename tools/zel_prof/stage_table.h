// The stages of a finalized profile as a flat list in tree order, with the per-iteration times
// of each and the summary figures the library's text report prints for it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "util/zel_utils_profiler.h"

namespace zel_prof {

struct Stage {
    std::string name;  // as the reports print it: the label's name, "_0x<postfix>" when non-zero
    std::string path;  // names from the top of the tree down to this stage, joined by "/"
    int depth = 0;     // 0 for the top of the tree
    int32_t label = 0;
    uint64_t postfix = 0;
    size_t parent = 0;  // index of the enclosing stage; the top of the tree is its own parent
    // Per iteration. The top of the tree has no times of its own: its time is the sum of the
    // top-level stages, which is also its self time.
    std::vector<uint64_t> time;
    std::vector<uint64_t> self_time;
};

// Self-time figures in the text summary's terms: the average as the library accumulates it,
// and the self times in the iterations the library picks as median and 90% (those whose total
// ranks n/2 and n*0.9), with the extremes over all iterations.
struct SummaryFigures {
    double average = 0;
    uint64_t median = 0;
    uint64_t p90 = 0;
    uint64_t min = 0;
    uint64_t max = 0;
};

struct StageTable {
    uint64_t iterations = 0;
    uint64_t median_iteration = 0;  // the iterations the text summary shows
    uint64_t p90_iteration = 0;
    std::vector<Stage> stages;  // tree order; stages[0] is the top of the tree
};

// The stages of `profiler`, which must be finalized. False with `error` when the profile holds
// no iteration.
bool BuildStageTable(const zel::util::ZelProfiler& profiler, StageTable* table, std::string* error);

// The summary figures of `values` (one per iteration) in the table's representative iterations.
SummaryFigures Summarize(const StageTable& table, const std::vector<uint64_t>& values);

}  // namespace zel_prof
