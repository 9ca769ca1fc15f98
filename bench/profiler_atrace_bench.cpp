// Cost of the system-trace side channel while its category is off: the profiler's record path
// against a copy of that path without it, both called out of line.
#include <benchmark/benchmark.h>
#include <cutils/trace.h>

#include <chrono>
#include <mutex>

#include "support/ratio_reporter.h"
#include "util/zel_utils_profiler.h"

namespace {

using namespace zel::util;

// Queues are emptied every so many records by both, so that memory growth is not measured.
constexpr uint64_t kDrainEvery = 1 << 16;

// The record path as it was before the trace sections: refusal test, lock, clock, append.
__attribute__((noinline)) void UntracedRecord(ZelProfiler& p, ProfileRecordType type,
                                              ProfilerLabelType label, ProfilerKeyType postfix,
                                              ProfilerKeyType iter) {
    if (p.finalized) return;
    std::lock_guard<std::mutex> lock(p.queue_mutex);
    const auto now = std::chrono::duration_cast<std::chrono::microseconds>(
                             std::chrono::system_clock::now().time_since_epoch())
                             .count();
    p.queue.push_back({type, label, postfix, iter, static_cast<uint64_t>(now)});
}

void BM_RecordPairUntraced(benchmark::State& state) {
    ZelProfiler p(1, 100, "service", false);
    uint64_t i = 0;
    for (auto _ : state) {
        UntracedRecord(p, START, NPU_OP, 1, i);
        UntracedRecord(p, END, NPU_OP, 1, i);
        if (++i % kDrainEvery == 0) p.queue.clear();
    }
    benchmark::DoNotOptimize(p.queue.size());
}
BENCHMARK(BM_RecordPairUntraced);

void BM_RecordPairTraceOff(benchmark::State& state) {
    if (atrace_is_tag_enabled(ATRACE_TAG_NNAPI)) {
        state.SkipWithError("the NNAPI trace category is on");
        return;
    }
    ZelProfiler p(1, 100, "service", false);
    uint64_t i = 0;
    for (auto _ : state) {
        p.add_record_start(NPU_OP, 1, i);
        p.add_record_end(NPU_OP, 1, i);
        if (++i % kDrainEvery == 0) p.queue.clear();
    }
    benchmark::DoNotOptimize(p.queue.size());
}
BENCHMARK(BM_RecordPairTraceOff);

}  // namespace

int main(int argc, char** argv) {
    return zel_bench::RunWithRatios(argc, argv,
                                    {{"start+end, trace category off / untraced copy",
                                      "BM_RecordPairTraceOff", "BM_RecordPairUntraced", 1.03}},
                                    {"--benchmark_repetitions=9"});
}
