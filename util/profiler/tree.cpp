// The stage tree: built from the nesting of (label, postfix) pairs in iteration 0, filled with
// every iteration's times, then durations and self times.
//
// Every walk goes through the profiler's one tree walk, which keeps its own stack instead of
// recursing: raw data from another process can nest tens of thousands of stages deep.
#include <algorithm>
#include <climits>
#include <vector>

#include "util/profiler/internal.h"
#include "util/zel_utils_profiler.h"

namespace zel {
namespace util {

namespace {

bool trace_on(zel::debug::DbgPartition zone) {
    return zel::debug::check_print_mask(zone, zel::debug::PRINT_TRACE);
}

// Per-iteration slots of a new node: one for every iteration the array at least begins. One it
// does not even begin can never be filled, and sizing for it would let a count from elsewhere
// demand any amount of memory.
int node_slots(const ZelProfiler& p) {
    const uint64_t held = profiler_internal::records_held(p);
    const uint64_t begun = p.num_label != 0 ? held / p.num_label + (held % p.num_label != 0) : held;
    return static_cast<int>(std::min<uint64_t>({p.num_iter, begun, INT_MAX}));
}

}  // namespace

ZelReturn ZelProfiler::grow_tree() {
    start_node_map.clear();
    end_node_map.clear();
    root = std::make_shared<ProfileNode>(node_slots(*this));
    root->label = TOTAL;
    root->labelPostfix = 0;
    int cur_idx = 0;
    std::pair<ProfilerLabelType, ProfilerKeyType> pair(TOTAL, 0);
    return append_nodes_to_tree(0, cur_idx, pair, root);
}

ZelReturn ZelProfiler::append_nodes_to_tree(
        int depth, int& cur_idx, std::pair<ProfilerLabelType, ProfilerKeyType>& parent_label,
        std::shared_ptr<ProfileNode> parent) {
    if (!parent || cur_idx < 0) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* No node to grow the tree under. cur_idx(%d)\n", cur_idx);
        return 1;
    }
    const bool trace = trace_on(zel::debug::ZONE_DBG);
    const uint64_t held = profiler_internal::records_held(*this);
    const int slots = node_slots(*this);
    profiler_internal::TreeWalk walk;
    walk.enter(parent.get(), depth);

    // A record closes the open node when it carries the node's own pair; the first node's pair is
    // the one given, since a caller may grow under any node.
    auto closes = [&](const ZelProfileData& record) {
        const ProfileNode* node = walk.top().node;
        const bool first = walk.parent() == nullptr;
        const int32_t label = first ? parent_label.first : node->label;
        const ProfilerKeyType postfix = first ? parent_label.second : node->labelPostfix;
        return static_cast<int32_t>(record.label) == label && record.labelPostfix == postfix;
    };
    // Leaves the open node: the enclosing one logs its return and steps past the closing record.
    auto leave = [&]() {
        walk.leave();
        if (walk.empty()) return false;
        if (trace)
            ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  --- depth[%d] cur_idx:%d\n", walk.top().depth,
                    cur_idx);
        ++cur_idx;
        return true;
    };

    while (true) {
        if (static_cast<uint64_t>(cur_idx) >= num_label) {
            if (!leave()) return 0;
            continue;
        }
        const profiler_internal::TreeWalk::Frame& frame = walk.top();
        if (trace) {
            ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  +++ depth[%d] cur_idx:%d ptr:%p\n", frame.depth,
                    cur_idx, static_cast<void*>(frame.node));
        }
        if (static_cast<uint64_t>(cur_idx) >= held) {
            profiler_internal::log_rawdata_too_small(*this);
            return 1;
        }
        const ZelProfileData& record = rawdata[cur_idx];
        if (closes(record)) {
            ProfileNode* node = frame.node;
            node->end_idx = cur_idx;
            // The open node is the newest child of the one it sits in.
            const profiler_internal::TreeWalk::Frame* outer = walk.parent();
            end_node_map.emplace(cur_idx, outer != nullptr ? outer->node->children.back() : parent);
            if (trace) {
                ZEL_LOG(ZONE_DBG, PRINT_TRACE,
                        "  [%d] Found end %lu (%s:%lu) labelIdx(%d~%d) ptr(%p)\n", cur_idx,
                        record.type, label_name(record.label), record.labelPostfix, node->start_idx,
                        node->end_idx, static_cast<void*>(node));
            }
            if (!leave()) return 0;
            continue;
        }
        auto child = std::make_shared<ProfileNode>(slots);
        child->start_idx = cur_idx;
        child->label = static_cast<ProfileLabel>(static_cast<int32_t>(record.label));
        child->labelPostfix = record.labelPostfix;
        start_node_map.emplace(cur_idx, child);
        frame.node->children.push_back(child);
        if (trace) {
            ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  [%d] Found new %lu(%s:%lu) labelIdx(%d) %p\n",
                    cur_idx, record.type, label_name(record.label), record.labelPostfix,
                    child->start_idx, static_cast<void*>(child.get()));
        }
        ++cur_idx;
        walk.enter(child.get(), frame.depth + 1);
    }
}

