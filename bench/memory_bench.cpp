// Cost of a create+delete cycle through the memory manager, next to the bare platform calls that
// do the same work and to the heap cycle's steps written inline, and the cost of its log lines
// when they are filtered out.
#include <BufferAllocator/BufferAllocator.h>
#include <android/log.h>
#include <benchmark/benchmark.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <mutex>

#include "debug/zel_debug.h"
#include "src/common/zel_memory/memory_manager.h"
#include "support/ratio_reporter.h"

namespace {

using namespace zel::memory;
using zel::debug::DbgPrintManager;

constexpr uint32_t kSize = 4096;

void DiscardLogger(const struct __android_logger_data*, const char*) {}

// Every cycle runs under the default mask unless it says otherwise.
void SetMask(uint64_t mask) {
    DbgPrintManager::GetInstance()->set_mask(mask);
}

void ManagerCycle(benchmark::State& state, ZelMmType type, uint32_t flag, uint32_t size = kSize) {
    SetMask(0x3);
    MemoryManager manager;
    for (auto _ : state) {
        Buffer::sptr buffer = manager.create_memory(type, size, flag);
        benchmark::DoNotOptimize(buffer->va);
        manager.delete_memory(buffer);
    }
}

void BM_ManagerHeapCycle(benchmark::State& state) {
    ManagerCycle(state, ZEL_MM_HEAP, 0);
}
BENCHMARK(BM_ManagerHeapCycle);

void BM_ManagerCachedCycle(benchmark::State& state) {
    ManagerCycle(state, ZEL_MM_DEVICE_BUFFER, 1);
}
BENCHMARK(BM_ManagerCachedCycle);

void BM_ManagerUncachedCycle(benchmark::State& state) {
    ManagerCycle(state, ZEL_MM_DEVICE_BUFFER, 0);
}
BENCHMARK(BM_ManagerUncachedCycle);

// A 64 KiB buffer, where the descriptor and mapping work outweighs the bookkeeping less.
void BM_ManagerCached64KCycle(benchmark::State& state) {
    ManagerCycle(state, ZEL_MM_DEVICE_BUFFER, 1, 64 << 10);
}
BENCHMARK(BM_ManagerCached64KCycle);

void BM_ManagerImportCycle(benchmark::State& state) {
    SetMask(0x3);
    MemoryManager manager;
    const int fd = memfd_create("import_source", MFD_CLOEXEC);
    if (ftruncate(fd, kSize) != 0) state.SkipWithError("ftruncate");
    for (auto _ : state) {
        Buffer::sptr buffer = manager.import_memory(fd, kSize, kSize, 0);
        benchmark::DoNotOptimize(buffer->va);
        manager.delete_memory(buffer);
    }
    close(fd);
}
BENCHMARK(BM_ManagerImportCycle);

// The heap cycle with every zone on: each of its log lines is built and handed to liblog.
void BM_ManagerHeapCycleMaskFF(benchmark::State& state) {
    __android_log_set_logger(DiscardLogger);
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    MemoryManager manager;
    SetMask(0xFF);
    for (auto _ : state) {
        Buffer::sptr buffer = manager.create_memory(ZEL_MM_HEAP, kSize, 0);
        benchmark::DoNotOptimize(buffer->va);
        manager.delete_memory(buffer);
    }
    SetMask(0x3);
}
BENCHMARK(BM_ManagerHeapCycleMaskFF);

void BM_BareHeapCycle(benchmark::State& state) {
    for (auto _ : state) {
        void* block = aligned_alloc(4096, kSize);
        benchmark::DoNotOptimize(block);
        free(block);
    }
}
BENCHMARK(BM_BareHeapCycle);

// A filtered line's test; zone 5 is off under mask 3.
void TestMemZone() {
    if (zel::debug::print_mask_allows(zel::debug::ZONE_MEM, zel::debug::PRINT_IF_ON)) abort();
}

void InlineDeleter(Buffer* buffer) {
    TestMemZone();
    free(buffer->base_va);
    delete buffer;
}

// The work a heap cycle must do by its documented steps, written inline with no layering: the
// block, a Buffer in a shared owner with a deleter, a user record, a map entry looked up twice on
// delete, the manager's lock for each call and the three log lines' mask tests. The floor for
// BM_ManagerHeapCycle; its ratio to the bare calls is what the steps cost on this machine.
void BM_InlineHeapCycle(benchmark::State& state) {
    SetMask(0x3);
    std::mutex mutex;
    std::map<Buffer::sptr, std::shared_ptr<ZelBuffer>> pool;
    for (auto _ : state) {
        Buffer::sptr buffer;
        {
            std::lock_guard<std::mutex> lock(mutex);
            void* block = aligned_alloc(4096, kSize);
            buffer = Buffer::sptr(new Buffer(block, kSize, 0, kSize, -1, nullptr), InlineDeleter);
            TestMemZone();
            pool.emplace(buffer, std::make_shared<ZelBuffer>(
                                         ZelBuffer{buffer->va, buffer->size, buffer->offset}));
        }
        benchmark::DoNotOptimize(buffer->va);
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (pool.find(buffer) == pool.end()) abort();
            pool.erase(pool.find(buffer));
            TestMemZone();
        }
    }
}
BENCHMARK(BM_InlineHeapCycle);

