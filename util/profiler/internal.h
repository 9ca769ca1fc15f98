// Helpers shared by the profiler's source files; not part of the public interface.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "debug/zel_debug.h"
#include "src/common/zel_memory/buffer.h"
#include "util/zel_utils_profiler.h"

namespace zel {
namespace util {

// The log zones and options the profiler's sources pass to ZEL_LOG, and the buffer type they
// hand between processes.
using zel::debug::PRINT_ALWAYS;
using zel::debug::PRINT_IF_ON;
using zel::debug::PRINT_TRACE;
using zel::debug::ZONE_DBG;
using zel::debug::ZONE_ERR;
using zel::debug::ZONE_INF;
using zel::debug::ZONE_WAR;
using zel::memory::Buffer;
namespace profiler_internal {

// Whether `iterations` x `labels` records fit in `size` bytes. Raw data from another process may
// carry counts that disagree with its size; reading by such counts would run past the array.
inline bool counts_fit(uint64_t iterations, uint64_t labels, uint64_t size) {
    if (iterations == 0 || labels == 0) return true;
    const uint64_t records = size / sizeof(ZelProfileData);
    return labels <= records && iterations <= records / labels;
}

// Label name of a raw-data label word, compared and printed as its 32-bit value.
inline const char* label_name(int64_t label) {
    return ZelProfiler::labelToString(static_cast<ProfileLabel>(static_cast<int32_t>(label)));
}

// "*" followed by "**" per depth level, the marker of the tree traces. liblog cuts a line at
// 1023 characters, so the marker is never built longer than that.
inline std::string depth_marker(int depth) {
    const size_t stars = depth > 0 ? 2 * static_cast<size_t>(depth) : 0;
    return "*" + std::string(stars < 1024 ? stars : 1024, '*');
}

// Nodes opened and closed by each record position of an iteration (null where none is).
struct RecordNodes {
    std::vector<ProfileNode*> starts;
    std::vector<ProfileNode*> ends;
};
RecordNodes index_record_nodes(const ZelProfiler& p);

// Timestamps of iterations [begin, end) into the tree, as fill_data_to_tree does for all. 0, or 1
// after its error line.
ZelReturn fill_iterations(ZelProfiler& p, const RecordNodes& nodes, uint64_t begin, uint64_t end);

// Durations and self times of iterations [begin, end) for the whole tree, node by node: what
// calculate_self_time_nodes gives iteration by iteration, without its traces. Used when those
// traces are filtered out anyway.
void calculate_self_time_all(ProfileNode* root, uint64_t begin, uint64_t end);

}  // namespace profiler_internal

using profiler_internal::counts_fit;
using profiler_internal::depth_marker;
using profiler_internal::label_name;
}  // namespace util
}  // namespace zel
