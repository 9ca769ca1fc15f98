// Stages as system-trace sections. This executable defines libcutils' trace entry points itself;
// they take precedence over the library's, so the test switches categories and sees every section.
#include <cutils/trace.h>
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "util/zel_utils_profiler.h"

namespace {
using Sections = std::vector<std::pair<std::string, int32_t>>;  // "+NAME" begins, "-NAME" ends
std::atomic<uint64_t> g_tags{0};
std::mutex g_mutex;
Sections g_sections;

void Emit(char kind, const char* name, int32_t cookie) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_sections.emplace_back(kind + std::string(name), cookie);
}
}  // namespace

extern "C" {
uint64_t atrace_get_enabled_tags() {
    return g_tags.load();
}
void atrace_init() {}
void atrace_async_begin_body(const char* name, int32_t cookie) {
    Emit('+', name, cookie);
}
void atrace_async_end_body(const char* name, int32_t cookie) {
    Emit('-', name, cookie);
}
}

namespace {
using namespace zel::util;

// Two requests in flight (iteration 1's CLIENT ended by another thread), then a plain profile
// finalized and a record after it, which is refused and traces nothing.
Sections Record(uint64_t tags) {
    g_tags = tags;
    g_sections.clear();
    ZelProfiler profiler(1, 10, "service", false);
    for (uint64_t i = 0; i < 2; ++i) {
        profiler.add_record_start(CLIENT, 0, i);
        profiler.add_record_start(DD, 1, i);
        profiler.add_record_end(DD, 1, i);
    }
    profiler.add_record_end(CLIENT, 0, 0);
    std::thread([&] { profiler.add_record_end(CLIENT, 0, 1); }).join();
    EXPECT_EQ(8u, profiler.queue.size());
    profiler.queue.clear();
    for (uint64_t i = 0; i < 2; ++i) {
        profiler.add_record_start(API, 0, i);
        profiler.add_record_end(API, 0, i);
    }
    EXPECT_TRUE(profiler.finalize() == 0 && profiler.finalized);
    profiler.add_record_start(SERVICE, 0, 0);
    return g_sections;
}

TEST(ProfilerAtraceTest, StagesBecomePairedSectionsOnlyWithTheNnapiCategory) {
    EXPECT_TRUE(Record(0).empty());
    EXPECT_TRUE(Record(ATRACE_TAG_VALID_MASK & ~static_cast<uint64_t>(ATRACE_TAG_NNAPI)).empty());
    const Sections s = Record(ATRACE_TAG_NNAPI);
    std::string names;
    for (const auto& section : s)
        names += section.first + " ";
    EXPECT_EQ(names,
              "+CLIENT +DD_0x1 -DD_0x1 +CLIENT +DD_0x1 -DD_0x1 -CLIENT -CLIENT +API -API "
              "+API -API ");
    // A begin pairs with its end; stages open together (other iteration or label) keep apart.
    for (auto [begin, end] : {std::pair{1, 2}, {4, 5}, {0, 6}, {3, 7}, {8, 9}, {10, 11}})
        EXPECT_EQ(s[begin].second, s[end].second) << s[begin].first;
    for (auto [one, other] : {std::pair{0, 3}, {1, 4}, {0, 1}, {8, 10}})
        EXPECT_NE(s[one].second, s[other].second) << s[one].first << s[other].first;
}
}  // namespace