void BareDeviceCycle(benchmark::State& state, const char* heap, uint32_t size = kSize) {
    BufferAllocator allocator;
    for (auto _ : state) {
        const int fd = allocator.Alloc(heap, size, 0, 0);
        void* va = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        benchmark::DoNotOptimize(va);
        munmap(va, size);
        close(fd);
    }
}

void BM_BareCachedCycle(benchmark::State& state) {
    BareDeviceCycle(state, "system");
}
BENCHMARK(BM_BareCachedCycle);

void BM_BareUncachedCycle(benchmark::State& state) {
    BareDeviceCycle(state, "system-uncached");
}
BENCHMARK(BM_BareUncachedCycle);

void BM_BareCached64KCycle(benchmark::State& state) {
    BareDeviceCycle(state, "system", 64 << 10);
}
BENCHMARK(BM_BareCached64KCycle);

void BM_BareImportCycle(benchmark::State& state) {
    const int source = memfd_create("import_source", MFD_CLOEXEC);
    if (ftruncate(source, kSize) != 0) state.SkipWithError("ftruncate");
    for (auto _ : state) {
        const int fd = dup(source);
        void* va = mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        benchmark::DoNotOptimize(va);
        munmap(va, kSize);
        close(fd);
    }
    close(source);
}
BENCHMARK(BM_BareImportCycle);

}  // namespace

int main(int argc, char** argv) {
    return zel_bench::RunWithRatios(
            argc, argv,
            {{"heap cycle vs aligned_alloc+free", "BM_ManagerHeapCycle", "BM_BareHeapCycle", 3.0},
             {"heap cycle's steps inline vs aligned_alloc+free", "BM_InlineHeapCycle",
              "BM_BareHeapCycle", 0},
             {"heap cycle vs its steps inline", "BM_ManagerHeapCycle", "BM_InlineHeapCycle", 0},
             {"cached cycle vs Alloc+mmap+munmap+close", "BM_ManagerCachedCycle",
              "BM_BareCachedCycle", 1.3},
             {"64 KiB cached cycle vs Alloc+mmap+munmap+close", "BM_ManagerCached64KCycle",
              "BM_BareCached64KCycle", 1.2},
             {"uncached cycle vs Alloc+mmap+munmap+close", "BM_ManagerUncachedCycle",
              "BM_BareUncachedCycle", 1.3},
             {"import cycle vs dup+mmap+munmap+close", "BM_ManagerImportCycle",
              "BM_BareImportCycle", 1.3},
             // Below 1 only if mask 3 builds none of the texts that mask 0xFF prints.
             {"heap cycle, mask 3 vs mask 0xFF", "BM_ManagerHeapCycle", "BM_ManagerHeapCycleMaskFF",
              0.5}});
}
