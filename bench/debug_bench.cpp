// Cost of a log call: a filtered message must cost one mask test and build no text.
#include <android/log.h>
#include <benchmark/benchmark.h>

#include <mutex>

#include "debug/zel_debug.h"
#include "support/ratio_reporter.h"

namespace {

using namespace zel::debug;

void DiscardLogger(const struct __android_logger_data*, const char*) {}

// The singleton's lock, which every mask test takes once.
void BM_MutexLockUnlock(benchmark::State& state) {
    std::mutex mutex;
    for (auto _ : state) {
        mutex.lock();
        mutex.unlock();
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_MutexLockUnlock);

// What the calling pattern must pay for a filtered message: one mask test.
void BM_MaskTest(benchmark::State& state) {
    DbgPrintManager::GetInstance()->set_mask(0x3);
    for (auto _ : state)
        benchmark::DoNotOptimize(check_print_mask(ZONE_DBG, PRINT_TRACE));
}
BENCHMARK(BM_MaskTest);

void BM_FilteredPrintf(benchmark::State& state) {
    DbgPrintManager::GetInstance()->set_mask(0x3);
    for (auto _ : state)
        ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  value(%d) name(%s)\n", 42, "abc");
}
BENCHMARK(BM_FilteredPrintf);

void BM_FilteredStream(benchmark::State& state) {
    DbgPrintManager::GetInstance()->set_mask(0x3);
    const std::string text(64, 'x');
    for (auto _ : state)
        ZEL_MSG(ZONE_MEM) << "Buffer Created: " << text << 42 << std::endl;
}
BENCHMARK(BM_FilteredStream);

// Printed lines, handed to a logger that drops them: formatting and liblog's own work.
void BM_PrintedPrintf(benchmark::State& state) {
    DbgPrintManager::GetInstance()->set_mask(0xFF);
    __android_log_set_logger(DiscardLogger);
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    for (auto _ : state)
        ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  value(%d) name(%s)\n", 42, "abc");
    DbgPrintManager::GetInstance()->set_mask(0x3);
}
BENCHMARK(BM_PrintedPrintf);

void BM_PrintedStream(benchmark::State& state) {
    DbgPrintManager::GetInstance()->set_mask(0xFF);
    __android_log_set_logger(DiscardLogger);
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    const std::string text(64, 'x');
    for (auto _ : state)
        ZEL_MSG(ZONE_MEM) << "Buffer Created: " << text << 42 << std::endl;
    DbgPrintManager::GetInstance()->set_mask(0x3);
}
BENCHMARK(BM_PrintedStream);

}  // namespace

int main(int argc, char** argv) {
    return zel_bench::RunWithRatios(
            argc, argv,
            {{"filtered printf-style line / one mask test", "BM_FilteredPrintf", "BM_MaskTest",
              1.2},
             {"filtered stream line / one mask test", "BM_FilteredStream", "BM_MaskTest", 1.2},
             {"filtered printf-style line / one lock+unlock", "BM_FilteredPrintf",
              "BM_MutexLockUnlock", 1.15},
             {"one mask test / one lock+unlock", "BM_MaskTest", "BM_MutexLockUnlock", 0},
             {"printed printf-style line / filtered", "BM_PrintedPrintf", "BM_FilteredPrintf", 0},
             {"printed stream line / filtered", "BM_PrintedStream", "BM_FilteredStream", 0}});
}
