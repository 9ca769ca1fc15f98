// Raw data: the queue folded into the record array, finalization, file export and debug dump.
#include <algorithm>
#include <cstdlib>
#include <stdexcept>

#include "util/profiler/internal.h"
#include "util/zel_utils.h"
#include "util/zel_utils_profiler.h"

namespace zel {
namespace util {

namespace {
const char kRawdataDir[] = "/data/vendor/zel/";
}  // namespace

ZelReturn ZelProfiler::generate_rawdata_from_queue() {
    if (rawdata != nullptr) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Wrong flow. We already have rawdata\n");
        return 1;
    }
    const uint64_t count = queue.size();
    rawdata_size = count * sizeof(ZelProfileData);
    // An empty queue still gets its own (empty) array, so that "rawdata is set" keeps meaning
    // "the queue has been folded".
    rawdata = static_cast<ZelProfileData*>(std::malloc(rawdata_size != 0 ? rawdata_size : 1));
    if (rawdata == nullptr) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Fail to alloc memory for rawdata\n");
        return 1;
    }

    // The trace is decided once: a filtered message would cost a mask test per record.
    const bool trace = zel::debug::check_print_mask(zel::debug::ZONE_INF, zel::debug::PRINT_TRACE);
    uint64_t index = 0;
    while (!queue.empty()) {
        const ZelProfileData& record = queue.front();
        if (trace) {
            // The bracketed number counts 64-bit words, five per record.
            ZEL_LOG(ZONE_INF, PRINT_TRACE,
                    "  [%d] label(%s) labelPostfix(%lu) type(%lu) iterKey(%lu) timestamp(%lu)\n",
                    static_cast<int>(index * 5), label_name(record.label), record.labelPostfix,
                    record.type, record.iterKey, record.timestamp);
        }
        rawdata[index++] = record;
        queue.pop_front();
    }

    // An iteration ends at the first record that repeats the label of the first one.
    int32_t first = kProfileLabelNone;
    for (uint64_t i = 0; i < count; ++i) {
        const int32_t label = static_cast<int32_t>(rawdata[i].label);
        if (first == kProfileLabelNone) {
            first = label;
        } else if (label == first) {
            num_label = i + 1;
            ZEL_LOG(ZONE_INF, PRINT_TRACE,
                    "  Get count of profile_labels. start/end(%s) = cnt(%d)\n", label_name(label),
                    static_cast<int>(num_label));
            break;
        }
    }
    num_iter = num_label != 0 ? count / num_label : 0;
    return 0;
}

ZelReturn ZelProfiler::finalize() {
    ZEL_LOG(ZONE_INF, PRINT_ALWAYS,
            "* Finalize Start! name[%s] num_iter(%lu) num_label(%lu) rawdataP(%p)\n", name.c_str(),
            num_iter, num_label, static_cast<void*>(rawdata));
    if (finalized) {
        ZEL_LOG(ZONE_INF, PRINT_TRACE, "  Already finalized. key(0x%lx)\n", key);
        return 0;
    }
    if (!queue.empty()) {
        ZEL_LOG(ZONE_DBG, PRINT_TRACE,
                "  ZelProfileData in the queue. Process generationg rawdata\n");
        if (generate_rawdata_from_queue() != 0) {
            ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Fail to process queue data to rawdata.(%s)\n",
                    name.c_str());
            return 1;
        }
    }
    if (rawdata == nullptr || num_iter == 0 || num_label == 0) {
        ZEL_LOG(ZONE_WAR, PRINT_IF_ON,
                "  [%s] info is empty. rawdata(%p) num_iter(%lu) num_label(%lu). \n", name.c_str(),
                static_cast<void*>(rawdata), num_iter, num_label);
        return 0;
    }
    dbg_show_rawdata();
    grow_tree();
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  Grow tree Done\n");
    show_nodes(0, root);
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  Show tree Done\n");
    // Every time is stored before any duration or self time is computed: a fill that fails
    // leaves none behind.
    if (fill_data_to_tree() != 0) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Fail to fill_data_to_tree\n");
        throw std::runtime_error("finalize fail\n");
    }
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  fill_data_to_tree Done\n");
    if (zel::debug::check_print_mask(zel::debug::ZONE_DBG, zel::debug::PRINT_TRACE)) {
        // Traced: iteration by iteration, so that the traces read in that order.
        calculate_self_time();
    } else {
        // Same results a block of iterations at a time: a block's times stay in cache across the
        // walk of the tree, so the cost stays linear however long the profile.
        constexpr uint64_t kBlock = 2048;
        for (uint64_t begin = 0; begin < num_iter; begin += kBlock)
            profiler_internal::calculate_self_time_all(root.get(), begin,
                                                       std::min(num_iter, begin + kBlock));
    }
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  calculate_self_time Done\n");

    finalized = true;
    ZEL_LOG(ZONE_INF, PRINT_ALWAYS,
            "* Finalize Done! profilerName[%s] num_iter(%lu) num_label(%lu) rawdata(%p)\n",
            name.c_str(), num_iter, num_label, static_cast<void*>(rawdata));
    return 0;
}

std::string ZelProfiler::export_rawdata_to_file() {
    if (!finalized) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Need to be finalized to export file\n");
        return "";
    }
    std::string path = std::string(kRawdataDir) + "profile_rawdata_" + std::to_string(key) + ".bin";
    if (export_mem_to_file(path.c_str(), rawdata, static_cast<uint32_t>(rawdata_size)) != 0) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Fail to export as a file\n");
        return "";
    }
    return path;
}

void ZelProfiler::dbg_show_rawdata() {
    if (!zel::debug::check_print_mask(zel::debug::ZONE_DBG, zel::debug::PRINT_TRACE)) return;
    if (num_label == 0 || num_iter == 0) return;
    // The dump goes as far as the array does.
    const uint64_t held = profiler_internal::records_held(*this);
    const uint64_t claimed = num_iter > UINT64_MAX / num_label ? UINT64_MAX : num_label * num_iter;
    for (uint64_t k = 0; k < claimed; ++k) {
        if (k >= held) {
            profiler_internal::log_rawdata_too_small(*this);
            return;
        }
        const ZelProfileData& r = rawdata[k];
        ZEL_LOG(ZONE_DBG, PRINT_TRACE,
                "  [%lu] label(%-18s) labelPostfix(0x%16lx) type(%4lu) iterKey(0x%16lx) "
                "timestamp(%lu)\n",
                k, label_name(r.label), r.labelPostfix, r.type, r.iterKey, r.timestamp);
    }
}

}  // namespace util
}  // namespace zel
