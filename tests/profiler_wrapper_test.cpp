// The profiling facade. Its statics are fixed by the first initialize of a process and only
// ever added to, so every case runs in its own child process.
#include <android-base/properties.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <thread>
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
    char text[32];
    snprintf(text, sizeof(text), "0x%llx", static_cast<unsigned long long>(value));
    return text;
}

// Label mask, print flags (client, service, device) and fast track after initialize(mode...).
std::string StateAfter(std::vector<uint64_t> modes) {
    return zel_test::RunInChild([=] {
        for (uint64_t mode : modes)
            W::initialize(mode, 0);
        return Hex(W::labelMask_) + " " + std::to_string(W::printFlagClient_) +
               std::to_string(W::printFlagService_) + std::to_string(W::printFlagDevice_) +
               (W::fastTrack_ ? " fast" : "");
    });
}

TEST(ProfilerWrapperTest, LabelMaskAndPrintFlagsFollowTheMode) {
    // Overview: API, CLIENT and the seven overview service labels; detail: all twelve.
    EXPECT_EQ("0x3d6a000 000", StateAfter({0x1}));
    EXPECT_EQ("0x3fff000 000", StateAfter({0x3}));
    EXPECT_EQ("0xd6a000 000", StateAfter({0x5}));
    EXPECT_EQ("0x0 001", StateAfter({0xd}));
    // Without the service each side prints its own data; the service prints alone only when
    // neither the client nor the driver take part.
    EXPECT_EQ("0x3000000 101", StateAfter({0x9}));
    EXPECT_EQ("0x3000000 100", StateAfter({0x19}));
    EXPECT_EQ("0xd6a000 010", StateAfter({0x15}));
    EXPECT_EQ("0x3d6a000 000", StateAfter({0x11}));
    EXPECT_EQ("0x3d6a000 000 fast", StateAfter({0x41}));
    // Bits mean nothing while PROFILE_ON is clear, but the mask is still computed.
    EXPECT_EQ("0x3d6a000 000", StateAfter({0x20}));
    // A second initialize only adds.
    EXPECT_EQ("0x3fff000 101", StateAfter({0x1, 0x9, 0x3}));
}

// One process walks initialize's sources: absent properties leave the defaults (each absence
// logged once); with PROFILE_ON clear no other bit turns profiling on; properties fill in where
// the arguments are zero, a zero property is ignored silently, and arguments win.
TEST(ProfilerWrapperTest, InitializeSourcesAndProfilingOff) {
    const std::string result = zel_test::RunInChild([] {
        const std::string mode = "vendor.property.for.talorn.nn.profile.mode";
        const std::string max_iter = "vendor.property.for.talorn.nn.profile.max_iter";
        zel::debug::DbgPrintManager::GetInstance()->set_mask(0x7);
        zel_test::LogCapture log;
        W::initialize(0, 0);
        std::string text =
                std::to_string(log.count(Line("* No value for (" + mode + "). Skip.\n"))) +
                std::to_string(log.count(Line("* No value for (" + max_iter + "). Skip.\n"))) +
                " " + Hex(W::mode_) + " " + std::to_string(W::maxIter_) + " ";

        W::initialize(0x1e, 0);
        W::create_profiler(1);
        W::create_profiler_client(2);
        W::profile_from(1, SERVICE, 0, 0);
        DeviceProfileInfo info{};
        W::create_device_profiler(1, 1, info);
        // Both maps empty, info untouched, 0 iterations, no buffer, merge 0, no file.
        text += std::to_string(W::profilerMap_.size()) +
                std::to_string(W::deviceProfilerMap_.size()) + std::to_string(info.enable) +
                std::to_string(W::get_profiler_iteration(1)) +
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
        android::base::SetProperty(max_iter, "7");
        log.clear();
        W::initialize(0, 0);
        text += " " + Hex(W::mode_) + " " + std::to_string(log.messages().size());
        W::initialize(0x1, 30);
        return text + " " + Hex(W::mode_) + " " + std::to_string(W::maxIter_);
    });
    EXPECT_EQ("11 0x0 50000 000010[] 0x13 100 11 0x13 1 0x1 30", result);
}

