// The memory manager across many cycles, threads and processes: every descriptor and mapping it
// takes comes back, and a device buffer is shared with another process.
#include <android-base/cmsg.h>
#include <android-base/unique_fd.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "src/common/zel_memory/memory_manager.h"
#include "support/child_process.h"
#include "support/proc_stats.h"

namespace {

using namespace zel::memory;
using android::base::unique_fd;

// One create/delete cycle of a memory type; false if any step failed.
using Cycle = std::function<bool(MemoryManager&)>;

bool PooledCycle(MemoryManager& manager, Buffer::sptr buffer) {
    if (!buffer) return false;
    static_cast<char*>(buffer->va)[0] = 1;
    return manager.delete_memory(buffer) == 0;
}

TEST(MemoryProcess, ManyCyclesOfEveryTypeGiveBackDescriptorsAndMappings) {
    MemoryManager manager;
    const int source = memfd_create("import_source", MFD_CLOEXEC);
    ASSERT_EQ(0, ftruncate(source, 8192));
    char local[64];
    const std::vector<std::pair<const char*, Cycle>> cycles = {
            {"heap",
             [](MemoryManager& m) {
                 return PooledCycle(m, m.create_memory(ZEL_MM_HEAP, 4096, 0));
             }},
            {"cached",
             [](MemoryManager& m) {
                 return PooledCycle(m, m.create_memory(ZEL_MM_DEVICE_BUFFER, 4096, 1));
             }},
            {"uncached",
             [](MemoryManager& m) {
                 return PooledCycle(m, m.create_memory(ZEL_MM_DEVICE_BUFFER, 4096, 0));
             }},
            {"import",
             [source](MemoryManager& m) {
                 return PooledCycle(m, m.import_memory(source, 8192, 4096, 0));
             }},
            {"dummy",
             [&local](MemoryManager& m) {
                 return m.dummy_memory(-1, 64, 32, 8, local) != nullptr;
             }},
    };
    for (const auto& [name, cycle] : cycles) {
        // Sanitizer runtimes map their shadow and allocator regions lazily, also for the
        // counters' own buffers: warm both up first.
        for (int i = 0; i < 300; ++i)
            ASSERT_TRUE(cycle(manager)) << name;
        zel_test::CountOpenFds();
        zel_test::CountMappings();
        const int fds = zel_test::CountOpenFds();
        const int mappings = zel_test::CountMappings();
        for (int i = 0; i < 10000; ++i)
            ASSERT_TRUE(cycle(manager)) << name << " cycle " << i;
        EXPECT_EQ(fds, zel_test::CountOpenFds()) << name;
        EXPECT_LE(zel_test::CountMappings(), mappings) << name;
    }
    EXPECT_EQ("", manager.to_string());
    close(source);
}

TEST(MemoryProcess, BuffersReleaseOnOtherThreadsAndManagersServeEightThreads) {
    const int fds = zel_test::CountOpenFds();
    {
        MemoryManager manager;
        Buffer::sptr device = manager.create_memory(ZEL_MM_DEVICE_BUFFER, 4096, 1);
        ASSERT_NE(nullptr, device);
        Buffer::sptr imported = manager.import_memory(device->fd, 4096, 64, 0);
        ASSERT_NE(nullptr, imported);
        EXPECT_EQ(0, manager.delete_memory(device));
        EXPECT_EQ(0, manager.delete_memory(imported));
        // The caller's references are now the last ones: drop them elsewhere.
        std::thread([device = std::move(device), imported = std::move(imported)]() mutable {
            device.reset();
            imported.reset();
        }).join();
        EXPECT_EQ(fds, zel_test::CountOpenFds());

        std::vector<std::thread> threads;
        std::atomic<int> failures{0};
        for (int t = 0; t < 8; ++t) {
            threads.emplace_back([&manager, &failures, t] {
                for (int i = 0; i < 200; ++i) {
                    const bool device_type = (i + t) % 2 == 0;
                    Buffer::sptr buffer = manager.create_memory(
                            device_type ? ZEL_MM_DEVICE_BUFFER : ZEL_MM_HEAP, 512, i % 3);
                    ZelBuffer* record = manager.get_user_raw_buffer(buffer);
                    if (!buffer || !record || manager.get_fd(record) != buffer->fd ||
                        manager.delete_memory(record) != 0) {
                        ++failures;
                    }
                }
            });
        }
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_EQ(0, failures.load());
        EXPECT_EQ("", manager.to_string());
    }
    EXPECT_EQ(fds, zel_test::CountOpenFds());
}

TEST(MemoryProcess, ChildWritesThroughAnImportedDeviceBuffer) {
    MemoryManager manager;
    Buffer::sptr shared = manager.create_memory(ZEL_MM_DEVICE_BUFFER, 8192, 1);
    ASSERT_NE(nullptr, shared);
    memset(shared->va, 0, 8192);
    int sockets[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sockets));
    unique_fd parent_end(sockets[0]), child_end(sockets[1]);
    const uint32_t offset = 5000;
    ASSERT_EQ(1, android::base::SendFileDescriptors(parent_end, "b", 1, shared->fd));

    const std::string pattern = "written by the child";
    const std::string result = zel_test::RunInChild([&]() -> std::string {
        char tag;
        unique_fd received;
        if (android::base::ReceiveFileDescriptors(child_end, &tag, 1, &received) != 1)
            return "receive failed";
        MemoryManager child_manager;
        Buffer::sptr view = child_manager.import_memory(received.get(), 8192, 256, offset);
        memcpy(view->va, pattern.c_str(), pattern.size() + 1);
        return child_manager.delete_memory(child_manager.get_user_raw_buffer(view)) == 0
                       ? "ok"
                       : "delete failed";
    });
    EXPECT_EQ("ok", result);
    EXPECT_EQ(pattern, static_cast<const char*>(shared->va) + offset);
}

}  // namespace
