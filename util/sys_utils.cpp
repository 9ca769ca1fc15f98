/*
 * Thread identity, affinity and priority through the kernel's own calls, and checks that a
 * shared-buffer descriptor can be mapped.
 */
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

#include "util/zel_utils.h"

namespace zel {
namespace util {

using namespace zel::debug;

namespace {

// The raw calls take an 8-byte set: CPUs 0 to 63.
constexpr int kCpuSetSize = 8;
constexpr int kMostUrgentNice = -20;

}  // namespace

pid_t get_tid() {
    return gettid();
}

pid_t get_pid() {
    return getpid();
}

ZelReturn sys_util_set_sched_affinity(unsigned long mask) {
    const pid_t tid = gettid();
    uint64_t set = mask;
    const long ret = syscall(SYS_sched_setaffinity, tid, kCpuSetSize, &set);
    ZEL_LOG(ZONE_INF, PRINT_TRACE,
            "  sched_setaffinity(), tid(%d), cpusetsize(%d), mask(0x%X), ret(%d)\n", tid,
            kCpuSetSize, static_cast<unsigned int>(mask), static_cast<int>(ret));
    return ret != 0 ? 1 : 0;
}

ZelReturn sys_util_get_sched_affinity(unsigned long* mask) {
    if (mask == nullptr) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* sched_getaffinity(), mask is nullptr\n");
        return 1;
    }
    const pid_t tid = gettid();
    uint64_t set = 0;
    // Success returns the number of bytes the kernel wrote.
    const long ret = syscall(SYS_sched_getaffinity, tid, kCpuSetSize, &set);
    ZEL_LOG(ZONE_INF, PRINT_TRACE,
            "  sched_getaffinity(), tid(%d), cpusetsize(%u), mask(0x%X), ret(%d)\n", tid,
            static_cast<unsigned int>(kCpuSetSize), static_cast<unsigned int>(set),
            static_cast<int>(ret));
    *mask = set;
    return ret < 0 ? 1 : 0;
}

ZelReturn ofi_adjust_thread_priority_urgent() {
    // The raw call reports 20 - nice (1 to 40), not the nice value itself, and -1 with errno set
    // on failure.
    errno = 0;
    const long value = syscall(SYS_getpriority, PRIO_PROCESS, 0);
    if (value != kMostUrgentNice) {
        if (value == -1 && errno != 0) return 1;
        if (syscall(SYS_setpriority, PRIO_PROCESS, 0, kMostUrgentNice) != 0) return 1;
    }
    ZEL_LOG(ZONE_INF, PRINT_ALWAYS, "* Priority set to 0x%X\n", static_cast<unsigned int>(value));
    return 0;
}

bool is_valid_ion_buffer(int fd, size_t size, const void* addr, int offset) {
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  input parameters, fd:%d, size:%d, addr:%p\n", fd,
            static_cast<int>(size), addr);
    if (fd < 0 || size == 0 || addr == nullptr) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* invalid parameters, fd:%d, size:%d, addr:%p\n", fd,
                static_cast<int>(size), addr);
        return false;
    }
    void* mapped =
            mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, static_cast<off_t>(offset));
    if (mapped == nullptr || mapped == MAP_FAILED) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS,
                "* invalid fd, fail to mmap(), addr:%p, addr_tmp:%p offset(%d)\n", addr, mapped,
                offset);
        return false;
    }
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  addr:%p, addr_tmp:%p\n", addr, mapped);

    // A file maps past its end without complaint, but the first byte of such a mapping has no
    // page behind it: reading it would raise SIGBUS instead of answering.
    struct stat info = {};
    if (fstat(fd, &info) == 0 && (S_ISREG(info.st_mode) || info.st_size > 0) &&
        static_cast<off_t>(offset) >= info.st_size) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* invalid fd, offset(%d) is not below its size(%lld)\n",
                offset, static_cast<long long>(info.st_size));
        munmap(mapped, size);
        return false;
    }

    // One byte is enough to tell whether addr is a mapping of this buffer.
    const int diff = static_cast<int>(*static_cast<const unsigned char*>(mapped)) -
                     static_cast<int>(*static_cast<const unsigned char*>(addr));
    if (diff != 0) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* invalid fd, fail to memcmp() ret:%d\n", diff);
        if (munmap(mapped, size) != 0)
            ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* fail to munmap() ret:%d\n", diff);
        return false;
    }
    if (munmap(mapped, size) != 0) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* fail to munmap() ret:%d\n", 0);
        return false;
    }
    return true;
}

uint32_t get_size_from_fd(int fd) {
    if (fd < 0) {
        ZEL_LOG(ZONE_WAR, PRINT_ALWAYS, "* get_size_from_fd(), invalid fd(%d)\n", fd);
        return 0;
    }
    return static_cast<uint32_t>(lseek(fd, 0, SEEK_END));
}

bool validate_buffer(int fd, uint32_t size) {
    if (size == 0) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* validate(), fd(%d), size(%u)\n", fd, size);
        return true;
    }
    if (fd < 0) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* validate(), invalid fd(%d)\n", fd);
        return true;
    }
    void* mapped = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (mapped == nullptr || mapped == MAP_FAILED) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS,
                "* validate(), fail to mmap(), fd(%d), size(%d), addr_tmp(%p)\n", fd,
                static_cast<int>(size), mapped);
        return true;
    }
    const int ret = munmap(mapped, size);
    if (ret != 0) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* validate(), fail to munmap(), ret(%d)\n", ret);
        return true;
    }
    return false;
}

}  // namespace util
}  // namespace zel
