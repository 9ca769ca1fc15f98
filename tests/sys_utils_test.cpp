// Thread affinity and priority, and the probes of shared-buffer descriptors (memfd and dmabuf).
#include "util/zel_utils.h"

#include <android-base/unique_fd.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <sstream>
#include <thread>

#include "support/child_process.h"
#include "support/log_capture.h"
#include "support/proc_stats.h"

namespace {

using namespace zel::util;
using zel_test::Line;

TEST(SysUtilsTest, AffinityAndPriorityOfTheCallingThread) {
    if (std::thread::hardware_concurrency() < 2) GTEST_SKIP() << "needs two CPUs";
    const std::string result = zel_test::RunInChild([] {
        zel::debug::DbgPrintManager::GetInstance()->set_mask(0x7);
        const bool nice = setpriority(PRIO_PROCESS, 0, -20) == 0;  // not without CAP_SYS_NICE
        if (nice) setpriority(PRIO_PROCESS, 0, 0);
        zel_test::LogCapture log;
        std::ostringstream out;  // operands are evaluated from left to right
        out << nice << gettid() << " ";
        unsigned long mask = 0;
        for (unsigned long wanted : {0x1ul, 0x3ul})
            out << sys_util_set_sched_affinity(wanted) << sys_util_get_sched_affinity(&mask)
                << mask;
        // No CPU at all. At -20 the kernel reports 40, not -20, so the priority is set again.
        out << sys_util_set_sched_affinity(0) << sys_util_get_sched_affinity(nullptr) << " "
            << ofi_adjust_thread_priority_urgent() << getpriority(PRIO_PROCESS, 0)
            << ofi_adjust_thread_priority_urgent();
        for (const std::string& message : log.messages())
            if (message.find("sched_set") == std::string::npos) out << "|" << message;
        return out.str();
    });
    const bool nice = result[0] == '1';  // priorities could be raised
    const std::string tid = result.substr(1, result.find(' ') - 1);
    std::string expected =
            result[0] + tid + " 00100311 " +
            (nice ? "0-200" : "1" + std::to_string(getpriority(PRIO_PROCESS, 0)) + "1");
    for (const char* mask : {"0x1", "0x3"})
        expected += "|" + Line("  sched_getaffinity(), tid(" + tid + "), cpusetsize(8), mask(" +
                               mask + "), ret(8)\n");
    expected += "|" + Line("* sched_getaffinity(), mask is nullptr\n");
    if (nice)
        expected += "|" + Line("* Priority set to 0x14\n") + "|" + Line("* Priority set to 0x28\n");
    EXPECT_EQ(expected, result);
}

TEST(SysUtilsTest, ProbesOfASharedBufferDescriptor) {
    android::base::unique_fd fd(memfd_create("zel_sys_utils", 0));
    ASSERT_EQ(1, ftruncate(fd.get(), 8192) + pwrite(fd.get(), "Z", 1, 0));
    const char same[] = "Zdifferent tail";                    // only the first byte is compared
    zel::debug::DbgPrintManager::GetInstance()->set_mask(0);  // these lines always print
    zel_test::LogCapture log;
    const int f = fd.get(), mappings = zel_test::CountMemfdMappings();
    EXPECT_EQ(
            (std::vector<bool>{1, 1, 0, 0, 0, 0, 0, 1, 1}),
            (std::vector<bool>{
                    is_valid_ion_buffer(f, 8192, same, 0), is_valid_ion_buffer(f, 4096, "\0", 4096),
                    is_valid_ion_buffer(f, 8192, "a", 0), is_valid_ion_buffer(-1, 8192, same, 0),
                    is_valid_ion_buffer(f, 4096, same, 8193),
                    is_valid_ion_buffer(f, 4096, same, 8192), validate_buffer(f, 8192),
                    validate_buffer(f, 0), validate_buffer(-3, 16)}));
    EXPECT_EQ(8192u, get_size_from_fd(f));
    EXPECT_EQ(8192, lseek(f, 0, SEEK_CUR));
    EXPECT_EQ(0u, get_size_from_fd(-1));
    char text[2][160];
    snprintf(text[0], 160, "* invalid parameters, fd:-1, size:8192, addr:%p\n", same);
    snprintf(text[1], 160, "* invalid fd, fail to mmap(), addr:%p, addr_tmp:%p offset(8193)\n",
             same, MAP_FAILED);
    EXPECT_EQ((std::vector<std::string>{
                      Line("* invalid fd, fail to memcmp() ret:-7\n"), Line(text[0]), Line(text[1]),
                      Line("* invalid fd, offset(8192) is not below its size(8192)\n"),
                      Line("* validate(), fd(" + std::to_string(f) + "), size(0)\n"),
                      Line("* validate(), invalid fd(-3)\n"),
                      Line("* get_size_from_fd(), invalid fd(-1)\n")}),
              log.messages());
    EXPECT_EQ(mappings, zel_test::CountMemfdMappings());  // every probe unmaps what it mapped
}

}  // namespace
