// What the other processes of a profiled inference hand the service: the driver's device buffers
// and the client's packed profile, each read as untrusted data. (The whole road across real
// processes runs in ZelProfTest's demo.)
#include <gtest/gtest.h>

#include <cstring>
#include <regex>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/log_capture.h"
#include "util/zel_utils_profiler_client.h"
#include "util/zel_utils_profiler_wrapper.h"

namespace {

using namespace zel::util;
using W = ZelProfilerWrapper;

constexpr uint64_t kModel = 7;

// Iteration k's entries as a driver writes them: DD_ROOT in the DD area, FW and HW in the FW area.
void WriteDevice(void* buffer, uint64_t split, uint64_t k, uint32_t dd, uint32_t fw, uint32_t hw,
                 ProfileLabel dd_label = DD_ROOT) {
    auto* va = static_cast<uint8_t*>(buffer);
    const DeviceProfilerData entries[] = {
            {static_cast<uint16_t>(dd_label), 0, dd}, {FW, 0, fw}, {HW, 0, hw}};
    memcpy(va + 8 + k * 8, &entries[0], 8);
    memcpy(va + 8 + split + k * 16, &entries[1], 16);
    const uint64_t num_iter = k + 1;
    memcpy(va, &num_iter, 8);
}

// Device entries are converted as far as the buffer holds them and dock at their DD stage's start;
// a profile that cannot be converted fails the merge, which throws. Client counts that disagree
// with the memory's size are refused; a failed client merge leaves the registry as it was.
TEST(ProfilerFlowTest, UntrustedDataFromTheDriverAndTheClient) {
    const std::string result = zel_test::RunInChild([] {
        W::initialize(PROFILE_ON, 3);
        // The service's profile: SERVICE around DD_1 .. DD_3, each DD stage 50 us long.
        std::vector<ZelProfileData> stages;
        for (uint64_t i = 0, base = 1000; i < 3; ++i, base += 1000) {
            stages.push_back({START, SERVICE, 0, i, base});
            for (uint64_t op = 1; op <= 3; ++op) {
                stages.push_back({START, DD, op, i, base + 100 * op});
                stages.push_back({END, DD, op, i, base + 100 * op + 50});
            }
            stages.push_back({END, SERVICE, 0, i, base + 400});
        }
        ZelProfiler* service = new ZelProfiler(kModel, stages.data(), 960, 3, 3, 8);
        W::profilerMap_[kModel] = service;
        DeviceProfileInfo info[4] = {};
        for (uint64_t op = 1; op <= 3; ++op)
            W::create_device_profiler(kModel, op, info[op]);
        // 1: four iterations for a limit of three; 2: a label outside the tree; 3: empty slots,
        // leaving the stages unbound. (A count beyond the buffer: ProfilerDeviceTest.)
        for (uint64_t k = 0; k < 3; ++k)
            WriteDevice(info[1].va, info[1].split_offset, k, 30, 20, 12);
        WriteDevice(info[2].va, info[2].split_offset, 0, 3, 2, 1, API);
        const uint64_t counts[] = {4, 0, 1};
        for (uint64_t op : {1, 3})
            memcpy(info[op].va, &counts[op - 1], 8);
        zel_test::LogCapture log;
        std::string codes;
        for (uint64_t op = 1; op <= 3; ++op) {
            try {
                W::merge_device_profiler_to_main_profiler(kModel, op);
                codes += "-";
            } catch (const std::runtime_error& error) {
                codes += error.what() == std::string("finalize fail\n") ? "T" : "?";
            }
        }
        // Op 1's stages of iteration 0, relative to the start of its DD stage (1100).
        for (uint64_t r = 0; r < service->num_label; ++r) {
            if (service->rawdata[r].label >= DD_ROOT && service->rawdata[r].label <= HW)
                codes += " " + std::to_string(service->rawdata[r].timestamp - 1100);
        }
        ZelProfileData client[] = {{START, API, 0, 0, 10},
                                   {START, CLIENT, 0, 0, 20},
                                   {END, CLIENT, 0, 0, 30},
                                   {END, API, 0, 0, 40}};
        codes += " ";
        for (const auto& [size, iterations] : {std::pair{160, 2}, {-1, 1}, {160, -1}, {0, 0}})
            codes += std::to_string(
                    W::merge_rawdata_mem_to_profiler(kModel, client, size, iterations, 4));
        // Records queued after raw data exist make the client profile's finalize fail.
        ZelProfiler late(kModel, client, 160, 10, 1, 4);
        late.add_record_start(API, 0, 0);
        ZelProfileData api[] = {client[0], client[3]};  // no CLIENT stage to dock at
        ZelProfiler alone(kModel, api, 80, 10, 1, 2);
        codes += std::to_string(W::merge_client_service_profilers(kModel, &late));
        codes += std::to_string(W::merge_client_service_profilers(kModel, &alone)) + " ";
        // Packed once; no records is a header alone; a size without an array is refused.
        ZelClientProfiler none(kModel, 10, false), claimed(kModel, 10, false);
        claimed.rawdata_size = 40;
        const auto packed = none.fill_profile_mem_to_send_service();
        for (bool ok : {packed && packed->size == 24, !none.fill_profile_mem_to_send_service(),
                        !claimed.fill_profile_mem_to_send_service()})
            codes += ok ? "1" : "0";
        std::string text;
        for (const std::string& line : log.messages()) {
            if (line.rfind("2.1.17: * ", 0) == 0 &&
                !std::regex_search(line, std::regex("Finalize|Found|Cannot merge|show flag")))
                text += line.substr(8);
        }
        return text + codes + " left " + std::to_string(W::deviceProfilerMap_.size()) +
               (W::profilerMap_.at(kModel) == service ? " kept " : " replaced ") +
               std::to_string(service->num_label) + (service->show_flag ? " shown" : "");
    });
    // An unconverted device profile is merged all the same and stops at its first missing record.
    const auto Unconverted = [](int iterations, int op) {
        return "* Wrong merge usage. iter diff. (" + std::to_string(iterations) +
               ") vs (3)\n* Raw data too small for its counts. name[device] num_iter(" +
               std::to_string(iterations) + ") num_label(6) size(0)\n* Fail to merge child(0x" +
               std::to_string(op) + "\n";
    };
    EXPECT_EQ(
            "* Wrong merge usage. iter diff. (4) vs (3)\n* Fail to find node(API:25) in tree.\n"
            "* Fail to fill index\n* Fail to fill_offset_ingredient_treer\n" +
                    Unconverted(1, 2) +
                    "* No device slot for label(DD_ROOT)\n* Fail to convert_to_rawdata\n" +
                    Unconverted(1, 3) +
                    "* Client profile counts disagree with its size. size(160) num_iter(2) "
                    "num_label(4)\n"
                    "* Client profile counts disagree with its size. size(-1) num_iter(1) "
                    "num_label(4)\n"
                    "* Client profile counts disagree with its size. size(160) num_iter(-1) "
                    "num_label(4)\n"
                    "* Wrong merge usage. iter diff. (3) vs (0)\n"  // an empty client
                    "* Fail to find parent's leaf(CLIENT:0x0)\n* Fail to merge profiler\n"
                    "* Wrong flow. We already have rawdata\n"
                    "* Fail to process queue data to rawdata.(default)\n"
                    "* Fail to finalize profilerFromClient at merge stage\n"
                    "* Wrong merge usage. iter diff. (3) vs (1)\n"
                    "* Fail to find parent's leaf(CLIENT:0x0)\n* Fail to merge profiler\n"
                    "* Data to Service : model_id(0x7) num_label(0) num_iter(0) size(24)\n"
                    "* Cannot pack rawdata((nil)) size(40) to send service\n"
                    "-TT 0 0 0 12 20 30 111111 111 left 0 kept 14 shown",
            result);
}

}  // namespace
