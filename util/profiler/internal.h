// Helpers shared by the profiler's source files; not part of the public interface.
#pragma once

#include <climits>
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

// --- raw data taken in from elsewhere
//
// Raw data from another process, a file or a caller may carry counts that disagree with the array
// that holds them. Nothing reads a record by such counts without asking first whether it is there;
// reading stops where the array does, with one line, and everything before it happens as usual.

// Whether `size` bytes hold `iterations` iterations of `labels` records, both counts within int
// (record and node indices are 32-bit).
inline bool counts_fit(uint64_t iterations, uint64_t labels, uint64_t size) {
    if (iterations > INT_MAX || labels > INT_MAX) return false;
    if (iterations == 0 || labels == 0) return true;
    const uint64_t records = size / sizeof(ZelProfileData);
    return labels <= records && iterations <= records / labels;
}

// Whole records actually present in `p`'s raw-data array.
inline uint64_t records_held(const ZelProfiler& p) {
    return p.rawdata != nullptr ? p.rawdata_size / sizeof(ZelProfileData) : 0;
}

// The line of every refusal to read a record that the counts claim and the array lacks.
void log_rawdata_too_small(const ZelProfiler& p);

// Whether `p`'s array holds its first `iterations` iterations of num_label records; if not, logs
// the line above and returns false.
inline bool rawdata_holds(const ZelProfiler& p, uint64_t iterations) {
    if (counts_fit(iterations, p.num_label, records_held(p) * sizeof(ZelProfileData))) return true;
    log_rawdata_too_small(p);
    return false;
}

// --- the one walk of the stage tree
//
// Depth first, on a stack of its own rather than the thread's: raw data from another process can
// nest stages tens of thousands deep. Nodes are entered in the order a recursion would reach them
// and left after their children, so traces come out as a recursive walk would print them.
class TreeWalk {
  public:
    struct Frame {
        ProfileNode* node;
        int depth;
        size_t next_child;  // children before this one have been walked
        uint64_t value;     // the walker's own per-node value (a sum, an index)
    };

    void enter(ProfileNode* node, int depth, uint64_t value = 0) {
        stack_.push_back({node, depth, 0, value});
    }
    void leave() { stack_.pop_back(); }
    bool empty() const { return stack_.empty(); }
    Frame& top() { return stack_.back(); }
    // The frame of the node that `top()` is a child of, or null at the start of the walk.
    Frame* parent() { return stack_.size() > 1 ? &stack_[stack_.size() - 2] : nullptr; }

  private:
    std::vector<Frame> stack_;
};

enum class Visit { kInto, kOver, kStop };

// Walks the subtree at `node`. `on_enter(frame, parent)` sees each node first, `parent` being its
// parent's frame (null for `node`; the child's index is parent->next_child - 1); it may set
// frame.value, and returns kInto to walk the node's children, kOver to pass over them, kStop to end
// the walk. `on_leave(frame, parent)` follows a node's children. False when the walk was stopped.
template <typename OnEnter, typename OnLeave>
bool walk_tree(ProfileNode* node, int depth, OnEnter&& on_enter, OnLeave&& on_leave) {
    if (node == nullptr) return true;
    TreeWalk walk;
    TreeWalk::Frame first{node, depth, 0, 0};
    switch (on_enter(first, static_cast<TreeWalk::Frame*>(nullptr))) {
        case Visit::kStop:
            return false;
        case Visit::kOver:
            return true;
        case Visit::kInto:
            walk.enter(node, depth, first.value);
    }
    while (!walk.empty()) {
        TreeWalk::Frame& frame = walk.top();
        if (frame.next_child < frame.node->children.size()) {
            ProfileNode* child = frame.node->children[frame.next_child++].get();
            TreeWalk::Frame next{child, frame.depth + 1, 0, 0};
            const Visit visit = child != nullptr ? on_enter(next, &frame) : Visit::kOver;
            if (visit == Visit::kStop) return false;
            if (visit == Visit::kInto) walk.enter(child, next.depth, next.value);
            continue;
        }
        on_leave(frame, walk.parent());
        walk.leave();
    }
    return true;
}

// --- names and markers of the traces

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

// --- filling the tree (finalize's quiet path runs it a block of iterations at a time)

// Nodes opened and closed by each record position of an iteration (null where none is).
struct RecordNodes {
    std::vector<ProfileNode*> starts;
    std::vector<ProfileNode*> ends;
};
RecordNodes index_record_nodes(const ZelProfiler& p);

// Timestamps of iterations [begin, end) into the tree, as fill_data_to_tree does for all: 0, or 1
// after its error line.
ZelReturn fill_iterations(ZelProfiler& p, const RecordNodes& nodes, uint64_t begin, uint64_t end);

// Durations and self times of iterations [begin, end) for the whole tree, node by node: what
// calculate_self_time_nodes gives iteration by iteration, without its traces. Used when those
// traces are filtered out anyway.
void calculate_self_time_all(ProfileNode* root, uint64_t begin, uint64_t end);

}  // namespace profiler_internal

using profiler_internal::depth_marker;
using profiler_internal::label_name;
}  // namespace util
}  // namespace zel
