// The simulated device driver: keeps the device buffers the service hands over mapped and, for
// every operation it runs, measures its own stages (queue, session, firmware, hardware units)
// and writes one entry per stage, as a real driver layer would.
#include <sys/mman.h>
#include <sys/stat.h>

#include <chrono>
#include <cstring>
#include <map>
#include <random>

#include "util/zel_utils_profiler_device.h"
#include "zel_prof/demo.h"
#include "zel_prof/demo_protocol.h"

namespace zel_prof {
namespace demo {

namespace {

using zel::util::DeviceProfilerData;
using zel::util::ProfileLabel;
using Clock = std::chrono::steady_clock;

struct DeviceBuffer {
    uint8_t* va = nullptr;
    uint64_t size = 0;
    uint64_t max_iter = 0;
    uint64_t split_offset = 0;
    bool detail = false;
};

constexpr uint32_t kUnitNotUsed = 0xFFFFFFFF;

void SpinFor(uint32_t microseconds) {
    const auto until = Clock::now() + std::chrono::microseconds(microseconds);
    while (Clock::now() < until) {
    }
}

uint32_t Micros(Clock::time_point from, Clock::time_point to) {
    return static_cast<uint32_t>(
            std::chrono::duration_cast<std::chrono::microseconds>(to - from).count());
}

// Stage durations of one run; the entries of one iteration, DD area then FW area.
struct Entries {
    std::vector<DeviceProfilerData> dd;
    std::vector<DeviceProfilerData> fw;
};

DeviceProfilerData Entry(ProfileLabel label, uint16_t clist_i, uint32_t duration) {
    return {static_cast<uint16_t>(label), clist_i, duration};
}

// Runs the operation: hardware time grows with the operation and varies per run, with an
// occasional slow run, so that the report's median and 90% columns differ.
Entries RunOperation(uint64_t op, bool detail, std::mt19937& random) {
    std::uniform_int_distribution<uint32_t> jitter(0, 12);
    const bool slow = random() % 13 == 0;
    const uint32_t hw = static_cast<uint32_t>(30 + 20 * op) + jitter(random) + (slow ? 40 : 0);
    const auto clist = static_cast<uint16_t>(op);
    Entries entries;
    if (!detail) {
        const auto dd_start = Clock::now();
        SpinFor(4 + jitter(random) / 4);
        const auto fw_start = Clock::now();
        SpinFor(3);
        const auto hw_start = Clock::now();
        SpinFor(hw);
        const auto hw_end = Clock::now();
        SpinFor(3);
        const auto fw_end = Clock::now();
        SpinFor(2);
        const auto dd_end = Clock::now();
        entries.dd = {Entry(zel::util::DD_ROOT, clist, Micros(dd_start, dd_end))};
        entries.fw = {Entry(zel::util::FW, clist, Micros(fw_start, fw_end)),
                      Entry(zel::util::HW, clist, Micros(hw_start, hw_end))};
        return entries;
    }
    // Detail: the queue and session stages, then the firmware interface, inside it the firmware
    // running both NPU cores one after the other; the DSP is not used.
    const auto dd_start = Clock::now();
    SpinFor(3 + jitter(random) / 4);
    const auto session_start = Clock::now();
    SpinFor(5);
    const auto fw_if_start = Clock::now();
    SpinFor(2);
    const auto fw_start = Clock::now();
    SpinFor(2);
    const auto npu0_start = Clock::now();
    SpinFor(hw * 2 / 3);
    const auto npu1_start = Clock::now();
    SpinFor(hw / 3);
    const auto npu1_end = Clock::now();
    SpinFor(2);
    const auto fw_end = Clock::now();
    SpinFor(2);
    const auto fw_if_end = Clock::now();
    SpinFor(2);
    const auto dd_end = Clock::now();
    entries.dd = {Entry(zel::util::DD_ROOT, clist, Micros(dd_start, dd_end)),
                  Entry(zel::util::DD_QUEUE, clist, Micros(dd_start, session_start)),
                  Entry(zel::util::DD_SESSION, clist, Micros(session_start, fw_if_start)),
                  Entry(zel::util::DD_FW_IF, clist, Micros(fw_if_start, fw_if_end))};
    entries.fw = {Entry(zel::util::FW, clist, Micros(fw_start, fw_end)),
                  Entry(zel::util::HW_NPU0, clist, Micros(npu0_start, npu1_start)),
                  Entry(zel::util::HW_NPU1, clist, Micros(npu1_start, npu1_end)),
                  Entry(zel::util::HW_NPU01_OVERLAP, clist, 0),
                  Entry(zel::util::HW_DSP, clist, kUnitNotUsed)};
    return entries;
}

// Writes iteration `k` of the run into the device buffer and raises its iteration count.
void Record(DeviceBuffer& buffer, uint64_t k, const Entries& entries) {
    const uint64_t d = entries.dd.size();
    const uint64_t f = entries.fw.size();
    const uint64_t dd_end = 8 + (k + 1) * d * sizeof(DeviceProfilerData);
    const uint64_t fw_end = 8 + buffer.split_offset + (k + 1) * f * sizeof(DeviceProfilerData);
    if (k >= buffer.max_iter || dd_end > buffer.size || fw_end > buffer.size) return;
    memcpy(buffer.va + 8 + k * d * sizeof(DeviceProfilerData), entries.dd.data(),
           d * sizeof(DeviceProfilerData));
    memcpy(buffer.va + 8 + buffer.split_offset + k * f * sizeof(DeviceProfilerData),
           entries.fw.data(), f * sizeof(DeviceProfilerData));
    uint64_t num_iter;
    memcpy(&num_iter, buffer.va, sizeof(num_iter));
    if (k + 1 > num_iter) {
        num_iter = k + 1;
        memcpy(buffer.va, &num_iter, sizeof(num_iter));
    }
}

}  // namespace

int RunDriver(int service_sock) {
    std::map<uint64_t, DeviceBuffer> buffers;
    std::mt19937 random(20261121);
    Message message;
    android::base::unique_fd fd;
    int status = 0;
    while (Receive(service_sock, &message, &fd)) {
        if (message.kind == kQuit) break;
        if (message.kind == kDeviceBuffer) {
            struct stat st;
            if (fd.get() < 0 || fstat(fd.get(), &st) != 0 ||
                static_cast<uint64_t>(st.st_size) < message.size || message.size == 0) {
                status = 1;
                continue;
            }
            void* va = mmap(nullptr, message.size, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
            if (va == MAP_FAILED) {
                status = 1;
                continue;
            }
            buffers[message.op] = {static_cast<uint8_t*>(va), message.size, message.max_iter,
                                   message.split_offset, message.detail != 0};
        } else if (message.kind == kRunOp) {
            auto found = buffers.find(message.op);
            const bool detail = found != buffers.end() && found->second.detail;
            const Entries entries = RunOperation(message.op, detail, random);
            if (found != buffers.end()) Record(found->second, message.iteration, entries);
            Message done{};
            done.kind = kOpDone;
            done.op = message.op;
            done.iteration = message.iteration;
            if (!Send(service_sock, done)) break;
        }
    }
    for (auto& [op, buffer] : buffers)
        munmap(buffer.va, buffer.size);
    return status;
}

}  // namespace demo
}  // namespace zel_prof
