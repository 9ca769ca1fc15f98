// The stage tree: built from the nesting of (label, postfix) pairs in iteration 0, filled with
// every iteration's times, then durations and self times.
//
// Every walk keeps its own stack of frames instead of recursing: raw data from another process
// can nest tens of thousands of stages deep, which a recursive walk could not survive. The
// traces come out in the same order as a depth-first recursion would print them.
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

}  // namespace

ZelReturn ZelProfiler::grow_tree() {
    start_node_map.clear();
    end_node_map.clear();
    if (num_label != 0 && (rawdata == nullptr || !counts_fit(num_iter, num_label, rawdata_size) ||
                           num_iter > INT_MAX || num_label > INT_MAX)) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS,
                "* Raw data too small for its counts. num_iter(%lu) num_label(%lu)\n", num_iter,
                num_label);
        return 1;
    }
    root = std::make_shared<ProfileNode>(static_cast<int>(num_iter));
    root->label = TOTAL;
    root->labelPostfix = 0;
    int cur_idx = 0;
    std::pair<ProfilerLabelType, ProfilerKeyType> pair(TOTAL, 0);
    return append_nodes_to_tree(0, cur_idx, pair, root);
}

ZelReturn ZelProfiler::append_nodes_to_tree(
        int depth, int& cur_idx, std::pair<ProfilerLabelType, ProfilerKeyType>& parent_label,
        std::shared_ptr<ProfileNode> parent) {
    struct Frame {
        std::shared_ptr<ProfileNode> node;
        int32_t label;
        ProfilerKeyType postfix;
        int depth;
    };
    if (!parent || cur_idx < 0) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* No node to grow the tree under. cur_idx(%d)\n", cur_idx);
        return 1;
    }
    if (num_label != 0 &&
        (rawdata == nullptr || num_label > INT_MAX || !counts_fit(1, num_label, rawdata_size))) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Raw data too small for its counts. num_label(%lu)\n",
                num_label);
        return 1;
    }
    const bool trace = trace_on(zel::debug::ZONE_DBG);
    const int end = static_cast<int>(num_label);
    std::vector<Frame> stack;
    stack.push_back({parent, parent_label.first, parent_label.second, depth});

    // Leaves `frame`: the caller's frame logs its return and steps past the closing record.
    auto leave = [&]() {
        stack.pop_back();
        if (stack.empty()) return false;
        if (trace)
            ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  --- depth[%d] cur_idx:%d\n", stack.back().depth,
                    cur_idx);
        ++cur_idx;
        return true;
    };

    while (true) {
        const Frame& frame = stack.back();
        if (cur_idx >= end) {
            if (!leave()) return 0;
            continue;
        }
        if (trace) {
            ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  +++ depth[%d] cur_idx:%d ptr:%p\n", frame.depth,
                    cur_idx, static_cast<void*>(frame.node.get()));
        }
        const ZelProfileData& record = rawdata[cur_idx];
        const int32_t label = static_cast<int32_t>(record.label);
        if (label == frame.label && record.labelPostfix == frame.postfix) {
            ProfileNode* node = frame.node.get();
            node->end_idx = cur_idx;
            end_node_map.emplace(cur_idx, frame.node);
            if (trace) {
                ZEL_LOG(ZONE_DBG, PRINT_TRACE,
                        "  [%d] Found end %lu (%s:%lu) labelIdx(%d~%d) ptr(%p)\n", cur_idx,
                        record.type, label_name(record.label), record.labelPostfix, node->start_idx,
                        node->end_idx, static_cast<void*>(node));
            }
            if (!leave()) return 0;
            continue;
        }
        auto child = std::make_shared<ProfileNode>(static_cast<int>(num_iter));
        child->start_idx = cur_idx;
        child->label = static_cast<ProfileLabel>(label);
        child->labelPostfix = record.labelPostfix;
        start_node_map.emplace(cur_idx, child);
        frame.node->children.push_back(child);
        if (trace) {
            ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  [%d] Found new %lu(%s:%lu) labelIdx(%d) %p\n",
                    cur_idx, record.type, label_name(record.label), record.labelPostfix,
                    child->start_idx, static_cast<void*>(child.get()));
        }
        ++cur_idx;
        const int child_depth = frame.depth + 1;
        stack.push_back({std::move(child), label, record.labelPostfix, child_depth});
    }
}