TEST(ProfilerWrapperTest, RegistryAndRecording) {
    const std::string result = zel_test::RunInChild([] {
        W::initialize(PROFILE_ON, 0);
        std::string text;
        W::create_profiler(3);
        ZelProfiler* first = W::profilerMap_.at(3);
        W::create_profiler(3);
        text += W::profilerMap_.at(3) == first ? "kept " : "replaced ";
        text += first->name + " ";

        // Only labels in the mask are queued: not TOTAL, not a device label.
        zel_test::LogCapture log;
        W::profile_from(3, TOTAL, 0, 0);
        W::profile_until(3, HW, 0, 0);
        text += std::to_string(first->queue.size());
        for (uint64_t i = 0; i < 2; ++i) {
            W::profile_from(3, SERVICE, 0, i);
            W::profile_from(3, ENGINE, 5, i);
            W::profile_until(3, ENGINE, 5, i);
            W::profile_until(3, SERVICE, 0, i);
        }
        text += std::to_string(first->queue.size()) + " ";
        text += std::to_string(W::get_profiler_iteration(3)) +
                std::to_string(W::get_profiler_num_label(3)) + " ";

        // Unknown models: logged, nothing else happens.
        W::set_profiler_show_flag(99, true);
        W::remove_profiler(99);
        W::profile_from(99, SERVICE, 0, 0);
        // Sequenced on purpose: the call logs too, and operands of + have no fixed order.
        const uint64_t unknown_iterations = W::get_profiler_iteration(99);
        text += std::to_string(unknown_iterations) +
                std::to_string(log.contains(Line("  No profiler to set show flag."))) +
                std::to_string(log.contains(Line("  No profiler to remove."))) +
                std::to_string(log.count(Line("* No profiler registered for modelId(0x63)\n"))) +
                " ";

        // The service's profile is no client profile: nothing to pack.
        W::create_profiler_client(4);
        text += std::to_string(dynamic_cast<ZelClientProfiler*>(W::profilerMap_.at(4)) != nullptr) +
                std::to_string(W::get_client_profiler_mem(3) == nullptr) + " ";

        // Removal finalizes and prints only with the show flag set.
        log.clear();
        W::remove_profiler(3);
        text += std::to_string(log.contains(Line("* Output show flag OFF. Skip print profile\n")));
        W::set_profiler_show_flag(4, true);
        W::profile_from(4, API, 0, 0);
        W::profile_until(4, API, 0, 0);
        log.clear();
        W::remove_profiler(4);
        text += std::to_string(log.count(Line("* print result of iter(0~0)\n"))) + " " +
                std::to_string(W::profilerMap_.size());
        return text;
    });
    EXPECT_EQ("kept service 08 24 0112 11 11 0", result);
}

// Recording reads the registry only and each profiler locks its own queue, so threads may record
// into registered profilers at once (outside fast track).
TEST(ProfilerWrapperTest, SeveralThreadsRecordAtOnce) {
    const std::string result = zel_test::RunInChild([] {
        W::initialize(PROFILE_ON, 0);
        W::create_profiler(1);
        W::create_profiler(2);
        std::vector<std::thread> threads;
        for (uint64_t t = 0; t < 4; ++t) {
            threads.emplace_back([t] {
                for (uint64_t i = 0; i < 500; ++i) {
                    W::profile_from(1 + t % 2, SERVICE, t, i);
                    W::profile_until(1 + t % 2, SERVICE, t, i);
                }
            });
        }
        for (std::thread& thread : threads)
            thread.join();
        // Interleaved records form no profile: left unfinalized.
        return std::to_string(W::profilerMap_.at(1)->queue.size()) + " " +
               std::to_string(W::profilerMap_.at(2)->queue.size());
    });
    EXPECT_EQ("2000 2000", result);
}

TEST(ProfilerWrapperTest, HandOverRespectsTheSkipBitsAndExportsRawData) {
    // With the service skipped nobody would take the client's data.
    EXPECT_EQ("1", zel_test::RunInChild([] {
                  W::initialize(PROFILE_ON | PROFILE_SKIP_SERVICE, 0);
                  W::create_profiler_client(1);
                  W::profile_from(1, API, 0, 0);
                  W::profile_until(1, API, 0, 0);
                  return std::to_string(W::get_client_profiler_mem(1) == nullptr);
              }));

    // Export writes the finalized raw data where a device keeps it.
    const std::string exported = zel_test::RunInChild([] {
        for (const char* dir : {"/data", "/data/vendor", "/data/vendor/zel"})
            mkdir(dir, 0755);
        if (access("/data/vendor/zel/", W_OK) != 0) return std::string("skip");
        W::initialize(PROFILE_ON, 0);
        W::create_profiler_client(12);
        W::profile_from(12, API, 0, 0);
        W::profile_until(12, API, 0, 0);
        const std::string path = W::export_rawdata_to_file(12);
        struct stat st;
        const bool written = stat(path.c_str(), &st) == 0 && st.st_size == 80;
        unlink(path.c_str());
        return path + (written ? " 80" : " missing");
    });
    if (exported == "skip") GTEST_SKIP() << "/data/vendor/zel/ is not writable here";
    EXPECT_EQ("/data/vendor/zel/profile_rawdata_12.bin 80", exported);
}

}  // namespace
