#include "zel_prof/stdout_logger.h"

#include <android/log.h>

#include <atomic>
#include <cstdio>
#include <cstring>

namespace zel_prof {

namespace {

// Every library line starts with the library's version; the report reads better without it.
constexpr char kVersionPrefix[] = "2.1.17: ";

std::atomic<bool> g_verbose{false};
std::atomic<bool> g_capture{false};

void Print(FILE* out, const char* message) {
    const size_t prefix = sizeof(kVersionPrefix) - 1;
    if (strncmp(message, kVersionPrefix, prefix) == 0) message += prefix;
    const size_t length = strlen(message);
    fputs(message, out);
    if (length == 0 || message[length - 1] != '\n') fputc('\n', out);
}

void ToolLogger(const struct __android_logger_data* data, const char* message) {
    if (g_capture.load() || g_verbose.load()) {
        Print(stdout, message);
    } else if (data->priority >= ANDROID_LOG_WARN) {
        Print(stderr, message);
    }
}

}  // namespace

void InstallStdoutLogger(bool verbose) {
    g_verbose = verbose;
    __android_log_set_logger(ToolLogger);
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
}

void SetReportCapture(bool on) {
    fflush(stderr);
    g_capture = on;
    fflush(stdout);
}

}  // namespace zel_prof