ZelReturn ZelProfiler::fill_data_to_tree() {
    if (num_iter == 0 || num_label == 0) return 0;
    if (rawdata == nullptr || !counts_fit(num_iter, num_label, rawdata_size)) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS,
                "* Raw data too small for its counts. num_iter(%lu) num_label(%lu)\n", num_iter,
                num_label);
        return 1;
    }
    return profiler_internal::fill_iterations(*this, profiler_internal::index_record_nodes(*this),
                                              0, num_iter);
}

namespace profiler_internal {

RecordNodes index_record_nodes(const ZelProfiler& p) {
    // The maps give the same node for a record index in every iteration: look each up once.
    // Only nodes grown for all iterations are taken.
    auto by_index = [&p](const std::map<int, std::shared_ptr<ProfileNode>>& map) {
        std::vector<ProfileNode*> nodes(p.num_label, nullptr);
        for (const auto& entry : map) {
            if (entry.first >= 0 && static_cast<uint64_t>(entry.first) < p.num_label &&
                entry.second && entry.second->start_time.size() >= p.num_iter &&
                entry.second->end_time.size() >= p.num_iter) {
                nodes[entry.first] = entry.second.get();
            }
        }
        return nodes;
    };
    return {by_index(p.start_node_map), by_index(p.end_node_map)};
}

ZelReturn fill_iterations(ZelProfiler& p, const RecordNodes& nodes, uint64_t begin, uint64_t end) {
    const bool trace = trace_on(zel::debug::ZONE_DBG);
    const uint64_t num_label = p.num_label;
    for (uint64_t i = begin; i < end; ++i) {
        int64_t prev_label = 0;
        uint64_t prev_time = 0;
        for (uint64_t r = 0; r < num_label; ++r) {
            if (trace)
                ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  iter[%lu]*%lu  label[%lu]\n", i, num_label, r);
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
            if (is_start) {
                node->start_time[i] = record.timestamp;
                if (trace) {
                    ZEL_LOG(ZONE_DBG, PRINT_TRACE,
                            "  Add START(%s) iter[%lu]*%lu  label_cnt[%lu] time(%lu)  ptr:%p\n",
                            label_name(record.label), i, num_label, r, record.timestamp,
                            static_cast<void*>(node));
                }
            } else {
                node->end_time[i] = record.timestamp;
                if (trace) {
                    ZEL_LOG(ZONE_DBG, PRINT_TRACE,
                            "  Add END(%s) iter[%lu]*%lu  label_cnt[%lu] time(%lu)  ptr:%p\n",
                            label_name(record.label), i, num_label, r, record.timestamp,
                            static_cast<void*>(node));
                }
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
    struct Frame {
        ProfileNode* node;
        int depth;
        size_t next_child;
        uint64_t sum;
    };
    const bool trace = trace_on(zel::debug::ZONE_DBG);
    std::vector<Frame> stack;

    // Opens a node: its duration in this iteration. False when the node holds no such iteration.
    auto enter = [&](ProfileNode* n, int d) {
        if (iter >= n->duration.size()) {
            ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* No such iteration in the tree. iter[%lu]\n", iter);
            return false;
        }
        const uint64_t duration = n->end_time[iter] - n->start_time[iter];
        n->duration[iter] = duration;
        if (trace) {
            ZEL_LOG(ZONE_DBG, PRINT_TRACE,
                    "  #### FILL: %s label(%s) iter[%lu] end(%lu) start(%lu) --> duration(%lu)\n",
                    depth_marker(d).c_str(), labelToString(n->label), iter, n->end_time[iter],
                    n->start_time[iter], duration);
        }
        stack.push_back({n, d, 0, 0});
        return true;
    };

    if (!node || !enter(node.get(), depth)) return 1;
    while (true) {
        Frame& frame = stack.back();
        ProfileNode* n = frame.node;
        if (frame.next_child < n->children.size()) {
            if (trace)
                ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  ++ depth[%d] child[%zu]\n", frame.depth,
                        frame.next_child);
            const int child_depth = frame.depth + 1;
            if (!enter(n->children[frame.next_child].get(), child_depth)) return 1;
            continue;
        }
        // A stage labelled TOTAL (the root among them) counts what its children measured; any
        // other stage what its children did not cover. Unsigned: overlapping children wrap.
        const uint64_t duration = n->duration[iter];
        const uint64_t self = n->label == TOTAL ? frame.sum : duration - frame.sum;
        n->self_time[iter] = self;
        if (trace) {
            ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  #### SELF: %s label(%s) iter[%lu] self(%lu)\n",
                    depth_marker(frame.depth).c_str(), labelToString(n->label), iter, self);
        }
        stack.pop_back();
        if (stack.empty()) {
            duration_out = duration;
            return 0;
        }
        Frame& parent = stack.back();
        if (trace) {
            ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  -- depth[%d] idx[%lu] child[%zu] --> duration(%lu)\n",
                    parent.depth, iter, parent.next_child, duration);
        }
        parent.sum += duration;
        ++parent.next_child;
    }
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
    struct Frame {
        ProfileNode* node;
        size_t next_child;
    };
    if (root == nullptr) return;
    std::vector<Frame> stack;
    // Whole series at a time: a node's durations on the way down, its self times from its
    // children's durations on the way back up. Same results as the per-iteration walk, with
    // streaming access to each series.
    auto enter = [&](ProfileNode* n) {
        const size_t count = std::min<size_t>(end, n->duration.size());
        for (size_t i = begin; i < count; ++i)
            n->duration[i] = n->end_time[i] - n->start_time[i];
        stack.push_back({n, 0});
    };
    enter(root);
    while (!stack.empty()) {
        Frame& frame = stack.back();
        ProfileNode* n = frame.node;
        if (frame.next_child < n->children.size()) {
            ProfileNode* child = n->children[frame.next_child++].get();
            enter(child);
            continue;
        }
        // TOTAL (the root among them) counts what its children measured, any other stage what
        // they did not cover; unsigned, so overlapping children wrap.
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
        stack.pop_back();
    }
}

}  // namespace profiler_internal

