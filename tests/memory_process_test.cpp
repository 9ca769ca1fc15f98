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
#include <string>
#include <thread>
#include <vector>

#include "src/common/zel_memory/memory_manager.h"
#include "support/child_process.h"
#include "support/proc_stats.h"

namespace {

using namespace zel::memory;
using android::base::unique_fd;
using zel_test::CountMappings;
using zel_test::CountOpenFds;

TEST(MemoryProcessTest, ManyCyclesOfEveryTypeGiveBackDescriptorsAndMappings) {
    MemoryManager manager;
    const int source = memfd_create("import_source", MFD_CLOEXEC);
    ASSERT_EQ(0, ftruncate(source, 8192));
    char local[64];
    for (const std::string kind : {"heap", "cached", "uncached", "import", "dummy"}) {
        // One create/delete cycle; false if any step failed.
        auto cycle = [&] {
            if (kind == "dummy") return manager.dummy_memory(-1, 64, 32, 8, local) != nullptr;
            const ZelMmType type = kind == "heap" ? ZEL_MM_HEAP : ZEL_MM_DEVICE_BUFFER;
            Buffer::sptr buffer = kind == "import"
                                          ? manager.import_memory(source, 8192, 4096, 0)
                                          : manager.create_memory(type, 4096, kind == "cached");
            if (!buffer) return false;
            static_cast<char*>(buffer->va)[0] = 1;
            return manager.delete_memory(buffer) == 0;
        };
        // Sanitizer runtimes map their shadow and allocator regions lazily, also for the
        // counters' own buffers: warm both up first.
        for (int i = 0; i < 300; ++i)
            ASSERT_TRUE(cycle() && CountOpenFds() && CountMappings()) << kind;
        const int fds = CountOpenFds();
        const int mappings = CountMappings();
        for (int i = 0; i < 10000; ++i)
            ASSERT_TRUE(cycle()) << kind << " cycle " << i;
        EXPECT_EQ(fds, CountOpenFds()) << kind;
        EXPECT_LE(CountMappings(), mappings) << kind;
    }
    EXPECT_EQ("", manager.to_string());
    close(source);
}

TEST(MemoryProcessTest, BuffersReleaseOnOtherThreadsAndManagersServeEightThreads) {
    const int fds = CountOpenFds();
    {
        MemoryManager manager;
        Buffer::sptr device = manager.create_memory(ZEL_MM_DEVICE_BUFFER, 4096, 1);
        ASSERT_NE(nullptr, device);
        Buffer::sptr imported = manager.import_memory(device->fd, 4096, 64, 0);
        ASSERT_NE(nullptr, imported);
        EXPECT_EQ(0, manager.delete_memory(device));
        EXPECT_EQ(0, manager.delete_memory(imported));
        // The caller's references are now the last ones: drop them elsewhere.
        std::thread([&] { device.reset(), imported.reset(); }).join();
        EXPECT_EQ(fds, CountOpenFds());

        std::vector<std::thread> threads;
        std::atomic<int> failures{0};
        for (int t = 0; t < 8; ++t) {
            threads.emplace_back([&manager, &failures, t] {
                for (int i = 0; i < 200; ++i) {
                    Buffer::sptr buffer = manager.create_memory(
                            (i + t) % 2 ? ZEL_MM_HEAP : ZEL_MM_DEVICE_BUFFER, 512, i % 3);
                    ZelBuffer* record = manager.get_user_raw_buffer(buffer);
                    failures += !buffer || !record || manager.get_fd(record) != buffer->fd ||
                                manager.delete_memory(record) != 0;
                }
            });
        }
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_EQ(0, failures);
        EXPECT_EQ("", manager.to_string());
    }
    EXPECT_EQ(fds, CountOpenFds());
}

TEST(MemoryProcessTest, ChildWritesThroughAnImportedDeviceBuffer) {
    MemoryManager manager;
    Buffer::sptr shared = manager.create_memory(ZEL_MM_DEVICE_BUFFER, 8192, 1);
    ASSERT_NE(nullptr, shared);
    int sockets[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sockets));
    unique_fd parent_end(sockets[0]), child_end(sockets[1]);
    ASSERT_EQ(1, android::base::SendFileDescriptors(parent_end, "b", 1, shared->fd));

    const std::string pattern = "written by the child";
    const std::string result = zel_test::RunInChild([&]() -> std::string {
        char tag;
        unique_fd received;
        if (android::base::ReceiveFileDescriptors(child_end, &tag, 1, &received) != 1)
            return "receive failed";
        MemoryManager child_manager;
        Buffer::sptr view = child_manager.import_memory(received.get(), 8192, 256, 5000);
        memcpy(view->va, pattern.c_str(), pattern.size() + 1);
        return child_manager.delete_memory(child_manager.get_user_raw_buffer(view)) == 0
                       ? "ok"
                       : "delete failed";
    });
    EXPECT_EQ("ok", result);
    EXPECT_EQ(pattern, static_cast<const char*>(shared->va) + 5000);
}

}  // namespace
