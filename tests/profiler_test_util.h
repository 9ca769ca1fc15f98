// Profiler core tests: raw data with known timestamps, and a fixture capturing the log.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "debug/zel_debug.h"
#include "support/log_capture.h"
#include "util/zel_utils_profiler.h"

namespace profiler_test {

using zel::util::ZelProfileData;
using zel::util::ZelProfiler;

inline ZelProfileData Start(int label, uint64_t postfix, uint64_t time, uint64_t i = 0) {
    return {zel::util::START, label, postfix, i, time};
}
inline ZelProfileData End(int label, uint64_t postfix, uint64_t time, uint64_t i = 0) {
    return {zel::util::END, label, postfix, i, time};
}

// A profiler holding a copy of `records`, with the counts given.
inline std::unique_ptr<ZelProfiler> FromRecords(std::vector<ZelProfileData> records,
                                                uint64_t num_iter, uint64_t num_label,
                                                uint64_t key = 0x42) {
    return std::make_unique<ZelProfiler>(key, records.data(), records.size() * 40, 100, num_iter,
                                         num_label);
}

// Print mask 3 (errors and warnings; "* " lines always print) unless a test sets another.
class Fixture : public ::testing::Test {
  protected:
    void SetUp() override { Mask(0x3); }
    static void Mask(uint64_t mask) { zel::debug::DbgPrintManager::GetInstance()->set_mask(mask); }
    zel_test::LogCapture log;
};

}  // namespace profiler_test
