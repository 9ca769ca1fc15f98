// Cost of recording through the facade, against recording into the profiler directly: the
// facade adds the mode and mask tests, its traces' mask tests and the registry lookup.
#include <benchmark/benchmark.h>

#include "support/ratio_reporter.h"
#include "util/zel_utils_profiler_wrapper.h"

namespace {

using namespace zel::util;
using W = ZelProfilerWrapper;

// Fixed iteration counts: every recorded pair stays queued (80 bytes) until the profiler goes.
constexpr benchmark::IterationCount kPairs = 200000;
constexpr uint64_t kModel = 1;

void BM_DirectRecordPair(benchmark::State& state) {
    ZelProfiler profiler(kModel, 50000, "service", false);
    uint64_t i = 0;
    for (auto _ : state) {
        profiler.add_record_start(SERVICE, 0, i);
        profiler.add_record_end(SERVICE, 0, i++);
    }
}
BENCHMARK(BM_DirectRecordPair)->Iterations(kPairs);

void BM_WrapperProfilePair(benchmark::State& state) {
    W::create_profiler(kModel);
    uint64_t i = 0;
    for (auto _ : state) {
        W::profile_from(kModel, SERVICE, 0, i);
        W::profile_until(kModel, SERVICE, 0, i++);
    }
    // Dropped without finalizing: only the recording is measured.
    delete W::profilerMap_[kModel];
    W::profilerMap_.erase(kModel);
}
BENCHMARK(BM_WrapperProfilePair)->Iterations(kPairs);

// A label outside the mask is refused before any lookup or record.
void BM_WrapperFilteredPair(benchmark::State& state) {
    W::create_profiler(kModel);
    for (auto _ : state) {
        W::profile_from(kModel, HW, 0, 0);
        W::profile_until(kModel, HW, 0, 0);
    }
    delete W::profilerMap_[kModel];
    W::profilerMap_.erase(kModel);
}
BENCHMARK(BM_WrapperFilteredPair);

}  // namespace

int main(int argc, char** argv) {
    W::initialize(PROFILE_ON, 0);
    return zel_bench::RunWithRatios(
            argc, argv,
            {{"profile_from+until / direct records", "BM_WrapperProfilePair/iterations:200000",
              "BM_DirectRecordPair/iterations:200000", 1.25},
             {"filtered label pair / direct records", "BM_WrapperFilteredPair",
              "BM_DirectRecordPair/iterations:200000", 0.5}});
}
