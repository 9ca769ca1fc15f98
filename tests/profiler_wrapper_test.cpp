// The profiling facade. Its statics are only ever added to, so every case runs in a child process.
#include <android-base/properties.h>
#include <gtest/gtest.h>

#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "debug/zel_debug.h"
#include "support/child_process.h"
#include "support/log_capture.h"
#include "util/zel_utils_profiler_wrapper.h"

namespace {

using namespace zel::util;
using W = ZelProfilerWrapper;
using zel_test::Line;

std::string Hex(uint64_t value) {
    std::ostringstream text;
    text << "0x" << std::hex << value;
    return text.str();
}

// Modes given to initialize, then: the mode tests, device profilers made, label mask, print flags
// of client, service and device. A second initialize adds.
TEST(ProfilerWrapperTest, LabelMaskAndPrintFlagsFollowTheMode) {
    const char* const cases[] = {"1",     "100000 1 0x3d6a000 000",
                                 "3",     "110000 1 0x3fff000 000",
                                 "d",     "101100 1 0x0 001",
                                 "9",     "100100 1 0x3000000 101",
                                 "19",    "100110 0 0x3000000 100",
                                 "15",    "101010 0 0xd6a000 010",
                                 "41",    "100001 1 0x3d6a000 000 fast",
                                 "20",    "000000 0 0x3d6a000 000",
                                 "1 9 3", "110000 1 0x3fff000 101"};
    for (size_t c = 0; c < std::size(cases); c += 2) {
        EXPECT_EQ(cases[c + 1], zel_test::RunInChild([&] {
                      std::istringstream modes(cases[c]);
                      for (uint64_t mode; modes >> std::hex >> mode;)
                          W::initialize(mode, 0);
                      DeviceProfileInfo info{};
                      W::create_device_profiler(1, 1, info);
                      std::string bits;
                      for (bool on : {W::get_profiler_flag(), W::get_profiler_detail_flag(),
                                      W::is_mode_skip_client(), W::is_mode_skip_service(),
                                      W::is_mode_skip_dd(), W::is_mode_fasttrack()})
                          bits += on ? "1" : "0";
                      return bits + " " + std::to_string(W::deviceProfilerMap_.size()) + " " +
                             Hex(W::labelMask_) + " " + std::to_string(W::printFlagClient_) +
                             std::to_string(W::printFlagService_) +
                             std::to_string(W::printFlagDevice_) + (W::fastTrack_ ? " fast" : "");
                  }))
                << cases[c];
    }
}

// Absent properties leave the defaults (logged once each); with PROFILE_ON clear every operation
// returns at once; properties fill in for zero arguments, a zero property is ignored silently.
TEST(ProfilerWrapperTest, InitializeSourcesAndProfilingOff) {
    const std::string result = zel_test::RunInChild([] {
        const std::string mode = "vendor.property.for.talorn.nn.profile.mode";
        const std::string max_iter = "vendor.property.for.talorn.nn.profile.max_iter";
        zel::debug::DbgPrintManager::GetInstance()->set_mask(0x7);
        zel_test::LogCapture log;
        W::initialize(0, 0);
        W::merge_device_profiler_to_main_profiler(1, 1);  // profiling is off: no lookup
        std::string text =
                std::to_string(log.messages().size()) +
                std::to_string(log.count(Line("* No value for (" + mode + "). Skip.\n"))) +
                std::to_string(log.count(Line("* No value for (" + max_iter + "). Skip.\n"))) +
                " " + Hex(W::mode_) + " " + std::to_string(W::maxIter_) + " ";
        W::initialize(0x1e, 0);
        W::create_profiler(1);
        W::create_profiler_client(2);
        text += std::to_string(W::profilerMap_.size() + W::get_profiler_iteration(1) +
                               W::get_profiler_num_label(1)) +
                std::to_string(W::get_client_profiler_mem(2) == nullptr) +
                std::to_string(W::merge_rawdata_mem_to_profiler(1, nullptr, 0, 0, 0)) + "[" +
                W::export_rawdata_to_file(1) + "] ";
        android::base::SetProperty(mode, "0x13");
        android::base::SetProperty(max_iter, "100");
        log.clear();
        W::initialize(0, 0);
        text += Hex(W::mode_) + " " + std::to_string(W::maxIter_) + " " +
                std::to_string(log.contains(Line("* Profiler mode value updated. (0x13)\n"))) +
                std::to_string(log.contains(Line("* Profiler max_iter value updated. (100)\n")));
        android::base::SetProperty(mode, "0");
        log.clear();
        W::initialize(0, 30);
        return text + " " + Hex(W::mode_) + " " + std::to_string(W::maxIter_) + " " +
               std::to_string(log.messages().size());
    });
    EXPECT_EQ("211 0x0 50000 010[] 0x13 100 11 0x13 30 1", result);
}

// A second create keeps the first profiler; only labels in the mask are queued; unknown models
// are logged and, like a profiler that cannot finalize, count nothing; a client's profile goes
// nowhere without a service; removal prints only when shown.
// (Export through the registry: ZelProfTest's demo.)
TEST(ProfilerWrapperTest, RegistryRecordingAndRemoval) {
    const std::string result = zel_test::RunInChild([] {
        W::initialize(PROFILE_ON, 0);
        W::create_profiler(3);
        ZelProfiler* first = W::profilerMap_.at(3);
        W::create_profiler(3);
        std::string text = (W::profilerMap_.at(3) == first ? "kept " : "replaced ") + first->name;
        zel_test::LogCapture log;
        W::profile_from(3, TOTAL, 0, 0);
        W::profile_until(3, HW, 0, 0);
        W::profile_from(3, static_cast<ProfileLabel>(70), 0, 0);  // beyond the mask's bits
        for (uint64_t i = 0; i < 2; ++i) {
            W::profile_from(3, SERVICE, 0, i);
            W::profile_from(3, ENGINE, 5, i);
            W::profile_until(3, ENGINE, 5, i);
            W::profile_until(3, SERVICE, 0, i);
        }
        text += " " + std::to_string(first->queue.size()) + " ";
        text += std::to_string(W::get_profiler_iteration(3)) +
                std::to_string(W::get_profiler_num_label(3));
        W::set_profiler_show_flag(99, true);
        W::remove_profiler(99);
        W::profile_from(99, SERVICE, 0, 0);
        ZelProfileData lone = {START, API, 0, 0, 1};  // raw data, then a record queued
        (W::profilerMap_[5] = new ZelProfiler(5, &lone, 40, 10, 1, 1))->add_record_start(API, 0, 0);
        const uint64_t unknown = W::get_profiler_iteration(99) + W::get_profiler_num_label(99) +
                                 W::get_profiler_iteration(5) + W::get_profiler_num_label(5);
        delete W::profilerMap_[5];
        W::profilerMap_.erase(5);
        text += " " + std::to_string(unknown) +
                std::to_string(log.contains(Line("  No profiler to set show flag."))) +
                std::to_string(log.contains(Line("  No profiler to remove."))) +
                std::to_string(log.count(Line("* No profiler registered for modelId(0x63)\n")));
        W::create_profiler_client(4);
        W::profile_from(4, API, 0, 0);
        W::profile_until(4, API, 0, 0);
        text += " " + std::to_string(W::get_client_profiler_mem(3) == nullptr);
        W::mode_ |= PROFILE_SKIP_SERVICE;
        text += std::to_string(W::get_client_profiler_mem(4) == nullptr);
        log.clear();
        W::remove_profiler(3);
        text += std::to_string(log.contains(Line("* Output show flag OFF. Skip print profile\n")));
        W::set_profiler_show_flag(4, true);
        log.clear();
        W::remove_profiler(4);
        return text + std::to_string(log.count(Line("* print result of iter(0~0)\n"))) +
               std::to_string(W::profilerMap_.size());
    });
    EXPECT_EQ("kept service 8 24 0113 11110", result);
}

}  // namespace
