// Soak: eight threads record into their registered profilers while another logs at every zone
// and a third creates, imports and deletes buffers. Bounded by counts, not time. Every record,
// log line and buffer must be accounted for afterwards, and every descriptor given back. Run
// under ThreadSanitizer and LeakSanitizer by CI.
#include <android/log.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "src/common/zel_memory/memory_manager.h"
#include "support/proc_stats.h"
#include "util/zel_utils_profiler_wrapper.h"

namespace {

using namespace zel::util;
using namespace zel::memory;

constexpr int kRecorders = 8;
constexpr int kIterations = 400;
constexpr int kLogRounds = 2000;
constexpr int kBufferRounds = 300;
constexpr int kZones = 8;  // zones 0..7 have zone-table entries

// Counts the soak thread's own lines; every other line is dropped.
std::atomic<int> g_soak_lines{0};

#if defined(__ANDROID__)
void CountingLogger(const struct __android_log_message* message) {
    if (std::strstr(message->message, "soak line") != nullptr) ++g_soak_lines;
}
#else
void CountingLogger(const struct __android_logger_data*, const char* message) {
    if (std::strstr(message, "soak line") != nullptr) ++g_soak_lines;
}
#endif

void Record(ProfilerKeyType model) {
    for (int i = 0; i < kIterations; ++i) {
        const ProfilerKeyType iter = static_cast<ProfilerKeyType>(i);
        ZelProfilerWrapper::profile_from(model, SERVICE, 0, iter);
        ZelProfilerWrapper::profile_from(model, ENGINE, 0, iter);
        ZelProfilerWrapper::profile_from(model, NPU_UD, model, iter);
        ZelProfilerWrapper::profile_until(model, NPU_UD, model, iter);
        ZelProfilerWrapper::profile_until(model, ENGINE, 0, iter);
        ZelProfilerWrapper::profile_from(model, DD, 1, iter);
        ZelProfilerWrapper::profile_until(model, DD, 1, iter);
        ZelProfilerWrapper::profile_until(model, SERVICE, 0, iter);
    }
}

void Log() {
    for (int round = 0; round < kLogRounds; ++round) {
        for (int zone = 0; zone < kZones; ++zone) {
            ZEL_LOG(zone, zel::debug::PRINT_TRACE, "  soak line %d\n", round);
            ZEL_MSG(zone) << "soak line " << round << std::endl;
        }
    }
}

// Each round makes a heap, a device, an imported and a dummy buffer, writes at the ends of the
// shared ones and deletes one by a copy of the user's record, the others by their shared pointers.
void Buffers(MemoryManager& manager, int source) {
    char own[256];
    for (int round = 0; round < kBufferRounds; ++round) {
        Buffer::sptr heap = manager.create_memory(ZEL_MM_HEAP, 4096 + round, 0);
        Buffer::sptr device = manager.create_memory(ZEL_MM_DEVICE_BUFFER, 8192, round & 1);
        Buffer::sptr imported = manager.import_memory(source, 16384, 4096, 4096);
        Buffer::sptr dummy = manager.dummy_memory(-1, sizeof(own), 64, 32, own);
        ASSERT_TRUE(heap && device && imported && dummy) << round;
        static_cast<char*>(device->va)[8191] = 1;
        static_cast<char*>(imported->va)[4095] = 2;
        ZelBuffer copy = *manager.get_user_raw_buffer(heap);
        EXPECT_EQ(0, manager.delete_memory(&copy)) << round;
        EXPECT_EQ(0, manager.delete_memory(device)) << round;
        EXPECT_EQ(0, manager.delete_memory(imported)) << round;
        EXPECT_EQ(5, manager.delete_memory(&copy)) << round;  // already gone
    }
}

TEST(Soak, RecordingLoggingAndBuffersTogether) {
    const int fds = zel_test::CountOpenFds();
    __android_log_set_logger(CountingLogger);
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    zel::debug::DbgPrintManager::GetInstance()->set_mask(0xFF);

    ZelProfilerWrapper::initialize(PROFILE_ON, 0);
    for (int t = 1; t <= kRecorders; ++t)
        ZelProfilerWrapper::create_profiler(static_cast<ProfilerKeyType>(t));
    {
        MemoryManager manager;
        const int source = memfd_create("zel_soak_source", MFD_CLOEXEC);
        ASSERT_EQ(0, ftruncate(source, 16384));
        std::vector<std::thread> threads;
        for (int t = 1; t <= kRecorders; ++t)
            threads.emplace_back(Record, static_cast<ProfilerKeyType>(t));
        threads.emplace_back(Log);
        threads.emplace_back(Buffers, std::ref(manager), source);
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_EQ("", manager.to_string());
        close(source);
    }

    EXPECT_EQ(kLogRounds * kZones * 2, g_soak_lines.load());
    for (int t = 1; t <= kRecorders; ++t) {
        const auto model = static_cast<ProfilerKeyType>(t);
        EXPECT_EQ(static_cast<uint64_t>(kIterations),
                  ZelProfilerWrapper::get_profiler_iteration(model));
        EXPECT_EQ(8u, ZelProfilerWrapper::get_profiler_num_label(model));
        ZelProfilerWrapper::remove_profiler(model);
    }
    EXPECT_TRUE(ZelProfilerWrapper::profilerMap_.empty());
    __android_log_set_logger(__android_log_stderr_logger);
    EXPECT_EQ(fds, zel_test::CountOpenFds());
}

}  // namespace
