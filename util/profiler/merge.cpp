// Merge: a child profiler's iterations spliced into this one's right after the opening record
// of the docking stage, so that the rebuilt tree nests the child's stages under it.
//
// The steps: size and allocate the merged array, find the docking record, then splice iteration
// by iteration. Raw data from elsewhere may claim more than it holds; each iteration is spliced
// only from records that are there.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "util/profiler/internal.h"
#include "util/zel_utils_profiler.h"

namespace zel {
namespace util {

namespace {

constexpr uint64_t kRecord = sizeof(ZelProfileData);

struct FreeBlock {
    void operator()(char* block) const { std::free(block); }
};
// The merged array until it becomes the parent's raw data, released on every other way out.
using MergedBlock = std::unique_ptr<char, FreeBlock>;

// The merged array: the two sizes added as 32-bit byte counts, or more when the parent's
// iterations with a whole child iteration each need more (a child with fewer iterations).
// Null after the documented failure line.
MergedBlock allocate_merged(const ZelProfiler& parent, const ZelProfiler& child, uint64_t* written,
                            uint64_t* size) {
    const int32_t parent_size = static_cast<int32_t>(parent.rawdata_size);
    const int32_t child_size = static_cast<int32_t>(child.rawdata_size);
    const int32_t merged_size = static_cast<int32_t>(static_cast<uint32_t>(parent_size) +
                                                     static_cast<uint32_t>(child_size));
    ZEL_LOG(ZONE_DBG, PRINT_TRACE,
            "  parent(%d) child(%d) merged_size(%d) P(%lu, %lu) C(%lu, %lu)\n", parent_size,
            child_size, merged_size, parent.num_iter, parent.num_label, child.num_iter,
            child.num_label);
    // Only iterations the parent holds can be spliced; the splice stops at the first it lacks.
    const uint64_t held = profiler_internal::records_held(parent);
    const uint64_t iterations =
            parent.num_label != 0 ? std::min(parent.num_iter, held / parent.num_label) : 0;
    const uint64_t merged_label = parent.num_label + child.num_label;
    const bool fits = parent_size >= 0 && child_size >= 0 && merged_size >= 0 &&
                      merged_label <= INT32_MAX / kRecord &&
                      iterations <= INT32_MAX / kRecord / std::max<uint64_t>(merged_label, 1);
    *written = fits ? iterations * merged_label * kRecord : 0;
    *size = std::max<uint64_t>(static_cast<uint64_t>(merged_size), *written);
    MergedBlock block(fits ? static_cast<char*>(std::malloc(*size != 0 ? *size : 1)) : nullptr);
    if (!block) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Fail to alloc memory for rawdata. size(%d)\n",
                merged_size);
        return block;
    }
    // Bytes that no iteration covers (an incomplete last iteration's share) are not left
    // uninitialised: they would be exported as they are.
    std::memset(block.get() + *written, 0, *size - *written);
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  merged_mem size(%d) end_ptr(%p)\n", merged_size,
            static_cast<void*>(block.get() + merged_size));
    return block;
}

// Index of the docking stage's opening record, searched from the parent's first record; it
// serves every iteration. False after the documented failure line.
bool find_docking_record(const ZelProfiler& parent, uint64_t* index) {
    const auto [label, postfix] = parent.leaf_docking_point;
    // The bound counts 64-bit words, not records; the search still stops at the last record.
    const uint64_t bound =
            std::min<uint64_t>(parent.rawdata_size / 8, profiler_internal::records_held(parent));
    for (uint64_t k = 0; k < bound; ++k) {
        if (static_cast<int32_t>(parent.rawdata[k].label) == static_cast<int32_t>(label) &&
            parent.rawdata[k].labelPostfix == postfix) {
            *index = k;
            ZEL_LOG(ZONE_INF, PRINT_ALWAYS, "* Found Parent leaf idx(%d) label(%s:0x%lx)\n",
                    static_cast<int>(k), ZelProfiler::labelToString(label), postfix);
            return true;
        }
    }
    ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Fail to find parent's leaf(%s:0x%lx)\n",
            ZelProfiler::labelToString(label), postfix);
    return false;
}

