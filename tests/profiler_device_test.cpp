// Device profiler: the buffer shared with the driver and its conversion into raw data.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "debug/zel_debug.h"
#include "support/log_capture.h"
#include "util/zel_utils_profiler_device.h"

namespace {

using namespace zel::util;
using zel_test::Line;

// Writes iteration k's entries ({label, duration} per slot) into the DD and FW areas, and k + 1
// as the driver's count.
void Write(ZelDeviceProfiler& device, uint64_t k,
           const std::vector<std::pair<ProfileLabel, uint32_t>>& dd,
           const std::vector<std::pair<ProfileLabel, uint32_t>>& fw) {
    auto* va = static_cast<uint8_t*>(device.device_memory->va);
    for (size_t i = 0; i < dd.size() + fw.size(); ++i) {
        const bool in_dd = i < dd.size();
        const auto& [label, duration] = in_dd ? dd[i] : fw[i - dd.size()];
        const DeviceProfilerData entry{static_cast<uint16_t>(label), 3, duration};
        memcpy(va + 8 +
                       (in_dd ? (k * dd.size() + i) * 8
                              : device.split_offset_ + (k * fw.size() + i - dd.size()) * 8),
               &entry, 8);
    }
    const uint64_t num_iter = k + 1;
    memcpy(va, &num_iter, 8);
}

// "S<label>:<time>" / "E<label>:<time>" for the records of iteration k.
std::string Records(const ZelDeviceProfiler& device, uint64_t k) {
    std::string text;
    for (uint64_t r = k * device.num_label; r < (k + 1) * device.num_label; ++r) {
        const ZelProfileData& d = device.rawdata[r];
        if (d.labelPostfix != device.key || d.iterKey != 0) return "bad postfix or iterKey";
        text += (d.type == START ? "S" : "E") + std::to_string(d.label) + ":" +
                std::to_string(d.timestamp) + " ";
    }
    return text;
}

// D DD and F FW labels per iteration, the FW area after maxIter * 8 * D bytes, 8 + maxIter * 8 *
// 2(D + F) bytes in all.
TEST(ProfilerDeviceTest, BufferGeometryAndIterationLimit) {
    for (const bool detail : {false, true}) {
        ZelDeviceProfiler device(5, 100, detail);
        EXPECT_EQ(detail ? "18 3200 14408" : "6 800 4808",
                  std::to_string(device.num_label) + " " + std::to_string(device.split_offset_) +
                          " " + std::to_string(device.device_memory->size));
    }
    zel_test::LogCapture log;
    EXPECT_THROW(ZelDeviceProfiler(5, ZelDeviceProfiler::kMaxIterLimit + 1, false),
                 std::runtime_error);
    EXPECT_TRUE(
            log.contains(Line("* Cannot accept too big iteration limit(100000001 > 100000000)\n")));
}

// Children follow each other from their parent's start; 0xFFFFFFFF ends a stage where it starts;
// 32-bit times: past 2^31 a START reads sign-extended, an END zero-extended.
TEST(ProfilerDeviceTest, DetailEntriesBecomeNestedRecordsPerIteration) {
    ZelDeviceProfiler device(9, 2, true);
    Write(device, 0, {{DD_ROOT, 40}, {DD_QUEUE, 5}, {DD_SESSION, 7}, {DD_FW_IF, 20}},
          {{FW, 15}, {HW_NPU0, 6}, {HW_NPU1, 4}, {HW_NPU01_OVERLAP, 0}, {HW_DSP, 0xFFFFFFFF}});
    Write(device, 1, {{DD_ROOT, 0}, {DD_QUEUE, 0x80000000}, {DD_SESSION, 1}, {DD_FW_IF, 0}},
          {{FW, 0}, {HW_NPU0, 0}, {HW_NPU1, 0}, {HW_NPU01_OVERLAP, 0}, {HW_DSP, 0}});
    ASSERT_EQ(0, device.preprocess_device_data_to_rawdata());
    EXPECT_TRUE(device.relative_timestamp);
    EXPECT_EQ(
            "S1:0 S2:0 E2:5 S3:5 E3:12 S4:12 S5:12 S10:12 E10:12 S9:12 E9:12 S7:12 E7:18 "
            "S8:18 E8:22 E5:27 E4:32 E1:40 ",
            Records(device, 0));
    EXPECT_EQ(0x80000000u, device.rawdata[18 + 2].timestamp);          // END DD_QUEUE
    EXPECT_EQ(0xFFFFFFFF80000000u, device.rawdata[18 + 3].timestamp);  // START DD_SESSION
    EXPECT_EQ(0x80000001u, device.rawdata[18 + 4].timestamp);          // END DD_SESSION
}

// The driver's count is read only as far as the buffer; a failed conversion changes nothing.
TEST(ProfilerDeviceTest, DriverCountIsReadOnlyAsFarAsTheBuffer) {
    ZelDeviceProfiler device(9, 2, false);  // 104 bytes: 12 iterations of DD slots, 5 of FW
    EXPECT_EQ(0, device.preprocess_device_data_to_rawdata());  // never written: no records
    EXPECT_EQ(0u, device.num_iter + device.rawdata_size);
    Write(device, 0, {{DD_ROOT, 100}}, {{FW, 30}, {HW, 20}});
    uint64_t claimed = 6;
    memcpy(device.device_memory->va, &claimed, 8);
    device.update_num_iteration();
    EXPECT_EQ(6u, device.num_iter);
    zel_test::LogCapture log;
    zel::debug::DbgPrintManager::GetInstance()->set_mask(0x8);  // the dump is a debug trace
    device.show_dev_output();
    zel::debug::DbgPrintManager::GetInstance()->set_mask(0);
    const std::string beyond = Line("* Device num_iter(6) beyond the buffer. size(104)\n");
    EXPECT_TRUE(log.contains(Line("  [5][0] rawdata(0x0000000000000000)\n")) &&
                !log.contains(Line("  [6][0] rawdata(0x0000000000000000)\n")));
    EXPECT_EQ(Line("  [4][1] rawdata(0x0000000000000000)\n") + beyond,
              log.messages().end()[-2] + log.messages().back());
    log.clear();
    const ZelProfileData* before = device.rawdata;
    EXPECT_EQ(1, device.preprocess_device_data_to_rawdata());
    EXPECT_EQ((std::vector<std::string>{beyond, Line("* Fail to convert_to_rawdata\n")}),
              log.messages());
    EXPECT_EQ(before, device.rawdata);

    // Five iterations lie inside the buffer: converted, however few the limit.
    claimed = 5;
    memcpy(device.device_memory->va, &claimed, 8);
    ASSERT_EQ(0, device.preprocess_device_data_to_rawdata());
    EXPECT_EQ("S1:0 S5:0 S6:0 E6:20 E5:30 E1:100 ", Records(device, 0));
    EXPECT_EQ("S1:0 S5:0 S6:0 E6:0 E5:0 E1:0 ", Records(device, 4));

    // Records written past the raw data, or with none yet, are refused.
    log.clear();
    int index = 30, time = 0;
    EXPECT_EQ(1, device.fill_rawdata_entry(0, index, 0, device.ingredient_root, time));
    ZelDeviceProfiler fresh(9, 2, false);
    fresh.generate_ingredient_tree();
    index = 0;
    EXPECT_EQ(1, fresh.fill_rawdata_entry(0, index, 0, fresh.ingredient_root, time));
    char refused[96];
    snprintf(refused, sizeof(refused),
             "* No raw data slot for record(30). rawdata(%p) size(1200)\n",
             static_cast<void*>(device.rawdata));
    EXPECT_EQ((std::vector<std::string>{
                      Line(refused),
                      Line("* No raw data slot for record(0). rawdata((nil)) size(0)\n")}),
              log.messages());
    // An iteration the buffer does not hold, and an end record past the raw data, are refused.
    auto leaf = device.ingredient_root;
    while (!leaf->children.empty())
        leaf = leaf->children.back();
    index = 0;
    EXPECT_EQ(1, device.fill_rawdata_entry(0, index, 5, device.ingredient_root, time));
    index = 29;
    EXPECT_EQ(1, device.fill_rawdata_entry(0, index, 0, leaf, time));
    // An FW area that starts past the buffer's end holds no iteration.
    device.split_offset_ = device.device_memory->size;
    claimed = 1;
    memcpy(device.device_memory->va, &claimed, 8);
    device.update_num_iteration();
    zel::debug::DbgPrintManager::GetInstance()->set_mask(0x8);
    device.show_dev_output();
    zel::debug::DbgPrintManager::GetInstance()->set_mask(0);
    EXPECT_EQ(log.messages().back(), Line("* Device num_iter(1) beyond the buffer. size(104)\n"));
    EXPECT_EQ(2, device.fill_offset_ingredient_tree() +
                         device.fill_rawdata_entry(0, index, 0, nullptr, time));
}

}  // namespace
