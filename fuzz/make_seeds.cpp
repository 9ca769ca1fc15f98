// Writes the seed corpora of the fuzz targets with the library's own code: raw data of real
// client and service profiles, client profile memory packed by ZelClientProfiler, device buffers
// filled as the driver fills them, raw-data files, measurement series and pool records.
// Usage: make_seeds <corpus-dir>; each target's seeds go to <corpus-dir>/<target>/.
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "src/common/zel_memory/memory_manager.h"
#include "util/zel_utils.h"
#include "util/zel_utils_profiler_client.h"
#include "util/zel_utils_profiler_device.h"

using namespace zel::util;

namespace {

std::string g_root;
int g_failures = 0;

void Write(const std::string& target, const std::string& name, const std::vector<uint8_t>& bytes) {
    const std::string dir = g_root + "/" + target;
    mkdir(g_root.c_str(), 0755);
    mkdir(dir.c_str(), 0755);
    const std::string path = dir + "/" + name;
    if (export_mem_to_file(path.c_str(), bytes.data(), static_cast<uint32_t>(bytes.size())) != 0) {
        std::fprintf(stderr, "make_seeds: cannot write %s\n", path.c_str());
        ++g_failures;
    }
}

template <typename T>
void Append(std::vector<uint8_t>& out, const T& value) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(&value);
    out.insert(out.end(), bytes, bytes + sizeof(T));
}

void AppendRaw(std::vector<uint8_t>& out, const ZelProfiler& profiler) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(profiler.rawdata);
    out.insert(out.end(), bytes, bytes + profiler.rawdata_size);
}

// The targets record the service's stages when they run, long after these seeds were made; for
// the service's stages to fall inside the client's CLIENT stage, as they do in a real request,
// the client's stages are stretched far into the future by moving their END records.
void StretchClientStages(ZelProfiler& client) {
    const uint64_t count = client.rawdata_size / sizeof(ZelProfileData);
    for (uint64_t i = 0; i < count; ++i) {
        if (client.rawdata[i].type == END) client.rawdata[i].timestamp += uint64_t{1} << 40;
    }
}

// client_rawdata_fuzzer: flags, 16-bit counts, raw data.
void ClientRawdataSeeds() {
    for (int iterations : {1, 3, 6}) {
        ZelProfiler client(7, 50000, "Client", false);
        zel_fuzz::RecordClientIterations(client, iterations, 7);
        client.finalize();
        StretchClientStages(client);
        std::vector<uint8_t> seed = {static_cast<uint8_t>(iterations == 3 ? 1 : 0)};
        Append(seed, static_cast<uint16_t>(client.num_iter));
        Append(seed, static_cast<uint16_t>(client.num_label));
        AppendRaw(seed, client);
        Write("client_rawdata_fuzzer", "client_" + std::to_string(iterations), seed);
    }
    // A service profile as the child, docked at SERVICE.
    ZelProfiler service(7, 50000, "service", false);
    zel_fuzz::RecordServiceIterations(service, 2, 7, 0x30);
    service.finalize();
    std::vector<uint8_t> seed = {static_cast<uint8_t>(1 << 2)};
    Append(seed, static_cast<uint16_t>(service.num_iter));
    Append(seed, static_cast<uint16_t>(service.num_label));
    AppendRaw(seed, service);
    Write("client_rawdata_fuzzer", "service_2", seed);
}

// client_mem_fuzzer: flags (service iterations), then the packed profile memory.
void ClientMemSeeds() {
    for (int iterations : {1, 3}) {
        ZelClientProfiler client(0x5a, 50000, false);
        zel_fuzz::RecordClientIterations(client, iterations, 0x5a);
        client.finalize();
        StretchClientStages(client);
        zel::memory::Buffer::sptr memory = client.fill_profile_mem_to_send_service();
        if (memory == nullptr) {
            ++g_failures;
            continue;
        }
        std::vector<uint8_t> seed = {static_cast<uint8_t>(iterations << 1)};
        const auto* bytes = static_cast<const uint8_t*>(memory->va);
        seed.insert(seed.end(), bytes, bytes + memory->size);
        Write("client_mem_fuzzer", "client_" + std::to_string(iterations), seed);
    }
}