ZelReturn ZelProfiler::fill_data_to_tree() {
    if (num_iter == 0 || num_label == 0) return 0;
    return profiler_internal::fill_iterations(*this, profiler_internal::index_record_nodes(*this),
                                              0, num_iter);
}

namespace profiler_internal {

RecordNodes index_record_nodes(const ZelProfiler& p) {
    // The maps give the same node for a record index in every iteration: look each up once. Only
    // record positions the array holds are indexed, and only nodes with a slot for every
    // iteration the fill can reach are taken.
    const uint64_t positions = std::min(p.num_label, records_held(p));
    const size_t slots = static_cast<size_t>(node_slots(p));
    auto by_index = [&](const std::map<int, std::shared_ptr<ProfileNode>>& map) {
        std::vector<ProfileNode*> nodes(positions, nullptr);
        for (const auto& entry : map) {
            if (entry.first >= 0 && static_cast<uint64_t>(entry.first) < positions &&
                entry.second && entry.second->start_time.size() >= slots &&
                entry.second->end_time.size() >= slots) {
                nodes[entry.first] = entry.second.get();
            }
        }
        return nodes;
    };
    return {by_index(p.start_node_map), by_index(p.end_node_map)};
}

void log_rawdata_too_small(const ZelProfiler& p) {
    ZEL_LOG(ZONE_ERR, PRINT_ALWAYS,
            "* Raw data too small for its counts. name[%s] num_iter(%lu) num_label(%lu) "
            "size(%lu)\n",
            p.name.c_str(), p.num_iter, p.num_label, p.rawdata_size);
}

ZelReturn fill_iterations(ZelProfiler& p, const RecordNodes& nodes, uint64_t begin, uint64_t end) {
    const bool trace = trace_on(zel::debug::ZONE_DBG);
    const uint64_t num_label = p.num_label;
    const uint64_t held = records_held(p);
    for (uint64_t i = begin; i < end; ++i) {
        int64_t prev_label = 0;
        uint64_t prev_time = 0;
        for (uint64_t r = 0; r < num_label; ++r) {
            if (trace)
                ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  iter[%lu]*%lu  label[%lu]\n", i, num_label, r);
            if (i * num_label + r >= held) {
                log_rawdata_too_small(p);
                return 1;
            }
            const ZelProfileData& record = p.rawdata[static_cast<uint32_t>(i * num_label + r)];
            const bool is_start = record.type == START;
            ProfileNode* node = is_start ? nodes.starts[r] : nodes.ends[r];
            if (node == nullptr) {
                if (is_start) {
                    ZEL_LOG(ZONE_ERR, PRINT_ALWAYS,
                            "* Fail to find start label. label_count[%lu]\n", r);
                } else {
                    ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Fail to find end label. label_count[%lu]\n",
                            r);
                }
                return 1;
            }
            (is_start ? node->start_time : node->end_time)[i] = record.timestamp;
            if (trace && is_start) {
                ZEL_LOG(ZONE_DBG, PRINT_TRACE,
                        "  Add START(%s) iter[%lu]*%lu  label_cnt[%lu] time(%lu)  ptr:%p\n",
                        label_name(record.label), i, num_label, r, record.timestamp,
                        static_cast<void*>(node));
            } else if (trace) {
                ZEL_LOG(ZONE_DBG, PRINT_TRACE,
                        "  Add END(%s) iter[%lu]*%lu  label_cnt[%lu] time(%lu)  ptr:%p\n",
                        label_name(record.label), i, num_label, r, record.timestamp,
                        static_cast<void*>(node));
            }
            if (record.timestamp < prev_time) {
                ZEL_LOG(ZONE_ERR, PRINT_ALWAYS,
                        "* Wrong flow! timestamp(%s:%lu) is smaller than previous "
                        "timestamp(%s:%lu).  iter[%lu]\n",
                        label_name(record.label), record.timestamp, label_name(prev_label),
                        prev_time, i);
                return 1;
            }
            prev_label = record.label;
            prev_time = record.timestamp;
        }
    }
    return 0;
}

}  // namespace profiler_internal

