// Profiler merge, and raw data from elsewhere that does not hold what its counts claim.
#include <gtest/gtest.h>

#include <android/log.h>

#include <atomic>

#include "profiler_test_util.h"

using namespace zel::util;
using namespace profiler_test;
using zel_test::Line;

namespace {
// Parent iterations TOTAL/7 { SERVICE/0 } opening at 1000 * (i + 1).
std::unique_ptr<ZelProfiler> Parent(uint64_t iterations) {
    std::vector<ZelProfileData> records;
    for (uint64_t i = 0; i < iterations; ++i) {
        const uint64_t t = 1000 * (i + 1);
        records.insert(records.end(), {Start(TOTAL, 7, t - 10, i), Start(SERVICE, 0, t, i),
                                       End(SERVICE, 0, t + 100, i), End(TOTAL, 7, t + 110, i)});
    }
    auto p = FromRecords(records, iterations, 4);
    p->set_leaf_docking_point({SERVICE, 0});
    return p;
}
}  // namespace

TEST_F(ProfilerTest, MergeSplicesTheChildUnderTheDockingStage) {
    auto parent = Parent(4);
    ASSERT_EQ(parent->finalize(), 0);
    ZelProfileData* const before = parent->rawdata;
    std::vector<ZelProfileData> cpu;  // CPU_UD/3 from 5 to 25 after the docking stage's start
    for (uint64_t i = 0; i < 3; ++i)
        cpu.insert(cpu.end(), {Start(CPU_UD, 3, 5, i), End(CPU_UD, 3, 25, i)});
    auto child = FromRecords(cpu, 3, 2);
    child->relative_timestamp = true;
    parent->set_leaf_docking_point({DSP_OP, 9});
    EXPECT_EQ(parent->merge(child.get()), 1);
    EXPECT_TRUE(log.contains(Line("* Fail to find parent's leaf(DSP_OP:0x9)\n")));
    EXPECT_EQ(parent->rawdata, before);
    EXPECT_EQ(parent->num_label, 4u);

    // Three child iterations into four: reported, and the fourth gets the child's stages with
    // no duration at the docking stage's start.
    parent->set_leaf_docking_point({SERVICE, 0});
    ASSERT_EQ(parent->merge(child.get()), 0);
    EXPECT_FALSE(parent->finalized);
    EXPECT_TRUE(log.contains(Line("* Found Parent leaf idx(1) label(SERVICE:0x0)\n")));
    EXPECT_TRUE(log.contains(Line("* Wrong merge usage. iter diff. (3) vs (4)\n")));
    EXPECT_EQ(parent->num_iter, 4u);
    EXPECT_EQ(parent->num_label, 6u);
    EXPECT_EQ(parent->rawdata_size, 4u * 6 * 40);
    const ZelProfileData* r = parent->rawdata + 6;  // iteration 1
    const int64_t labels[] = {TOTAL, SERVICE, CPU_UD, CPU_UD, SERVICE, TOTAL};
    for (int k = 0; k < 6; ++k)
        EXPECT_EQ(r[k].label, labels[k]) << k;
    EXPECT_EQ(r[2].timestamp, 2005u);
    EXPECT_EQ(r[3].timestamp, 2025u);
    EXPECT_EQ(r[6 + 2].timestamp, 3005u);
    EXPECT_EQ(r[12 + 2].timestamp, 4000u);
    EXPECT_EQ(r[12 + 3].iterKey, 3u);
    EXPECT_EQ(child->rawdata[0].timestamp, 5u);  // the child is read, not changed

    ASSERT_EQ(parent->finalize(), 0);
    const auto& service = parent->root->children[0]->children[0];
    ASSERT_EQ(service->children.size(), 1u);
    EXPECT_EQ(service->self_time[1], 80u);  // 100 less the child's 20
    EXPECT_EQ(service->children[0]->duration[2], 20u);
    EXPECT_EQ(service->children[0]->duration[3], 0u);
}

TEST_F(ProfilerTest, RawDataThatContradictsItsCountsFailsCleanly) {
    // Three iterations claimed, two held.
    auto p = FromRecords(
            {Start(TOTAL, 7, 1), End(TOTAL, 7, 2), Start(TOTAL, 7, 3), End(TOTAL, 7, 4)}, 3, 2);
    EXPECT_EQ(p->finalize(), 1);
    EXPECT_FALSE(p->finalized);
    EXPECT_TRUE(
            log.contains(Line("* Raw data too small for its counts. name[default] num_iter(3) "
                              "num_label(2) size(160)\n")));
    // Counts whose product overflows 64 bits.
    auto huge = FromRecords({Start(TOTAL, 7, 1), End(TOTAL, 7, 2)}, 1ULL << 40, 1ULL << 40);
    EXPECT_EQ(huge->finalize(), 1);

    auto parent = Parent(2);
    EXPECT_EQ(parent->merge(p.get()), 1);
    EXPECT_EQ(p->merge(parent.get()), 1);
    EXPECT_EQ(parent->num_label, 4u);
    EXPECT_EQ(parent->merge(nullptr), 1);
}

namespace {
std::atomic<size_t> g_lines{0};
#if defined(__ANDROID__)
void CountingLogger(const struct __android_log_message*) {
    ++g_lines;
}
const auto kDefaultLogger = __android_log_logd_logger;
#else
void CountingLogger(const struct __android_logger_data*, const char*) {
    ++g_lines;
}
const auto kDefaultLogger = __android_log_stderr_logger;
#endif
}  // namespace

TEST(ProfilerDeepNesting, FinalizeReportAndReleaseWithoutExhaustingTheStack) {
    // Stages nested 150 000 deep, each a distinct (FW, postfix) pair: a recursive walk would
    // need far more than a thread's stack for this.
    constexpr uint64_t kDepth = 150000;
    std::vector<ZelProfileData> records;
    records.reserve(2 * (2 * kDepth + 2));
    for (uint64_t i = 0; i < 2; ++i) {
        uint64_t t = 1000000 * i;
        records.push_back(Start(TOTAL, 7, t++, i));
        for (uint64_t d = 1; d <= kDepth; ++d)
            records.push_back(Start(FW, d, t++, i));
        for (uint64_t d = kDepth; d >= 1; --d)
            records.push_back(End(FW, d, t++, i));
        records.push_back(End(TOTAL, 7, t, i));
    }
    auto p = FromRecords(records, 2, 2 * kDepth + 2);
    ASSERT_EQ(p->finalize(), 0);

    ProfileNode* node = p->root.get();
    uint64_t depth = 0;
    while (!node->children.empty()) {
        ASSERT_EQ(node->children.size(), 1u);
        node = node->children[0].get();
        ++depth;
    }
    EXPECT_EQ(depth, kDepth + 1);
    EXPECT_EQ(node->duration[1], 1u);  // the innermost stage
    EXPECT_EQ(p->root->children[0]->duration[0], 2 * kDepth + 1);

    __android_log_set_logger(CountingLogger);
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    p->show_output(true);
    __android_log_set_logger(kDefaultLogger);
    // Both reports print every stage; the count is what was walked, not what fit a stack.
    EXPECT_GT(g_lines.load(), 2 * kDepth);
    p.reset();  // releasing the tree walks it too
}
