// Profiles from outside meet a service profile recorded through the wrapper: client memory, the
// same raw data as a profiler docked over or under the service's, or the device buffer; all are
// finalized and reported. Input: config (bits 0..1 which, 2 traces, 3 detail, 4 skip service,
// 5..7 service iterations), then the data; the header's model id picks the docking stage.
#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "fuzz_support.h"
#include "util/zel_utils_profiler_client.h"
#include "util/zel_utils_profiler_wrapper.h"

using namespace zel::util;
using W = ZelProfilerWrapper;
constexpr ProfilerKeyType kModel = 7, kOp = 0x2a;

static void Show(ZelProfiler& profiler) {
    if (profiler.finalize() == 0) profiler.show_output(true);
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    zel_fuzz::QuietLogs(false);
    W::initialize(PROFILE_ON | PROFILE_DETAIL, 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    ClientProfileHeader h{};
    if (size < 1 + sizeof(h)) return 0;
    const uint8_t config = data[0], which = config & 3, n = config >> 5;
    uint8_t* mem = const_cast<uint8_t*>(data) + 1;
    uint8_t* raw = mem + sizeof(h);
    const size_t mem_size = size - 1, raw_size = mem_size - sizeof(h);
    std::memcpy(&h, mem, sizeof(h));
    zel_fuzz::QuietLogs(config & 4);
    W::mode_ = PROFILE_ON | (config & 8 ? PROFILE_DETAIL : 0) |
               (config & 16 ? PROFILE_SKIP_SERVICE : 0);
    W::maxIter_ = 1 + n;
    W::printFlagClient_ = W::printFlagService_ = W::printFlagDevice_ = true;
    const ProfilerKeyType model = which == 0 ? h.model_id : kModel;
    W::create_profiler(model);
    for (ProfilerKeyType i = 0; i < n; ++i) {  // SERVICE { ENGINE { NPU_UD }, DD/kOp }
        for (ProfileLabel label : {SERVICE, ENGINE, NPU_UD})
            W::profile_from(model, label, 0, i);
        for (ProfileLabel label : {NPU_UD, ENGINE})
            W::profile_until(model, label, 0, i);
        W::profile_from(model, DD, kOp, i);
        W::profile_until(model, DD, kOp, i);
        W::profile_until(model, SERVICE, 0, i);
    }
    try {                  // the profiler's own failures throw runtime_error
        if (which == 0) {  // counts passed as int, as the service takes them
            W::merge_rawdata_mem_to_profiler(model, raw, static_cast<int>(raw_size),
                                             static_cast<int>(h.num_iter),
                                             static_cast<int>(h.num_label));
        } else if (which < 3) {
            ZelProfiler other(model, raw, raw_size, 50000, h.num_iter, h.num_label);
            ZelProfiler& parent = which == 1 ? other : *W::profilerMap_[model];
            ZelProfiler& child = which == 1 ? *W::profilerMap_[model] : other;
            const ProfileLabel docks[] = {CLIENT, DD, SERVICE, ENGINE};
            const ProfileLabel dock = docks[h.model_id & 3];
            Show(child);
            Show(parent);
            parent.set_leaf_docking_point({dock, dock == DD ? kOp : 0});
            if (parent.merge(&child) == 0) Show(parent);
        } else {  // the device buffer from offset 0, header included
            DeviceProfileInfo info{};
            W::create_device_profiler(model, kOp, info);
            if (info.va) std::memcpy(info.va, mem, std::min<uint64_t>(mem_size, info.size));
            W::merge_device_profiler_to_main_profiler(model, kOp);
        }
    } catch (const std::runtime_error&) {
    }
    try {
        W::remove_profiler(model);
    } catch (const std::runtime_error&) {
    }
    for (auto& entry : W::profilerMap_)  // whatever a failure left behind
        delete entry.second;
    W::profilerMap_.clear();
    W::deviceProfilerMap_.clear();
    return 0;
}
