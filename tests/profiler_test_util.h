// Profiler core tests: raw data with known timestamps, and a fixture capturing the log.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "debug/zel_debug.h"
#include "support/log_capture.h"
#include "util/zel_utils_profiler.h"

namespace profiler_test {

using zel::util::ProfileLabel;
using zel::util::ProfilerKeyType;
using zel::util::ZelProfileData;
using zel::util::ZelProfiler;

inline ZelProfileData Start(ProfileLabel label, ProfilerKeyType postfix, uint64_t time,
                            uint64_t iter = 0) {
    return {zel::util::START, label, postfix, iter, time};
}
inline ZelProfileData End(ProfileLabel label, ProfilerKeyType postfix, uint64_t time,
                          uint64_t iter = 0) {
    return {zel::util::END, label, postfix, iter, time};
}

// A profiler holding a copy of `records`, with the counts given.
inline std::unique_ptr<ZelProfiler> FromRecords(std::vector<ZelProfileData> records,
                                                uint64_t num_iter, uint64_t num_label,
                                                ProfilerKeyType key = 0x42) {
    return std::make_unique<ZelProfiler>(key, records.data(), records.size() * sizeof(records[0]),
                                         100, num_iter, num_label);
}

inline std::string Ptr(const void* p) {
    char text[32];
    std::snprintf(text, sizeof(text), "%p", p);
    return text;
}

// Print mask 3 (errors and warnings; "* " lines always print) for the test, restored after.
class ProfilerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        auto* manager = zel::debug::DbgPrintManager::GetInstance();
        saved_ = manager->print_mask;
        manager->set_mask(0x3);
    }
    void TearDown() override { zel::debug::DbgPrintManager::GetInstance()->set_mask(saved_); }

    zel_test::LogCapture log;

  private:
    uint64_t saved_ = 0;
};

}  // namespace profiler_test
