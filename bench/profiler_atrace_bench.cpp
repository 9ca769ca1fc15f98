// Cost of the system-trace side channel while its category is off: the library's record path
// against the same source built without the category test, loaded beside it. Both are reached the
// same way, through a pointer the dynamic linker resolves, so that only the test differs.
#include <benchmark/benchmark.h>
#include <cutils/trace.h>
#include <dlfcn.h>

#include "support/ratio_reporter.h"
#include "util/zel_utils_profiler.h"

namespace {

using namespace zel::util;

// Queues are emptied every so many records by both, so that memory growth is not measured.
constexpr uint64_t kDrainEvery = 1 << 16;

// add_record_start and add_record_end, called as the functions they compile to.
using RecordFn = void (*)(ZelProfiler*, ProfilerLabelType, ProfilerKeyType, ProfilerKeyType);
constexpr const char* kStartSymbol =
        "_ZN3zel4util11ZelProfiler16add_record_startENS0_12ProfileLabelEmm";
constexpr const char* kEndSymbol =
        "_ZN3zel4util11ZelProfiler14add_record_endENS0_12ProfileLabelEmm";

struct RecordPath {
    RecordFn start = nullptr;
    RecordFn end = nullptr;
};

RecordPath Resolve(void* handle) {
    return {reinterpret_cast<RecordFn>(dlsym(handle, kStartSymbol)),
            reinterpret_cast<RecordFn>(dlsym(handle, kEndSymbol))};
}

void RecordPairs(benchmark::State& state, const RecordPath& path) {
    if (path.start == nullptr || path.end == nullptr) {
        state.SkipWithError(dlerror());
        return;
    }
    if (atrace_is_tag_enabled(ATRACE_TAG_NNAPI)) {
        state.SkipWithError("the NNAPI trace category is on");
        return;
    }
    ZelProfiler p(1, 100, "service", false);
    uint64_t i = 0;
    for (auto _ : state) {
        path.start(&p, NPU_OP, 1, i);
        path.end(&p, NPU_OP, 1, i);
        if (++i % kDrainEvery == 0) p.queue.clear();
    }
    benchmark::DoNotOptimize(p.queue.size());
}

void BM_RecordPairUntraced(benchmark::State& state) {
    // RTLD_LOCAL keeps the copy's symbols out of the process's scope: the library stays the one
    // every other caller binds to.
    static void* const copy = dlopen(ZEL_PROFILER_UNTRACED, RTLD_NOW | RTLD_LOCAL);
    RecordPairs(state, copy != nullptr ? Resolve(copy) : RecordPath{});
}
BENCHMARK(BM_RecordPairUntraced);

void BM_RecordPairTraceOff(benchmark::State& state) {
    RecordPairs(state, Resolve(RTLD_DEFAULT));
}
BENCHMARK(BM_RecordPairTraceOff);

}  // namespace

int main(int argc, char** argv) {
    return zel_bench::RunWithRatios(
            argc, argv,
            {{"start+end, trace category off / built without the trace", "BM_RecordPairTraceOff",
              "BM_RecordPairUntraced", 1.03}},
            {"--benchmark_repetitions=21", "--benchmark_enable_random_interleaving=true"});
}
