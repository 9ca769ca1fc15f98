#include "fuzz_support.h"

#include <android/log.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include "util/zel_utils_profiler_wrapper.h"

namespace zel_fuzz {

namespace {

#if defined(__ANDROID__)
void Discard(const struct __android_log_message*) {}
#else
void Discard(const struct __android_logger_data*, const char*) {}
#endif

}  // namespace

void QuietLogs(bool traces) {
    // ZEL_FUZZ_VERBOSE=1 keeps liblog's own logger and every zone on, to read what an input does.
    static const bool verbose = std::getenv("ZEL_FUZZ_VERBOSE") != nullptr;
    if (verbose) {
        __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
        zel::debug::DbgPrintManager::GetInstance()->set_mask(0xFF);
        return;
    }
    __android_log_set_logger(Discard);
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    zel::debug::DbgPrintManager::GetInstance()->set_mask(traces ? 0xFF : 0x3);
}

void RecordServiceIterations(zel::util::ZelProfiler& profiler, int iterations,
                             zel::util::ProfilerKeyType key,
                             zel::util::ProfilerKeyType dd_postfix) {
    using namespace zel::util;
    for (int i = 0; i < iterations; ++i) {
        const ProfilerKeyType iter = static_cast<ProfilerKeyType>(i);
        profiler.add_record_start(TOTAL, key, iter);
        profiler.add_record_start(SERVICE, 0, iter);
        profiler.add_record_start(ENGINE, 0, iter);
        profiler.add_record_start(NPU_UD, 1, iter);
        profiler.add_record_end(NPU_UD, 1, iter);
        profiler.add_record_end(ENGINE, 0, iter);
        profiler.add_record_start(DD, dd_postfix, iter);
        profiler.add_record_end(DD, dd_postfix, iter);
        profiler.add_record_end(SERVICE, 0, iter);
        profiler.add_record_end(TOTAL, key, iter);
    }
}

void RecordClientIterations(zel::util::ZelProfiler& profiler, int iterations,
                            zel::util::ProfilerKeyType key) {
    using namespace zel::util;
    for (int i = 0; i < iterations; ++i) {
        const ProfilerKeyType iter = static_cast<ProfilerKeyType>(i);
        profiler.add_record_start(TOTAL, key, iter);
        profiler.add_record_start(API, 0, iter);
        profiler.add_record_start(CLIENT, 0, iter);
        profiler.add_record_end(CLIENT, 0, iter);
        profiler.add_record_end(API, 0, iter);
        profiler.add_record_end(TOTAL, key, iter);
    }
}

void ResetProfilerRegistry() {
    using zel::util::ZelProfilerWrapper;
    for (auto& entry : ZelProfilerWrapper::profilerMap_)
        delete entry.second;
    ZelProfilerWrapper::profilerMap_.clear();
    ZelProfilerWrapper::deviceProfilerMap_.clear();
}

int MemfdMappingCount() {
    std::ifstream maps("/proc/self/maps");
    int count = 0;
    std::string line;
    while (std::getline(maps, line)) {
        if (line.find("/memfd:") != std::string::npos) ++count;
    }
    return count;
}

int MakeMemfd(const char* name, const uint8_t* bytes, size_t count, size_t size) {
    const int fd = memfd_create(name, MFD_CLOEXEC);
    if (fd < 0) return -1;
    if (ftruncate(fd, static_cast<off_t>(size)) != 0) {
        close(fd);
        return -1;
    }
    if (count != 0) {
        for (size_t done = 0; done < size;) {
            const size_t piece = size - done < count ? size - done : count;
            if (pwrite(fd, bytes, piece, static_cast<off_t>(done)) != static_cast<ssize_t>(piece))
                break;
            done += piece;
        }
    }
    return fd;
}

}  // namespace zel_fuzz
