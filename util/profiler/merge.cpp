// Merge: a child profiler's iterations spliced into this one's right after the opening record
// of the docking stage, so that the rebuilt tree nests the child's stages under it.
#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "util/profiler/internal.h"
#include "util/zel_utils_profiler.h"

namespace zel {
namespace util {

namespace {
constexpr uint64_t kRecord = sizeof(ZelProfileData);
}  // namespace

ZelReturn ZelProfiler::merge(ZelProfiler* child) {
    if (child == nullptr) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Nothing to merge\n");
        return 1;
    }
    ZelProfiler& c = *child;
    // Sizes are 32-bit byte counts; the sum wraps like one.
    const int32_t parent_size = static_cast<int32_t>(rawdata_size);
    const int32_t child_size = static_cast<int32_t>(c.rawdata_size);
    const int32_t merged_size = static_cast<int32_t>(static_cast<uint32_t>(parent_size) +
                                                     static_cast<uint32_t>(child_size));
    ZEL_LOG(ZONE_DBG, PRINT_TRACE,
            "  parent(%d) child(%d) merged_size(%d) P(%lu, %lu) C(%lu, %lu)\n", parent_size,
            child_size, merged_size, num_iter, num_label, c.num_iter, c.num_label);

    // Raw data handed over by another process is checked before anything reads by its counts.
    // Iterations that the child lacks are given the child's stage sequence with no duration
    // (see below), which needs at least one child iteration to copy the sequence from.
    const bool parent_ok = (num_iter == 0 || num_label == 0 || rawdata != nullptr) &&
                           counts_fit(num_iter, num_label, rawdata_size) && num_label <= INT_MAX;
    const bool child_ok = (c.num_iter == 0 || c.num_label == 0 || c.rawdata != nullptr) &&
                          counts_fit(c.num_iter, c.num_label, c.rawdata_size) &&
                          c.num_label <= INT_MAX &&
                          (num_iter == 0 || c.num_label == 0 || c.num_iter != 0);
    if (!parent_ok || !child_ok) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS,
                "* Cannot merge: raw data too small for its counts. P(%lu, %lu, %lu) C(%lu, %lu, "
                "%lu)\n",
                num_iter, num_label, rawdata_size, c.num_iter, c.num_label, c.rawdata_size);
        return 1;
    }
    // With matching counts the iterations fill merged_size exactly; with a shorter child they
    // need more, and the buffer grows to hold them.
    const uint64_t merged_label = num_label + c.num_label;
    const uint64_t needed = num_iter * merged_label * kRecord;
    if (parent_size < 0 || child_size < 0 || merged_size < 0 || needed > INT32_MAX) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Fail to alloc memory for rawdata. size(%d)\n",
                merged_size);
        return 1;
    }
    const uint64_t alloc_size = std::max<uint64_t>(static_cast<uint64_t>(merged_size), needed);
    char* merged = static_cast<char*>(std::malloc(alloc_size != 0 ? alloc_size : 1));
    if (merged == nullptr) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Fail to alloc memory for rawdata. size(%d)\n",
                merged_size);
        return 1;
    }
    // Bytes that no iteration covers (an incomplete last iteration's share) are not left
    // uninitialised: they would be exported as they are.
    std::memset(merged + needed, 0, alloc_size - needed);
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  merged_mem size(%d) end_ptr(%p)\n", merged_size,
            static_cast<void*>(merged + merged_size));

    if (c.num_iter != num_iter) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Wrong merge usage. iter diff. (%lu) vs (%lx)\n",
                c.num_iter, num_iter);
    }

    // The docking stage opens in iteration 0; its index serves every iteration.
    const uint64_t present = rawdata != nullptr ? rawdata_size / kRecord : 0;
    const uint64_t bound = std::min<uint64_t>(rawdata_size / 8, present);
    uint64_t p = bound;
    for (uint64_t k = 0; k < bound; ++k) {
        if (static_cast<int32_t>(rawdata[k].label) ==
                    static_cast<int32_t>(leaf_docking_point.first) &&
            rawdata[k].labelPostfix == leaf_docking_point.second) {
            p = k;
            break;
        }
    }
    if (p == bound) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Fail to find parent's leaf(%s:0x%lx)\n",
                labelToString(leaf_docking_point.first), leaf_docking_point.second);
        std::free(merged);
        return 1;
    }
    ZEL_LOG(ZONE_INF, PRINT_ALWAYS, "* Found Parent leaf idx(%d) label(%s:0x%lx)\n",
            static_cast<int>(p), labelToString(leaf_docking_point.first),
            leaf_docking_point.second);
    if (num_iter != 0 && p >= num_label) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Parent leaf idx(%d) lies outside the iterations(%lu)\n",
                static_cast<int>(p), num_label);
        std::free(merged);
        return 1;
    }

    const int32_t pre_count = static_cast<int32_t>(p + 1);
    const int32_t pre_bytes = static_cast<int32_t>(pre_count * kRecord);
    const int32_t child_bytes = static_cast<int32_t>(c.num_label * kRecord);
    const uint64_t post_count = num_label - (p + 1);
    const int32_t post_bytes = static_cast<int32_t>(post_count * kRecord);
    int32_t dst_offset = 0;
    for (uint64_t i = 0; i < num_iter; ++i) {
        const ZelProfileData* src = rawdata + i * num_label;

        ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  num_pre_parent_label:%d\n", pre_count);
        std::memcpy(merged + dst_offset, src, pre_bytes);
        ZEL_LOG(ZONE_DBG, PRINT_TRACE,
                "  \t --PRE  : num_label_copy(%d) size(%d) dst_offset(%d) src(%p) dst(%p)\n",
                pre_count, pre_bytes, dst_offset,
                static_cast<void*>(merged + dst_offset + pre_bytes),
                static_cast<const void*>(src + pre_count));
        dst_offset += pre_bytes;

        const ZelProfileData& dock = src[p];
        ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  itr[%lu] parentLeaf timestamp(%lu)\n", i, dock.timestamp);

        ZelProfileData* copied = reinterpret_cast<ZelProfileData*>(merged + dst_offset);
        const ZelProfileData* child_src;
        if (i < c.num_iter) {
            child_src = c.rawdata + i * c.num_label;
            std::memcpy(copied, child_src, child_bytes);
            if (c.relative_timestamp) {
                for (uint64_t k = 0; k < c.num_label; ++k)
                    copied[k].timestamp += dock.timestamp;
            }
        } else {
            // The child measured nothing for this iteration: its stages appear with zero
            // duration at the docking stage's start, keeping the sequence the tree expects.
            child_src = c.rawdata;
            if (child_bytes != 0) std::memcpy(copied, child_src, child_bytes);
            for (uint64_t k = 0; k < c.num_label; ++k) {
                copied[k].iterKey = dock.iterKey;
                copied[k].timestamp = dock.timestamp;
            }
        }
        ZEL_LOG(ZONE_DBG, PRINT_TRACE,
                "  \t --CHILD: num_label_copy(%lu) size(%d) dst_offset(%d) dst_end(%p) "
                "src_end(%p)\n",
                c.num_label, child_bytes, dst_offset,
                static_cast<void*>(merged + dst_offset + child_bytes),
                static_cast<const void*>(child_src + c.num_label));
        dst_offset += child_bytes;

        std::memcpy(merged + dst_offset, src + p + 1, post_bytes);
        ZEL_LOG(ZONE_DBG, PRINT_TRACE,
                "  \t --POST : num_label_copy(%lu) size(%d) dst_offset(%d) dst_end(%p) "
                "src_end(%p)\n",
                post_count, post_bytes, dst_offset,
                static_cast<void*>(merged + dst_offset + post_bytes),
                static_cast<const void*>(src + num_label));
        dst_offset += post_bytes;
    }

    num_label = merged_label;
    if (rawdata != nullptr) std::free(rawdata);
    rawdata = reinterpret_cast<ZelProfileData*>(merged);
    rawdata_size = alloc_size;
    finalized = false;
    return 0;
}

}  // namespace util
}  // namespace zel