ZelReturn ZelProfiler::show_nodes(int depth, std::shared_ptr<ProfileNode> node) {
    struct Frame {
        ProfileNode* node;
        int depth;
        size_t next_child;
    };
    const bool show = zel::debug::check_print_mask(zel::debug::ZONE_INF, zel::debug::PRINT_TRACE);
    const bool trace = trace_on(zel::debug::ZONE_DBG);
    if ((!show && !trace) || !node) return 0;

    std::vector<Frame> stack;
    auto enter = [&](ProfileNode* n, int d) {
        if (show) {
            ZEL_LOG(ZONE_INF, PRINT_TRACE, "  %s label[%s:0x%lx] start(%d)~end(%d)\n",
                    depth_marker(d).c_str(), labelToString(n->label), n->labelPostfix, n->start_idx,
                    n->end_idx);
        }
        stack.push_back({n, d, 0});
    };
    enter(node.get(), depth);
    while (!stack.empty()) {
        Frame& frame = stack.back();
        if (frame.next_child >= frame.node->children.size()) {
            stack.pop_back();
            continue;
        }
        const size_t c = frame.next_child++;
        if (trace) ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  depth[%d] idx[%zu]\n", frame.depth, c);
        ProfileNode* child = frame.node->children[c].get();
        enter(child, frame.depth + 1);
    }
    return 0;
}

ZelReturn ZelProfiler::show_tree() {
    return show_nodes(0, root);
}

}  // namespace util
}  // namespace zel
