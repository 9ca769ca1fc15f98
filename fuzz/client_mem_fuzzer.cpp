// Client profile memory as the service receives it: a 24-byte header (model_id, num_label,
// num_iter) and raw data, taken apart as the service does and handed to
// merge_rawdata_mem_to_profiler against a service profile recorded through the wrapper; then the
// model's profiler is removed, which finalizes and prints it.
//
// Input: flags (1 byte: bit 0 traces on, bits 1..3 service iterations), then the profile memory.
#include <cstring>
#include <stdexcept>

#include "fuzz_support.h"
#include "util/zel_utils_profiler_client.h"
#include "util/zel_utils_profiler_wrapper.h"

using zel::util::ClientProfileHeader;
using zel::util::ZelProfilerWrapper;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    zel_fuzz::QuietLogs(false);
    ZelProfilerWrapper::initialize(zel::util::PROFILE_ON, 64);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1 + sizeof(ClientProfileHeader)) return 0;
    const uint8_t flags = data[0];
    const uint8_t* mem = data + 1;
    const size_t mem_size = size - 1;
    zel_fuzz::QuietLogs(flags & 1);

    ClientProfileHeader header;
    std::memcpy(&header, mem, sizeof(header));
    const zel::util::ProfilerKeyType model = header.model_id;

    ZelProfilerWrapper::create_profiler(model);
    const int iterations = (flags >> 1) & 7;
    for (int i = 0; i < iterations; ++i) {
        ZelProfilerWrapper::profile_from(model, zel::util::SERVICE, 0, i);
        ZelProfilerWrapper::profile_from(model, zel::util::ENGINE, 0, i);
        ZelProfilerWrapper::profile_until(model, zel::util::ENGINE, 0, i);
        ZelProfilerWrapper::profile_from(model, zel::util::DD, 1, i);
        ZelProfilerWrapper::profile_until(model, zel::util::DD, 1, i);
        ZelProfilerWrapper::profile_until(model, zel::util::SERVICE, 0, i);
    }
    try {
        // The service passes the header's counts as int, as the interface takes them.
        ZelProfilerWrapper::merge_rawdata_mem_to_profiler(
                model, const_cast<uint8_t*>(mem) + sizeof(header),
                static_cast<int>(mem_size - sizeof(header)), static_cast<int>(header.num_iter),
                static_cast<int>(header.num_label));
    } catch (const std::runtime_error&) {
    }
    try {
        ZelProfilerWrapper::remove_profiler(model);
    } catch (const std::runtime_error&) {
    }
    zel_fuzz::ResetProfilerRegistry();
    return 0;
}
