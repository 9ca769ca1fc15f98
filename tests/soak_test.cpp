// Soak: eight threads record into their registered profilers while another logs at every zone and
// a third creates, imports and deletes buffers, bounded by counts, not time. Every record, log line
// and buffer must be accounted for afterwards and every descriptor given back. CI runs it under
// ThreadSanitizer and LeakSanitizer.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

#include "src/common/zel_memory/memory_manager.h"
#include "support/log_capture.h"
#include "support/proc_stats.h"
#include "util/zel_utils_profiler_wrapper.h"

namespace {

using namespace zel::util;
using namespace zel::memory;
using W = ZelProfilerWrapper;

// Each round makes a heap, a device, an imported and a dummy buffer, writes at the ends of the
// shared ones and deletes one by a copy of the user's record, the others by their shared pointers.
void Buffers(MemoryManager& manager, int source) {
    char own[256];
    for (int round = 0; round < 300; ++round) {
        Buffer::sptr heap = manager.create_memory(ZEL_MM_HEAP, 4096 + round, 0);
        Buffer::sptr device = manager.create_memory(ZEL_MM_DEVICE_BUFFER, 8192, round & 1);
        Buffer::sptr imported = manager.import_memory(source, 16384, 4096, 4096);
        ASSERT_TRUE(heap && device && imported && manager.dummy_memory(-1, 256, 64, 32, own));
        static_cast<char*>(device->va)[8191] = 1;
        static_cast<char*>(imported->va)[4095] = 2;
        ZelBuffer copy = *manager.get_user_raw_buffer(heap);
        EXPECT_EQ(0, manager.delete_memory(&copy) + manager.delete_memory(device) +
                             manager.delete_memory(imported));
        EXPECT_EQ(5, manager.delete_memory(&copy));  // already gone
    }
}

TEST(SoakTest, RecordingLoggingAndBuffersTogether) {
    const int fds = zel_test::CountOpenFds();
    zel_test::LogCapture log;
    zel::debug::DbgPrintManager::GetInstance()->set_mask(0xFF);
    W::initialize(PROFILE_ON, 0);
    for (ProfilerKeyType model = 1; model <= 8; ++model)
        W::create_profiler(model);  // all before any thread: the registry takes no lock
    MemoryManager manager;
    const int source = memfd_create("zel_soak_source", MFD_CLOEXEC);
    ASSERT_EQ(0, ftruncate(source, 16384));
    std::vector<std::thread> threads;
    for (ProfilerKeyType model = 1; model <= 8; ++model) {
        threads.emplace_back([model] {
            for (ProfilerKeyType i = 0; i < 400; ++i) {
                for (ProfileLabel label : {SERVICE, ENGINE, NPU_UD})
                    W::profile_from(model, label, model, i);
                for (ProfileLabel label : {NPU_UD, ENGINE, SERVICE})
                    W::profile_until(model, label, model, i);
            }
        });
    }
    threads.emplace_back([] {
        for (int round = 0; round < 2000; ++round) {
            for (uint64_t zone = 0; zone < 8; ++zone) {  // every zone with a table entry
                ZEL_LOG(zone, zel::debug::PRINT_TRACE, "  soak line %d\n", round);
                ZEL_MSG(zone) << "soak line " << round << std::endl;
            }
        }
    });
    threads.emplace_back(Buffers, std::ref(manager), source);
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ("", manager.to_string());
    close(source);
    const std::vector<std::string> lines = log.messages();
    EXPECT_EQ(2000 * 8 * 2, std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
                  return line.find("soak line") != std::string::npos;
              }));
    for (ProfilerKeyType model = 1; model <= 8; ++model) {
        EXPECT_EQ(400u, W::get_profiler_iteration(model));
        EXPECT_EQ(6u, W::get_profiler_num_label(model));
        W::remove_profiler(model);
    }
    EXPECT_TRUE(W::profilerMap_.empty());
    EXPECT_EQ(fds, zel_test::CountOpenFds());
}

}  // namespace
