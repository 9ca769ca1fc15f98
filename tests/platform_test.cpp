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

#include <cstring>
#include <string>

#include "support/child_process.h"
#include "support/proc_stats.h"

namespace {

using android::base::unique_fd;

TEST(PropertiesTest, ReadsWhatLibbaseSetAndParsesWholeIntegers) {
    char value[PROPERTY_VALUE_MAX];
    EXPECT_EQ(0, property_get("test.zel.unset", value, nullptr));
    EXPECT_STREQ("", value);
    ASSERT_TRUE(android::base::SetProperty("test.zel.text", "ab4420"));
    EXPECT_EQ(6, property_get("test.zel.text", value, "default"));
    EXPECT_STREQ("ab4420", value);
    // An empty value reads as unset.
    ASSERT_EQ(0, property_set("test.zel.text", ""));
    EXPECT_EQ(7, property_get("test.zel.text", value, "default"));
    EXPECT_STREQ("default", value);
    // Values are cut to what a property can hold.
    ASSERT_EQ(0, property_set("test.zel.long", std::string(200, 'x').c_str()));
    EXPECT_EQ(PROPERTY_VALUE_MAX - 1, property_get("test.zel.long", value, nullptr));
    EXPECT_EQ(std::string(PROPERTY_VALUE_MAX - 1, 'x'), value);
    EXPECT_EQ(-1, property_set(nullptr, "x"));

    // Integers are read as strtoll with base 0 reads them, the whole text or the default.
    const std::pair<const char*, int64_t> cases[] = {
            {"0x100007", 0x100007},
            {"255", 255},
            {"010", 8},
            {"-5", -5},
            {"", -1},
            {"12abc", -1},
            {"99999999999999999999", -1},
    };
    for (const auto& [text, expected] : cases) {
        ASSERT_EQ(0, property_set("test.zel.int", text));
        EXPECT_EQ(expected, property_get_int64("test.zel.int", -1)) << "value \"" << text << '"';
    }
    EXPECT_EQ(42, property_get_int64("test.zel.never.set", 42));
    EXPECT_EQ(42, property_get_int64(nullptr, 42));
}

// A buffer's descriptor crosses to another process over a Unix socket; both sides see one memory,
// and every descriptor comes back.
TEST(BufferAllocatorTest, DescriptorIsMappedInAChildAndGivenBack) {
    const int fds_before = zel_test::CountOpenFds();
    {
        BufferAllocator allocator;
        unique_fd buffer(allocator.Alloc("system", 5000, 0, 0));
        ASSERT_GE(buffer.get(), 0);
        // The kernel rounds a dmabuf to whole pages; so does the fallback.
        EXPECT_EQ(8192, lseek(buffer.get(), 0, SEEK_END));
        auto* va = static_cast<char*>(
                mmap(nullptr, 8192, PROT_READ | PROT_WRITE, MAP_SHARED, buffer.get(), 0));
        ASSERT_NE(MAP_FAILED, va);
        strcpy(va, "from parent");
        int sockets[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sockets));
        unique_fd parent_end(sockets[0]), child_end(sockets[1]);
        ASSERT_EQ(1, android::base::SendFileDescriptors(parent_end.get(), "b", 1, buffer.get()));
        const std::string child_saw = zel_test::RunInChild([&]() -> std::string {
            // Forget what fork handed down: only the received descriptor leads to the buffer.
            munmap(va, 8192);
            buffer.reset();
            unique_fd received;
            char tag = 0;
            if (android::base::ReceiveFileDescriptors(child_end.get(), &tag, 1, &received) != 1)
                return "receive failed";
            auto* mapped = static_cast<char*>(
                    mmap(nullptr, 8192, PROT_READ | PROT_WRITE, MAP_SHARED, received.get(), 0));
            if (mapped == MAP_FAILED) return "mmap failed";
            strcpy(mapped + 5000, "from child");
            return mapped;
        });
        EXPECT_EQ("from parent", child_saw);
        EXPECT_STREQ("from child", va + 5000);
        EXPECT_EQ(0, munmap(va, 8192));
    }
    EXPECT_EQ(fds_before, zel_test::CountOpenFds());
}

}  // namespace
