// Cost of the profiler: recording next to an ideal recorder, contended recording, finalize and
// reports per record, and merge next to a plain copy of the same bytes.
#include <android/log.h>
#include <benchmark/benchmark.h>

#include <malloc.h>
#include <sys/resource.h>
#include <time.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

#include "debug/zel_debug.h"
#include "support/ratio_reporter.h"
#include "util/zel_utils_profiler.h"

namespace {

using namespace zel::util;

// The reports' "* " lines always print; dropped here so that stderr does not dominate.
void DiscardLogger(const struct __android_logger_data*, const char*) {}

// Queues are emptied every so many records, by the baseline and the profiler alike, so that a
// long run does not measure memory growth.
constexpr size_t kDrainEvery = 1 << 16;

// The heavy operations are timed by the thread's CPU clock (page faults included): the machine
// is shared, and wall time there measures the other processes as much as this one.
double ThreadCpuSeconds() {
    timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// Pages the thread has touched for the first time so far (minor faults).
double ThreadMinorFaults() {
    rusage usage;
    getrusage(RUSAGE_THREAD, &usage);
    return static_cast<double>(usage.ru_minflt);
}

uint64_t NowUs() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
                   std::chrono::system_clock::now().time_since_epoch())
            .count();
}

// What any recorder must do for a start and an end: two clock readings, two appends.
void BM_RecordPairBaseline(benchmark::State& state) {
    std::deque<ZelProfileData> queue;
    uint64_t i = 0;
    for (auto _ : state) {
        queue.push_back({START, NPU_OP, 1, i, NowUs()});
        queue.push_back({END, NPU_OP, 1, i, NowUs()});
        if (++i % kDrainEvery == 0) queue.clear();
    }
    benchmark::DoNotOptimize(queue.size());
}
BENCHMARK(BM_RecordPairBaseline);

// The locked recorder's steps written inline: the baseline with each append and its clock reading
// under an uncontended mutex. The floor for BM_RecordPairLocked.
void BM_RecordPairInlineLocked(benchmark::State& state) {
    std::deque<ZelProfileData> queue;
    std::mutex mutex;
    uint64_t i = 0;
    for (auto _ : state) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            queue.push_back({START, NPU_OP, 1, i, NowUs()});
        }
        {
            std::lock_guard<std::mutex> lock(mutex);
            queue.push_back({END, NPU_OP, 1, i, NowUs()});
        }
        if (++i % kDrainEvery == 0) queue.clear();
    }
    benchmark::DoNotOptimize(queue.size());
}
BENCHMARK(BM_RecordPairInlineLocked);

void RecordPairs(benchmark::State& state, bool fast_track) {
    ZelProfiler p(1, 100, "service", fast_track);
    uint64_t i = 0;
    for (auto _ : state) {
        p.add_record_start(NPU_OP, 1, i);
        p.add_record_end(NPU_OP, 1, i);
        if (++i % kDrainEvery == 0) p.queue.clear();
    }
    benchmark::DoNotOptimize(p.queue.size());
}
void BM_RecordPairFastTrack(benchmark::State& state) {
    RecordPairs(state, true);
}
void BM_RecordPairLocked(benchmark::State& state) {
    RecordPairs(state, false);
}
BENCHMARK(BM_RecordPairFastTrack);
BENCHMARK(BM_RecordPairLocked);

// Eight threads on one locked profiler; the queue keeps everything, so the run is bounded.
ZelProfiler* g_shared = nullptr;
void BM_RecordPairLocked8Threads(benchmark::State& state) {
    if (state.thread_index() == 0) g_shared = new ZelProfiler(1, 100, "service", false);
    uint64_t i = 0;
    for (auto _ : state) {
        g_shared->add_record_start(NPU_OP, state.thread_index(), i);
        g_shared->add_record_end(NPU_OP, state.thread_index(), i++);
    }
    state.SetItemsProcessed(2 * state.iterations());
    if (state.thread_index() == 0) {
        delete g_shared;
        g_shared = nullptr;
    }
}
BENCHMARK(BM_RecordPairLocked8Threads)->Threads(8)->Iterations(100000)->UseRealTime();

// Raw data of `iterations` x 24 records: TOTAL/7 around eleven consecutive stages.
std::vector<ZelProfileData> RawData(uint64_t iterations) {
    const ProfileLabel stages[] = {CLIENT, SERVICE, ENGINE, DD,     DD_ROOT,   FW,
                                   HW,     NPU_UD,  NPU_OP, CPU_UD, GPU_KERNEL};
    std::vector<ZelProfileData> records;
    records.reserve(iterations * 24);
    for (uint64_t i = 0; i < iterations; ++i) {
        uint64_t t = 1000 * i;
        records.push_back({START, TOTAL, 7, i, t++});
        for (ProfileLabel label : stages) {
            records.push_back({START, label, 0, i, t});
            t += 1 + (i * 7 + label) % 13;
            records.push_back({END, label, 0, i, t++});
        }
        records.push_back({END, TOTAL, 7, i, t});
    }
    return records;
}

