#include "fuzz_support.h"

#include <android/log.h>

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

}  // namespace zel_fuzz
