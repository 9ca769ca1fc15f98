#include "fuzz_support.h"

#include <android/log.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>

namespace zel_fuzz {

void QuietLogs(bool traces) {
    static const bool verbose = std::getenv("ZEL_FUZZ_VERBOSE") != nullptr;
#if defined(__ANDROID__)
    if (!verbose) __android_log_set_logger([](const __android_log_message*) {});
#else
    if (!verbose) __android_log_set_logger([](const __android_logger_data*, const char*) {});
#endif
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    zel::debug::DbgPrintManager::GetInstance()->set_mask(traces || verbose ? 0xFF : 0x3);
}

int MakeMemfd(const char* name, const uint8_t* bytes, size_t count, size_t size) {
    const int fd = memfd_create(name, MFD_CLOEXEC);
    if (fd >= 0 && ftruncate(fd, static_cast<off_t>(size)) != 0) {
        close(fd);
        return -1;
    }
    for (size_t done = 0; fd >= 0 && count != 0 && done < size; done += count) {
        const size_t piece = size - done < count ? size - done : count;
        if (pwrite(fd, bytes, piece, static_cast<off_t>(done)) != static_cast<ssize_t>(piece))
            break;
    }
    return fd;
}

}  // namespace zel_fuzz
