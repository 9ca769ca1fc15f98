// The memory manager across threads: every descriptor and memfd mapping it takes comes back.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

#include "src/common/zel_memory/memory_manager.h"
#include "support/proc_stats.h"

namespace {

using namespace zel::memory;
using namespace zel_test;

TEST(MemoryProcessTest, EightThreadsCycleEveryKindAndGiveEverythingBack) {
    const int fds = CountOpenFds(), maps = CountMemfdMappings();
    auto manager = std::make_unique<MemoryManager>();
    const int source = memfd_create("import_source", MFD_CLOEXEC);
    ASSERT_EQ(0, ftruncate(source, 8192));
    char local[64];
    // Kind 0 heap, 1 cached, 2 uncached, 3 import, 4 dummy; false if any step failed.
    auto cycle = [&](int kind, bool by_record) {
        if (kind == 4) return manager->dummy_memory(-1, 64, 32, 8, local) != nullptr;
        Buffer::sptr buffer =
                kind == 3 ? manager->import_memory(source, 8192, 4096, 0)
                          : manager->create_memory(kind ? ZEL_MM_DEVICE_BUFFER : ZEL_MM_HEAP, 4096,
                                                   kind == 1);
        ZelBuffer* record = manager->get_user_raw_buffer(buffer);
        if (!buffer || !record || manager->get_fd(record) != buffer->fd) return false;
        static_cast<char*>(buffer->va)[4095] = 1;
        return (by_record ? manager->delete_memory(record) : manager->delete_memory(buffer)) == 0;
    };
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 1000; ++i)
                failures += !cycle((i + t) % 5, i % 2);
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(0, failures);
    EXPECT_EQ("", manager->to_string());
    close(source);
    manager.reset();
    EXPECT_EQ(fds, CountOpenFds());
    EXPECT_EQ(maps, CountMemfdMappings());
}

}  // namespace