// device_buffer_fuzzer: config, then the device buffer as the driver leaves it.
void DeviceSeeds() {
    // The service's DD stage, recorded by the target, lasts a few microseconds: seeds whose
    // durations are 0 fit inside it and reach the merge, the others end in the time check.
    const uint64_t limit = 4;
    for (int variant = 0; variant < 4; ++variant) {
        const bool detail = variant & 1;
        const uint32_t scale = variant < 2 ? 1 : 0;
        ZelDeviceProfiler device(0x2a, limit, detail);
        const std::vector<ProfileLabel>& dd = detail ? ZelDeviceProfiler::detail_labels_dd_
                                                     : ZelDeviceProfiler::overview_labels_dd_;
        const std::vector<ProfileLabel>& fw = detail ? ZelDeviceProfiler::detail_labels_fw_
                                                     : ZelDeviceProfiler::overview_labels_fw_;
        auto* va = static_cast<uint8_t*>(device.device_memory->va);
        const uint64_t written = 3;
        std::memcpy(va, &written, sizeof(written));
        for (uint64_t k = 0; k < written; ++k) {
            for (size_t i = 0; i < dd.size(); ++i) {
                const DeviceProfilerData entry{static_cast<uint16_t>(dd[i]),
                                               static_cast<uint16_t>(i),
                                               scale * static_cast<uint32_t>(100 + 10 * k + i)};
                std::memcpy(va + 8 + (k * dd.size() + i) * 8, &entry, sizeof(entry));
            }
            for (size_t j = 0; j < fw.size(); ++j) {
                const DeviceProfilerData entry{static_cast<uint16_t>(fw[j]),
                                               static_cast<uint16_t>(j),
                                               scale * static_cast<uint32_t>(20 + k + j)};
                std::memcpy(va + 8 + device.split_offset_ + (k * fw.size() + j) * 8, &entry,
                            sizeof(entry));
            }
        }
        std::vector<uint8_t> seed = {static_cast<uint8_t>((detail ? 1 : 0) | ((limit - 1) << 3))};
        seed.insert(seed.end(), va, va + device.device_memory->size);
        Write("device_buffer_fuzzer",
              std::string(detail ? "detail" : "overview") + (scale != 0 ? "_timed" : "_instant"),
              seed);
    }
}

// file_fuzzer, kth_selection_fuzzer, memory_manager_fuzzer: bytes the library itself produces.
void OtherSeeds() {
    ZelProfiler profile(9, 50000, "service", false);
    zel_fuzz::RecordServiceIterations(profile, 12, 9, 1);
    profile.finalize();
    std::vector<uint8_t> raw;
    AppendRaw(raw, profile);
    Write("file_fuzzer", "rawdata_file", raw);

    std::vector<uint8_t> series = {1, 0};
    for (uint64_t value : profile.root->self_time)
        Append(series, value);
    Write("kth_selection_fuzzer", "self_times", series);

    zel::memory::MemoryManager manager;
    std::vector<uint8_t> records = {0, 1, 4, 0};
    for (uint32_t size : {4096u, 100u}) {
        auto buffer = manager.create_memory(zel::memory::ZEL_MM_HEAP, size, 0);
        if (zel::memory::ZelBuffer* record = manager.get_user_raw_buffer(buffer))
            Append(records, *record);
    }
    Write("memory_manager_fuzzer", "pool_records", records);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: make_seeds <corpus-dir>\n");
        return 2;
    }
    g_root = argv[1];
    zel_fuzz::QuietLogs(false);
    ClientRawdataSeeds();
    ClientMemSeeds();
    DeviceSeeds();
    OtherSeeds();
    return g_failures == 0 ? 0 : 1;
}
