// Client raw data as the service rebuilds it: bytes and counts -> ZelProfiler from memory ->
// finalize -> report -> merged with a service profile both ways -> finalize -> report.
//
// Input: flags (1 byte: bit 0 traces on, bit 1 64-bit counts, bits 2..3 docking stage of the
// reverse merge), num_iter and num_label (2 bytes each, or 8 with bit 1), then the raw data.
#include <cstring>
#include <stdexcept>

#include "fuzz_support.h"

using zel::util::ProfileLabel;
using zel::util::ProfilerKeyType;
using zel::util::ZelProfiler;

namespace {

constexpr ProfilerKeyType kModel = 7;
constexpr ProfilerKeyType kOp = 0x30;

template <typename T>
bool Take(const uint8_t*& data, size_t& size, T* out) {
    if (size < sizeof(T)) return false;
    std::memcpy(out, data, sizeof(T));
    data += sizeof(T);
    size -= sizeof(T);
    return true;
}

// Runs one step that may end in the profiler's own failure exception ("finalize fail", "no mem").
template <typename Step>
void Guarded(Step step) {
    try {
        step();
    } catch (const std::runtime_error&) {
    }
}

void FinalizeAndShow(ZelProfiler& profiler) {
    Guarded([&] {
        if (profiler.finalize() == 0) profiler.show_output(true);
    });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    uint8_t flags = 0;
    if (!Take(data, size, &flags)) return 0;
    uint64_t num_iter = 0;
    uint64_t num_label = 0;
    if (flags & 2) {
        if (!Take(data, size, &num_iter) || !Take(data, size, &num_label)) return 0;
    } else {
        uint16_t iter16 = 0;
        uint16_t label16 = 0;
        if (!Take(data, size, &iter16) || !Take(data, size, &label16)) return 0;
        num_iter = iter16;
        num_label = label16;
    }
    zel_fuzz::QuietLogs(flags & 1);
    const int service_iterations = num_iter >= 1 && num_iter <= 16 ? static_cast<int>(num_iter) : 3;
    static const ProfileLabel kDocks[] = {zel::util::DD, zel::util::SERVICE, zel::util::TOTAL,
                                          zel::util::CLIENT};
    const ProfileLabel dock = kDocks[(flags >> 2) & 3];

    // The service's own flow: the client's profile absorbs the service's under (CLIENT, 0).
    Guarded([&] {
        ZelProfiler client(kModel, const_cast<uint8_t*>(data), size, 50000, num_iter, num_label);
        FinalizeAndShow(client);
        ZelProfiler service(kModel, 50000, "service", false);
        zel_fuzz::RecordServiceIterations(service, service_iterations, kModel, kOp);
        FinalizeAndShow(service);
        client.set_leaf_docking_point({zel::util::CLIENT, 0});
        if (client.merge(&service) == 0) FinalizeAndShow(client);
    });

    // The same bytes as a child docked into a service profile (the device path's direction).
    Guarded([&] {
        ZelProfiler child(kModel, const_cast<uint8_t*>(data), size, 50000, num_iter, num_label);
        FinalizeAndShow(child);
        ZelProfiler service(kModel, 50000, "service", false);
        zel_fuzz::RecordServiceIterations(service, service_iterations, kModel, kOp);
        FinalizeAndShow(service);
        service.set_leaf_docking_point({dock, dock == zel::util::DD ? kOp : 0});
        if (service.merge(&child) == 0) FinalizeAndShow(service);
    });
    return 0;
}