// Iteration `i` of the parent with the child's iteration `i` after its docking record `p`,
// written at `*offset`, which then moves past it. False when a record it needs is not there.
bool splice_iteration(const ZelProfiler& parent, const ZelProfiler& child, uint64_t i, uint64_t p,
                      char* merged, int32_t* offset) {
    if (!profiler_internal::rawdata_holds(parent, i + 1)) return false;
    const ZelProfileData* src = parent.rawdata + i * parent.num_label;
    const int32_t pre_count = static_cast<int32_t>(p + 1);
    const int32_t pre_bytes = static_cast<int32_t>(pre_count * kRecord);
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  num_pre_parent_label:%d\n", pre_count);
    std::memcpy(merged + *offset, src, pre_bytes);
    ZEL_LOG(ZONE_DBG, PRINT_TRACE,
            "  \t --PRE  : num_label_copy(%d) size(%d) dst_offset(%d) src(%p) dst(%p)\n", pre_count,
            pre_bytes, *offset, static_cast<void*>(merged + *offset + pre_bytes),
            static_cast<const void*>(src + pre_count));
    *offset += pre_bytes;

    const ZelProfileData& dock = src[p];
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  itr[%lu] parentLeaf timestamp(%lu)\n", i, dock.timestamp);

    // The child's iteration when it holds one; otherwise its stages appear with no duration at
    // the docking stage's start, keeping the sequence the tree expects.
    const uint64_t child_held = profiler_internal::records_held(child);
    const bool present = child.num_label == 0 || (i + 1) * child.num_label <= child_held;
    if (!present && !profiler_internal::rawdata_holds(child, 1)) return false;
    const int32_t child_bytes = static_cast<int32_t>(child.num_label * kRecord);
    const ZelProfileData* child_src = child.rawdata + (present ? i * child.num_label : 0);
    auto* copied = reinterpret_cast<ZelProfileData*>(merged + *offset);
    if (child_bytes != 0) std::memcpy(copied, child_src, child_bytes);
    for (uint64_t k = 0; k < child.num_label; ++k) {
        if (!present) {
            copied[k].iterKey = dock.iterKey;
            copied[k].timestamp = dock.timestamp;
        } else if (child.relative_timestamp) {
            copied[k].timestamp += dock.timestamp;
        }
    }
    ZEL_LOG(ZONE_DBG, PRINT_TRACE,
            "  \t --CHILD: num_label_copy(%lu) size(%d) dst_offset(%d) dst_end(%p) "
            "src_end(%p)\n",
            child.num_label, child_bytes, *offset,
            static_cast<void*>(merged + *offset + child_bytes),
            static_cast<const void*>(child_src + child.num_label));
    *offset += child_bytes;

    const uint64_t post_count = parent.num_label - (p + 1);
    const int32_t post_bytes = static_cast<int32_t>(post_count * kRecord);
    std::memcpy(merged + *offset, src + p + 1, post_bytes);
    ZEL_LOG(ZONE_DBG, PRINT_TRACE,
            "  \t --POST : num_label_copy(%lu) size(%d) dst_offset(%d) dst_end(%p) "
            "src_end(%p)\n",
            post_count, post_bytes, *offset, static_cast<void*>(merged + *offset + post_bytes),
            static_cast<const void*>(src + parent.num_label));
    *offset += post_bytes;
    return true;
}

}  // namespace

ZelReturn ZelProfiler::merge(ZelProfiler* child) {
    if (child == nullptr) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Nothing to merge\n");
        return 1;
    }
    uint64_t written = 0, size = 0;
    MergedBlock merged = allocate_merged(*this, *child, &written, &size);
    if (!merged) return 1;
    if (child->num_iter != num_iter) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Wrong merge usage. iter diff. (%lu) vs (%lx)\n",
                child->num_iter, num_iter);
    }
    uint64_t p = 0;
    if (!find_docking_record(*this, &p)) return 1;
    if (num_iter != 0 && p >= num_label) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Parent leaf idx(%d) lies outside the iterations(%lu)\n",
                static_cast<int>(p), num_label);
        return 1;
    }
    int32_t offset = 0;
    for (uint64_t i = 0; i < num_iter; ++i) {
        if (!splice_iteration(*this, *child, i, p, merged.get(), &offset)) return 1;
    }

    num_label += child->num_label;
    if (rawdata != nullptr) std::free(rawdata);
    rawdata = reinterpret_cast<ZelProfileData*>(merged.release());
    rawdata_size = size;
    finalized = false;
    return 0;
}

}  // namespace util
}  // namespace zel
