#include "support/log_capture.h"

#include <android/log.h>

#include <algorithm>
#include <mutex>

namespace zel_test {

namespace {

std::mutex g_mutex;
std::vector<LogLine>* g_lines = nullptr;

void Record(int priority, const char* tag, const char* message) {
    std::lock_guard<std::mutex> lock(g_mutex);
    if (g_lines == nullptr) return;
    g_lines->push_back({priority, tag != nullptr ? tag : "", message});
}

#if defined(__ANDROID__)
// Android's released logger interface: one message record.
void CaptureLogger(const struct __android_log_message* message) {
    Record(message->priority, message->tag, message->message);
}
void RestoreDefaultLogger() {
    __android_log_set_logger(__android_log_logd_logger);
}
#else
// The host liblog's interface: logger data and the text apart.
void CaptureLogger(const struct __android_logger_data* data, const char* message) {
    Record(data->priority, data->tag, message);
}
void RestoreDefaultLogger() {
    __android_log_set_logger(__android_log_stderr_logger);
}
#endif

}  // namespace

LogCapture::LogCapture() {
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        g_lines = new std::vector<LogLine>();
    }
    __android_log_set_logger(CaptureLogger);
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
}

LogCapture::~LogCapture() {
    RestoreDefaultLogger();
    std::lock_guard<std::mutex> lock(g_mutex);
    delete g_lines;
    g_lines = nullptr;
}

std::vector<LogLine> LogCapture::lines() const {
    std::lock_guard<std::mutex> lock(g_mutex);
    return *g_lines;
}

std::vector<std::string> LogCapture::messages() const {
    std::vector<std::string> out;
    for (const LogLine& line : lines())
        out.push_back(line.message);
    return out;
}

bool LogCapture::contains(const std::string& message) const {
    return count(message) > 0;
}

size_t LogCapture::count(const std::string& message) const {
    std::lock_guard<std::mutex> lock(g_mutex);
    return std::count_if(g_lines->begin(), g_lines->end(),
                         [&](const LogLine& line) { return line.message == message; });
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_lines->clear();
}

std::string Line(const std::string& text) {
    return "2.1.17: " + text;
}

std::string MsgLine(const std::string& text) {
    return "2.1.17:   " + text + "\n";
}

}  // namespace zel_test