// finalize + show_output(true) at the default print mask; the profiler is built outside the
// timing. "faults" counts the pages each finalize touches fresh from the kernel: the node arrays
// come from memory the allocator kept or from new pages, as its trimming decides.
void BM_FinalizeAndReport(benchmark::State& state) {
    const uint64_t iterations = state.range(0);
    std::vector<ZelProfileData> records = RawData(iterations);
    __android_log_set_logger(DiscardLogger);
    double faults = 0;
    for (auto _ : state) {
        auto p = std::make_unique<ZelProfiler>(1, records.data(),
                                               records.size() * sizeof(ZelProfileData), iterations,
                                               iterations, 24);
        const double start = ThreadCpuSeconds();
        const double faults_before = ThreadMinorFaults();
        p->finalize();
        p->show_output(true);
        faults += ThreadMinorFaults() - faults_before;
        state.SetIterationTime(ThreadCpuSeconds() - start);
    }
    state.counters["faults"] = benchmark::Counter(faults, benchmark::Counter::kAvgIterations);
    // Printed in seconds with an SI prefix ("250n" is 250 ns a record).
    state.counters["per_record"] = benchmark::Counter(
            static_cast<double>(records.size()),
            benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_FinalizeAndReport)
        ->Arg(50000)
        ->Arg(100000)
        ->UseManualTime()
        ->MinTime(2.0)
        ->Unit(benchmark::kMillisecond);

// Merge of a 4-record child into a 24-record parent, 50 000 iterations each, next to a copy of
// the same bytes into a fresh block.
void BM_Merge(benchmark::State& state) {
    std::vector<ZelProfileData> parent_records = RawData(50000);
    std::vector<ZelProfileData> child_records;
    for (uint64_t i = 0; i < 50000; ++i) {
        child_records.push_back({START, CPU_UD, 3, i, 5});
        child_records.push_back({START, CPU_KERNEL, 0, i, 6});
        child_records.push_back({END, CPU_KERNEL, 0, i, 20});
        child_records.push_back({END, CPU_UD, 3, i, 25});
    }
    ZelProfiler child(2, child_records.data(), child_records.size() * sizeof(ZelProfileData), 0,
                      50000, 4);
    child.relative_timestamp = true;
    for (auto _ : state) {
        auto parent = std::make_unique<ZelProfiler>(1, parent_records.data(),
                                                    parent_records.size() * sizeof(ZelProfileData),
                                                    0, 50000, 24);
        parent->set_leaf_docking_point({SERVICE, 0});
        const double start = ThreadCpuSeconds();
        benchmark::DoNotOptimize(parent->merge(&child));
        state.SetIterationTime(ThreadCpuSeconds() - start);
    }
}
BENCHMARK(BM_Merge)->UseManualTime()->Unit(benchmark::kMillisecond);

void BM_MergeBaselineMemcpy(benchmark::State& state) {
    const size_t parent_bytes = 50000 * 24 * sizeof(ZelProfileData);
    const size_t child_bytes = 50000 * 4 * sizeof(ZelProfileData);
    std::vector<char> parent(parent_bytes, 1), child(child_bytes, 2);
    for (auto _ : state) {
        const double start = ThreadCpuSeconds();
        char* merged = static_cast<char*>(std::malloc(parent_bytes + child_bytes));
        std::memcpy(merged, parent.data(), parent_bytes);
        std::memcpy(merged + parent_bytes, child.data(), child_bytes);
        benchmark::DoNotOptimize(merged);
        benchmark::ClobberMemory();
        state.SetIterationTime(ThreadCpuSeconds() - start);
        std::free(merged);
    }
}
BENCHMARK(BM_MergeBaselineMemcpy)->UseManualTime()->Unit(benchmark::kMillisecond);

// The same finalize with the process's allocator told to keep what is freed (no trimming, no
// separate mappings for large blocks), so that every run reuses the pages of the one before.
// Registered last: the setting stays for the rest of the process.
void BM_FinalizeAndReportKeptHeap(benchmark::State& state) {
    if (mallopt(M_MMAP_THRESHOLD, 256 << 20) == 0 || mallopt(M_TRIM_THRESHOLD, 1 << 30) == 0) {
        state.SkipWithError("the allocator refused the thresholds");
        return;
    }
    BM_FinalizeAndReport(state);
}
BENCHMARK(BM_FinalizeAndReportKeptHeap)
        ->Arg(50000)
        ->Arg(100000)
        ->UseManualTime()
        ->MinTime(2.0)
        ->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    zel::debug::DbgPrintManager::GetInstance()->set_mask(0x3);
    return zel_bench::RunWithRatios(
            argc, argv,
            {{"fast-track start+end / clock+deque baseline", "BM_RecordPairFastTrack",
              "BM_RecordPairBaseline", 1.5},
             {"locked start+end / clock+deque baseline", "BM_RecordPairLocked",
              "BM_RecordPairBaseline", 1.10},
             {"locked steps inline / clock+deque baseline", "BM_RecordPairInlineLocked",
              "BM_RecordPairBaseline", 0},
             {"locked start+end / its steps inline", "BM_RecordPairLocked",
              "BM_RecordPairInlineLocked", 0},
             {"8 threads locked, per pair / uncontended locked",
              "BM_RecordPairLocked8Threads/iterations:100000/real_time/threads:8",
              "BM_RecordPairLocked", 0},
             {"finalize+report 100000 / 50000 iterations",
              "BM_FinalizeAndReport/100000/min_time:2.000/manual_time",
              "BM_FinalizeAndReport/50000/min_time:2.000/manual_time", 2.1},
             {"the same, allocator keeps freed memory",
              "BM_FinalizeAndReportKeptHeap/100000/min_time:2.000/manual_time",
              "BM_FinalizeAndReportKeptHeap/50000/min_time:2.000/manual_time", 0},
             {"merge 50000 iterations / memcpy of the same bytes", "BM_Merge/manual_time",
              "BM_MergeBaselineMemcpy/manual_time", 1.5}});
}
