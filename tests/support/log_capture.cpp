#include "support/log_capture.h"

#include <android/log.h>

#include <algorithm>
#include <mutex>

namespace zel_test {

static std::mutex g_mutex;
static std::vector<LogLine> g_lines;

static void Record(int priority, const char* tag, const char* message) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_lines.push_back({priority, tag != nullptr ? tag : "", message});
}

LogCapture::LogCapture() {
    clear();
#if defined(__ANDROID__)
    __android_log_set_logger(
            [](const __android_log_message* m) { Record(m->priority, m->tag, m->message); });
#else
    __android_log_set_logger(
            [](const __android_logger_data* d, const char* m) { Record(d->priority, d->tag, m); });
#endif
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
}

LogCapture::~LogCapture() {
#if defined(__ANDROID__)
    __android_log_set_logger(__android_log_logd_logger);
#else
    __android_log_set_logger(__android_log_stderr_logger);
#endif
}

std::vector<LogLine> LogCapture::lines() const {
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_lines;
}

std::vector<std::string> LogCapture::messages() const {
    std::vector<std::string> out;
    for (const LogLine& line : lines())
        out.push_back(line.message);
    return out;
}

size_t LogCapture::count(const std::string& message) const {
    const std::vector<std::string> all = messages();
    return std::count(all.begin(), all.end(), message);
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_lines.clear();
}

}  // namespace zel_test
