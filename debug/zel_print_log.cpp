/*
 * printf-style emission of one log line to liblog.
 */
#include <android/log.h>

#include <cstdarg>
#include <cstdio>
#include <stdexcept>

#include "debug/zel_debug.h"

namespace zel {
namespace debug {

namespace {
constexpr const char kDefaultTag[] = "ZEL_FRAMEWORK";
constexpr size_t kFormatBufferSize = 1024;
}  // namespace

ZelReturn zel_print_log(const char* tag, DbgPartition zone, const char* /*function*/, int /*line*/,
                        const char* format, ...) {
    DbgPrintManager* manager = DbgPrintManager::GetInstance();
    try {
        const auto& table = manager->get_debug_zone_info();
        auto entry = table.find(zone);
        if (entry == table.end()) return 4;
        const int priority = entry->second.priority;

        static const std::string version("2.1.17");
        // The caller's format behind the version prefix; the log library formats the arguments.
        char prefixed[kFormatBufferSize] = {};
        snprintf(prefixed, sizeof(prefixed), "%s: %s", version.c_str(), format);

        va_list args;
        va_start(args, format);
        __android_log_vprint(priority, tag != nullptr ? tag : kDefaultTag, prefixed, args);
        va_end(args);
    } catch (const std::out_of_range&) {
        return -1;
    } catch (const std::length_error&) {
        return -1;
    }
    return 0;
}

}  // namespace debug
}  // namespace zel
