// Host platform layer: system properties over libbase's store, and the dmabuf heap allocator.
#include <BufferAllocator/BufferAllocator.h>
#include <android-base/cmsg.h>
#include <android-base/properties.h>
#include <android-base/unique_fd.h>
#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "support/child_process.h"
#include "support/proc_stats.h"

namespace {

TEST(PropertiesTest, GetReadsWhatLibbaseSet) {
    char value[PROPERTY_VALUE_MAX];
    EXPECT_EQ(0, property_get("test.zel.unset", value, nullptr));
    EXPECT_STREQ("", value);
    EXPECT_EQ(3, property_get("test.zel.unset", value, "abc"));
    EXPECT_STREQ("abc", value);

    ASSERT_TRUE(android::base::SetProperty("test.zel.text", "ab4420"));
    EXPECT_EQ(6, property_get("test.zel.text", value, "default"));
    EXPECT_STREQ("ab4420", value);

    // An empty value reads as unset.
    ASSERT_EQ(0, property_set("test.zel.text", ""));
    EXPECT_EQ(7, property_get("test.zel.text", value, "default"));
    EXPECT_STREQ("default", value);

    // Values are cut to what a property can hold.
    const std::string long_value(200, 'x');
    ASSERT_EQ(0, property_set("test.zel.long", long_value.c_str()));
    EXPECT_EQ(PROPERTY_VALUE_MAX - 1, property_get("test.zel.long", value, nullptr));
    EXPECT_EQ(std::string(PROPERTY_VALUE_MAX - 1, 'x'), value);

    EXPECT_EQ(-1, property_set(nullptr, "x"));
}

TEST(PropertiesTest, Int64ParsesWholeTextWithInferredBase) {
    struct Case {
        const char* text;
        int64_t expected;
    } cases[] = {
            {"0x100007", 0x100007},  // hexadecimal
            {"255", 255},
            {"010", 8},  // octal, as strtoll base 0
            {"-5", -5},
            {"0", 0},
            {"", -1},                      // empty: default
            {"12abc", -1},                 // partly numeric: default
            {"abc", -1},                   // not numeric
            {"99999999999999999999", -1},  // out of range
            {"0x", -1},
    };
    for (const Case& c : cases) {
        ASSERT_EQ(0, property_set("test.zel.int", c.text));
        EXPECT_EQ(c.expected, property_get_int64("test.zel.int", -1))
                << "value \"" << c.text << '"';
    }
    EXPECT_EQ(42, property_get_int64("test.zel.never.set", 42));
    EXPECT_EQ(42, property_get_int64(nullptr, 42));

    ASSERT_EQ(0, property_set("test.zel.int", "0x100000000"));
    EXPECT_EQ(7, property_get_int32("test.zel.int", 7));  // beyond 32 bits
    ASSERT_EQ(0, property_set("test.zel.bool", "on"));
    EXPECT_EQ(1, property_get_bool("test.zel.bool", 0));
}

TEST(BufferAllocatorTest, AllocatesMappableDescriptorsAndGivesThemBack) {
    const int fds_before = zel_test::CountOpenFds();
    BufferAllocator allocator;
    EXPECT_EQ(0, allocator.MapNameToIonHeap("system", "dmabuf_system_heap", 0, 1, 0));

    EXPECT_EQ(-EINVAL, allocator.Alloc("system", 0, 0, 0));

    for (const char* heap : {"system", "system-uncached"}) {
        const int fd = allocator.Alloc(heap, 5000, 0, 0);
        ASSERT_GE(fd, 0) << heap;
        // The kernel rounds a dmabuf to whole pages; so does the fallback.
        EXPECT_EQ(8192, lseek(fd, 0, SEEK_END)) << heap;
        void* va = mmap(nullptr, 5000, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        ASSERT_NE(MAP_FAILED, va);
        memset(va, 0x5a, 5000);
        EXPECT_EQ(0, allocator.CpuSyncStart(fd));
        EXPECT_EQ(0, allocator.CpuSyncEnd(fd));
        EXPECT_EQ(0, munmap(va, 5000));
        EXPECT_EQ(0, close(fd));
    }
    EXPECT_EQ(fds_before, zel_test::CountOpenFds());
}

// A buffer's descriptor crosses to another process over a Unix socket; both sides see one
// memory.
TEST(BufferAllocatorTest, DescriptorIsSharedWithAnotherProcess) {
    BufferAllocator allocator;
    android::base::unique_fd buffer(allocator.Alloc("system", 4096, 0, 0));
    ASSERT_GE(buffer.get(), 0);
    auto* va = static_cast<char*>(
            mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, buffer.get(), 0));
    ASSERT_NE(MAP_FAILED, va);
    strcpy(va, "from parent");

    int sockets[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sockets));
    android::base::unique_fd parent_end(sockets[0]), child_end(sockets[1]);
    ASSERT_EQ(1, android::base::SendFileDescriptors(parent_end.get(), "b", 1, buffer.get()));

    const std::string child_saw = zel_test::RunInChild([&]() -> std::string {
        // Forget what fork handed down: only the received descriptor leads to the buffer.
        munmap(va, 4096);
        buffer.reset();
        android::base::unique_fd received;
        char tag = 0;
        if (android::base::ReceiveFileDescriptors(child_end.get(), &tag, 1, &received) != 1) {
            return "receive failed";
        }
        auto* mapped = static_cast<char*>(
                mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, received.get(), 0));
        if (mapped == MAP_FAILED) return "mmap failed";
        std::string seen(mapped);
        strcpy(mapped + 100, "from child");
        munmap(mapped, 4096);
        return seen;
    });
    EXPECT_EQ("from parent", child_saw);
    EXPECT_STREQ("from child", va + 100);
    munmap(va, 4096);
}

}  // namespace
