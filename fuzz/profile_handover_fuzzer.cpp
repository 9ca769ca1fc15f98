// Profiles that reach the service from outside, each met by a service profile recorded through the
// wrapper: client profile memory (24-byte header, raw data) through merge_rawdata_mem_to_profiler;
// the same raw data with 64-bit counts as a profiler from memory, docked over the service profile
// or under one of its stages; the device buffer as the driver leaves it. Every profile is
// finalized and reported on the way; removing the model's profiler reports the merged one.
//
// Input: config (1 byte: bits 0..1 the boundary above, bit 2 traces on, bit 3 detail labels, bit 4
// skip service, bits 5..7 service iterations n, n + 1 the iteration limit), then the data. For
// raw data, the header's model id picks the docking stage: CLIENT, DD, SERVICE, ENGINE.
#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "fuzz_support.h"
#include "util/zel_utils_profiler_client.h"
#include "util/zel_utils_profiler_wrapper.h"

using namespace zel::util;
using W = ZelProfilerWrapper;

namespace {

constexpr ProfilerKeyType kModel = 7;
constexpr ProfilerKeyType kOp = 0x2a;

// Runs one step that may end in the profiler's own failure exception ("finalize fail", "no mem").
template <typename Step>
void Guarded(Step step) {
    try {
        step();
    } catch (const std::runtime_error&) {
    }
}

void FinalizeAndShow(ZelProfiler& profiler) {
    if (profiler.finalize() == 0) profiler.show_output(true);
}

// Docks `child` at `dock` of `parent`, and shows the result.
void Merge(ZelProfiler& parent, ZelProfiler& child, ProfileLabel dock) {
    FinalizeAndShow(child);
    FinalizeAndShow(parent);
    parent.set_leaf_docking_point({dock, dock == DD ? kOp : 0});
    if (parent.merge(&child) == 0) FinalizeAndShow(parent);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    zel_fuzz::QuietLogs(false);
    W::initialize(PROFILE_ON | PROFILE_DETAIL, 1);  // every client and service label recorded
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    ClientProfileHeader header{};
    if (size < 1 + sizeof(header)) return 0;
    const uint8_t config = data[0];
    uint8_t* mem = const_cast<uint8_t*>(data) + 1;
    const size_t mem_size = size - 1;
    std::memcpy(&header, mem, sizeof(header));
    zel_fuzz::QuietLogs(config & 4);
    W::mode_ = PROFILE_ON | (config & 8 ? PROFILE_DETAIL : 0) |
               (config & 16 ? PROFILE_SKIP_SERVICE : 0);
    W::maxIter_ = 1 + (config >> 5);
    W::printFlagClient_ = W::printFlagService_ = W::printFlagDevice_ = true;

    // The service's own stages: SERVICE{ENGINE{NPU_UD}, DD/kOp}.
    const ProfilerKeyType model = (config & 3) == 0 ? header.model_id : kModel;
    W::create_profiler(model);
    for (ProfilerKeyType i = 0; i < static_cast<ProfilerKeyType>(config >> 5); ++i) {
        for (ProfileLabel label : {SERVICE, ENGINE, NPU_UD})
            W::profile_from(model, label, 0, i);
        W::profile_until(model, NPU_UD, 0, i);
        W::profile_until(model, ENGINE, 0, i);
        W::profile_from(model, DD, kOp, i);
        W::profile_until(model, DD, kOp, i);
        W::profile_until(model, SERVICE, 0, i);
    }

    Guarded([&] {
        if ((config & 3) == 0) {  // the service passes the header's counts as int, as it takes them
            W::merge_rawdata_mem_to_profiler(
                    model, mem + sizeof(header), static_cast<int>(mem_size - sizeof(header)),
                    static_cast<int>(header.num_iter), static_cast<int>(header.num_label));
        } else if ((config & 3) < 3) {
            ZelProfiler other(model, mem + sizeof(header), mem_size - sizeof(header), 50000,
                              header.num_iter, header.num_label);
            const ProfileLabel dock =
                    std::vector<ProfileLabel>{CLIENT, DD, SERVICE, ENGINE}[header.model_id & 3];
            ZelProfiler& service = *W::profilerMap_[model];
            (config & 3) == 1 ? Merge(other, service, dock) : Merge(service, other, dock);
        } else {  // the device buffer from offset 0, the header's bytes included
            DeviceProfileInfo info{};
            W::create_device_profiler(model, kOp, info);
            if (info.va != nullptr)
                std::memcpy(info.va, mem, std::min<uint64_t>(mem_size, info.size));
            W::merge_device_profiler_to_main_profiler(model, kOp);
        }
    });
    Guarded([&] { W::remove_profiler(model); });
    for (auto& entry : W::profilerMap_)  // whatever a failure left behind
        delete entry.second;
    W::profilerMap_.clear();
    W::deviceProfilerMap_.clear();
    return 0;
}
