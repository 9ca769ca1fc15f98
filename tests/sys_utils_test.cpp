// Thread affinity and priority, and the probes of shared-buffer descriptors (memfd and dmabuf).
#include "util/zel_utils.h"

#include <BufferAllocator/BufferAllocator.h>
#include <android-base/unique_fd.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <fstream>
#include <thread>

#include "support/child_process.h"
#include "support/log_capture.h"

namespace {

using namespace zel::util;
using android::base::unique_fd;
using zel_test::Line;
using zel_test::LogCapture;
using Lines = std::vector<std::string>;

std::string Hex(const void* pointer) {
    char text[32];
    snprintf(text, sizeof(text), "%p", pointer);
    return text;
}

// Mappings of this test's memfds still in place.
int MemFdMappings() {
    std::ifstream maps("/proc/self/maps");
    int count = 0;
    for (std::string line; std::getline(maps, line);)
        count += line.find("memfd:zel_sys_utils") != std::string::npos;
    return count;
}

TEST(SysUtils, AffinityOfTheCallingThread) {
    if (std::thread::hardware_concurrency() < 2) GTEST_SKIP() << "needs two CPUs";
    EXPECT_EQ("00 1 00 3 1", zel_test::RunInChild([] {
                  zel::debug::DbgPrintManager::GetInstance()->set_mask(0x7);
                  LogCapture log;
                  std::string out;
                  for (unsigned long wanted : {0x1ul, 0x3ul}) {
                      unsigned long mask = 0;
                      const ZelReturn set = sys_util_set_sched_affinity(wanted);
                      const ZelReturn got = sys_util_get_sched_affinity(&mask);
                      out += std::to_string(set) + std::to_string(got) + " " +
                             std::to_string(mask) + " ";
                  }
                  out += std::to_string(sys_util_set_sched_affinity(0));  // no CPU at all
                  const std::string tid = std::to_string(gettid());
                  if (!log.contains(Line("  sched_getaffinity(), tid(" + tid +
                                         "), cpusetsize(8), mask(0x3), ret(8)\n")))
                      out += " no trace";
                  return out;
              }));
}

TEST(SysUtils, PriorityIsRaisedToTheMostUrgent) {
    // Whether this process may raise priorities at all (root without CAP_SYS_NICE may not).
    const bool allowed = zel_test::RunInChild([] {
                             return std::to_string(setpriority(PRIO_PROCESS, 0, -20));
                         }) == "0";
    const std::string result = zel_test::RunInChild([&] {
        if (allowed) setpriority(PRIO_PROCESS, 0, 0);
        LogCapture log;
        std::string out = std::to_string(ofi_adjust_thread_priority_urgent());
        out += " " + std::to_string(getpriority(PRIO_PROCESS, 0));
        // At -20 the kernel reports 40, not -20, so the priority is set again.
        out += " " + std::to_string(ofi_adjust_thread_priority_urgent());
        for (const std::string& message : log.messages())
            out += " | " + message;
        return out;
    });
    if (allowed) {
        EXPECT_EQ("0 -20 0 | " + Line("* Priority set to 0x14\n") + " | " +
                          Line("* Priority set to 0x28\n"),
                  result);
    } else {
        EXPECT_EQ("1 " + std::to_string(getpriority(PRIO_PROCESS, 0)) + " 1", result);
    }
}

TEST(SysUtils, ProbesOnAMemfd) {
    unique_fd fd(memfd_create("zel_sys_utils", 0));
    ASSERT_EQ(0, ftruncate(fd.get(), 8192));
    ASSERT_EQ(1, pwrite(fd.get(), "Z", 1, 0));
    const char same[] = "Zdifferent tail";
    const std::string n = std::to_string(fd.get());
    zel::debug::DbgPrintManager::GetInstance()->set_mask(0);  // these lines always print
    LogCapture log;

    EXPECT_TRUE(is_valid_ion_buffer(fd.get(), 8192, same, 0));  // only the first byte counts
    EXPECT_TRUE(is_valid_ion_buffer(fd.get(), 4096, "\0", 4096));
    EXPECT_FALSE(is_valid_ion_buffer(fd.get(), 8192, "a", 0));
    EXPECT_FALSE(is_valid_ion_buffer(-1, 8192, same, 0));
    EXPECT_FALSE(is_valid_ion_buffer(fd.get(), 4096, same, 100));   // not page aligned
    EXPECT_FALSE(is_valid_ion_buffer(fd.get(), 4096, same, 8193));  // the mapping itself fails
    EXPECT_FALSE(is_valid_ion_buffer(fd.get(), 4096, same, 8192));  // no page behind it
    EXPECT_EQ(0, MemFdMappings());

    EXPECT_FALSE(validate_buffer(fd.get(), 8192));
    EXPECT_TRUE(validate_buffer(fd.get(), 0));
    EXPECT_TRUE(validate_buffer(-3, 16));
    EXPECT_EQ(8192u, get_size_from_fd(fd.get()));
    EXPECT_EQ(8192, lseek(fd.get(), 0, SEEK_CUR));
    EXPECT_EQ(0u, get_size_from_fd(-1));
    zel::debug::DbgPrintManager::GetInstance()->set_mask(0x3);
    EXPECT_EQ((Lines{Line("* invalid fd, fail to memcmp() ret:-7\n"),  // 'Z' - 'a'
                     Line("* invalid parameters, fd:-1, size:8192, addr:" + Hex(same) + "\n"),
                     Line("* invalid fd, fail to mmap(), addr:" + Hex(same) +
                          ", addr_tmp:" + Hex(MAP_FAILED) + " offset(100)\n"),
                     Line("* invalid fd, fail to mmap(), addr:" + Hex(same) +
                          ", addr_tmp:" + Hex(MAP_FAILED) + " offset(8193)\n"),
                     Line("* invalid fd, offset(8192) is not below its size(8192)\n"),
                     Line("* validate(), fd(" + n + "), size(0)\n"),
                     Line("* validate(), invalid fd(-3)\n"),
                     Line("* get_size_from_fd(), invalid fd(-1)\n")}),
              log.messages());
}

TEST(SysUtils, ProbesOnADeviceBuffer) {
    BufferAllocator allocator;
    unique_fd buffer(allocator.Alloc("system", 10000, 0, 0));
    ASSERT_GE(buffer.get(), 0);
    void* va = mmap(nullptr, 12288, PROT_READ | PROT_WRITE, MAP_SHARED, buffer.get(), 0);
    ASSERT_NE(MAP_FAILED, va);
    static_cast<char*>(va)[0] = 'Q';
    EXPECT_FALSE(validate_buffer(buffer.get(), 12288));
    EXPECT_TRUE(is_valid_ion_buffer(buffer.get(), 12288, va, 0));
    EXPECT_FALSE(is_valid_ion_buffer(buffer.get(), 12288, "R", 0));
    EXPECT_EQ(12288u, get_size_from_fd(buffer.get()));
    munmap(va, 12288);
}

}  // namespace
