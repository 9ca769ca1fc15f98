// Device buffer contents as the driver leaves them: create_device_profiler hands out the buffer,
// the input is written into it as the driver would (num_iter, then the DD and FW areas with
// their entries), and merge_device_profiler_to_main_profiler converts it and docks it under the
// model's (DD, opId) stage; removing the model's profiler then prints the merged report.
//
// Input: config (1 byte: bit 0 detail label sets, bit 1 traces on, bit 2 skip service, bits
// 3..7 iteration limit - 1), then the buffer image from offset 0.
#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "fuzz_support.h"
#include "util/zel_utils_profiler_wrapper.h"

using zel::util::ProfilerKeyType;
using zel::util::ZelProfilerWrapper;

namespace {
constexpr ProfilerKeyType kModel = 0x11;
constexpr ProfilerKeyType kOp = 0x2a;
}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    zel_fuzz::QuietLogs(false);
    // The detail service labels include the overview ones: every stage below is recorded.
    ZelProfilerWrapper::initialize(zel::util::PROFILE_ON | zel::util::PROFILE_DETAIL, 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    const uint8_t config = data[0];
    const uint8_t* image = data + 1;
    const size_t image_size = size - 1;
    zel_fuzz::QuietLogs(config & 2);

    ZelProfilerWrapper::mode_ = zel::util::PROFILE_ON;
    if (config & 1) ZelProfilerWrapper::mode_ |= zel::util::PROFILE_DETAIL;
    if (config & 4) ZelProfilerWrapper::mode_ |= zel::util::PROFILE_SKIP_SERVICE;
    ZelProfilerWrapper::maxIter_ = 1 + (config >> 3);
    ZelProfilerWrapper::printFlagDevice_ = true;

    // The service's side of the same run: one iteration per device iteration the driver claims,
    // within the limit.
    uint64_t claimed = 0;
    std::memcpy(&claimed, image, std::min(image_size, sizeof(claimed)));
    const int iterations =
            claimed >= 1 && claimed <= ZelProfilerWrapper::maxIter_ ? static_cast<int>(claimed) : 1;
    ZelProfilerWrapper::create_profiler(kModel);
    for (int i = 0; i < iterations; ++i) {
        ZelProfilerWrapper::profile_from(kModel, zel::util::SERVICE, 0, i);
        ZelProfilerWrapper::profile_from(kModel, zel::util::DD, kOp, i);
        ZelProfilerWrapper::profile_until(kModel, zel::util::DD, kOp, i);
        ZelProfilerWrapper::profile_until(kModel, zel::util::SERVICE, 0, i);
    }

    zel::util::DeviceProfileInfo info{};
    try {
        ZelProfilerWrapper::create_device_profiler(kModel, kOp, info);
        if (info.va != nullptr) {
            std::memcpy(info.va, image, std::min<uint64_t>(image_size, info.size));
        }
        ZelProfilerWrapper::merge_device_profiler_to_main_profiler(kModel, kOp);
    } catch (const std::runtime_error&) {
    }
    try {
        ZelProfilerWrapper::remove_profiler(kModel);
    } catch (const std::runtime_error&) {
    }
    zel_fuzz::ResetProfilerRegistry();
    return 0;
}