ZelReturn ZelProfiler::calculate_self_time_nodes(int depth, uint64_t iter,
                                                 std::shared_ptr<ProfileNode> node,
                                                 uint64_t& duration_out) {
    using profiler_internal::TreeWalk;
    using profiler_internal::Visit;
    if (!node) return 1;
    const bool trace = trace_on(zel::debug::ZONE_DBG);
    // Entering a node gives its duration in this iteration; leaving it, its self time from the
    // children's durations summed in its frame.
    auto enter = [&](TreeWalk::Frame& frame, TreeWalk::Frame* parent) {
        ProfileNode* n = frame.node;
        if (trace && parent != nullptr) {
            ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  ++ depth[%d] child[%zu]\n", parent->depth,
                    parent->next_child - 1);
        }
        if (iter >= n->duration.size()) {
            ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* No such iteration in the tree. iter[%lu]\n", iter);
            return Visit::kStop;
        }
        const uint64_t duration = n->end_time[iter] - n->start_time[iter];
        n->duration[iter] = duration;
        if (trace) {
            ZEL_LOG(ZONE_DBG, PRINT_TRACE,
                    "  #### FILL: %s label(%s) iter[%lu] end(%lu) start(%lu) --> duration(%lu)\n",
                    depth_marker(frame.depth).c_str(), labelToString(n->label), iter,
                    n->end_time[iter], n->start_time[iter], duration);
        }
        return Visit::kInto;
    };
    auto leave = [&](TreeWalk::Frame& frame, TreeWalk::Frame* parent) {
        // A stage labelled TOTAL (the root among them) counts what its children measured; any
        // other stage what its children did not cover. Unsigned: overlapping children wrap.
        ProfileNode* n = frame.node;
        const uint64_t duration = n->duration[iter];
        const uint64_t self = n->label == TOTAL ? frame.value : duration - frame.value;
        n->self_time[iter] = self;
        if (trace) {
            ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  #### SELF: %s label(%s) iter[%lu] self(%lu)\n",
                    depth_marker(frame.depth).c_str(), labelToString(n->label), iter, self);
        }
        if (parent == nullptr) {
            duration_out = duration;
            return;
        }
        if (trace) {
            ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  -- depth[%d] idx[%lu] child[%zu] --> duration(%lu)\n",
                    parent->depth, iter, parent->next_child - 1, duration);
        }
        parent->value += duration;
    };
    return profiler_internal::walk_tree(node.get(), depth, enter, leave) ? 0 : 1;
}

ZelReturn ZelProfiler::calculate_self_time() {
    if (!trace_on(zel::debug::ZONE_DBG)) {
        profiler_internal::calculate_self_time_all(root.get(), 0, num_iter);
        return 0;
    }
    uint64_t out = 0;
    for (uint64_t i = 0; i < num_iter; ++i)
        calculate_self_time_nodes(0, i, root, out);
    return 0;
}

namespace profiler_internal {

void calculate_self_time_all(ProfileNode* root, uint64_t begin, uint64_t end) {
    // Whole series at a time: a node's durations on the way down, its self times from its
    // children's durations on the way back up. Same results as the per-iteration walk, with
    // streaming access to each series.
    auto enter = [&](TreeWalk::Frame& frame, TreeWalk::Frame*) {
        ProfileNode* n = frame.node;
        const size_t count = std::min<size_t>(end, n->duration.size());
        for (size_t i = begin; i < count; ++i)
            n->duration[i] = n->end_time[i] - n->start_time[i];
        return Visit::kInto;
    };
    auto leave = [&](TreeWalk::Frame& frame, TreeWalk::Frame*) {
        // TOTAL (the root among them) counts what its children measured, any other stage what
        // they did not cover; unsigned, so overlapping children wrap.
        ProfileNode* n = frame.node;
        const size_t count = std::min<size_t>(end, n->self_time.size());
        const bool total = n->label == TOTAL;
        uint64_t* self = n->self_time.data();
        for (size_t i = begin; i < count; ++i)
            self[i] = total ? 0 : n->duration[i];
        for (const auto& child : n->children) {
            const size_t shared = std::min(count, child->duration.size());
            const uint64_t* d = child->duration.data();
            if (total) {
                for (size_t i = begin; i < shared; ++i)
                    self[i] += d[i];
            } else {
                for (size_t i = begin; i < shared; ++i)
                    self[i] -= d[i];
            }
        }
    };
    walk_tree(root, 0, enter, leave);
}

}  // namespace profiler_internal

ZelReturn ZelProfiler::show_nodes(int depth, std::shared_ptr<ProfileNode> node) {
    using profiler_internal::TreeWalk;
    const bool show = zel::debug::check_print_mask(zel::debug::ZONE_INF, zel::debug::PRINT_TRACE);
    const bool trace = trace_on(zel::debug::ZONE_DBG);
    if (!show && !trace) return 0;
    auto enter = [&](TreeWalk::Frame& frame, TreeWalk::Frame* parent) {
        if (trace && parent != nullptr) {
            ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  depth[%d] idx[%zu]\n", parent->depth,
                    parent->next_child - 1);
        }
        const ProfileNode* n = frame.node;
        if (show) {
            ZEL_LOG(ZONE_INF, PRINT_TRACE, "  %s label[%s:0x%lx] start(%d)~end(%d)\n",
                    depth_marker(frame.depth).c_str(), labelToString(n->label), n->labelPostfix,
                    n->start_idx, n->end_idx);
        }
        return profiler_internal::Visit::kInto;
    };
    profiler_internal::walk_tree(node.get(), depth, enter,
                                 [](TreeWalk::Frame&, TreeWalk::Frame*) {});
    return 0;
}

ZelReturn ZelProfiler::show_tree() {
    return show_nodes(0, root);
}

}  // namespace util
}  // namespace zel
