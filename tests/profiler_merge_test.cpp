// Profiler merge: the child spliced under the docking stage, and counts that disagree.
#include <gtest/gtest.h>

#include "profiler_test_util.h"

using namespace zel::util;
using namespace profiler_test;
using zel_test::Line;
using ProfilerMergeTest = Fixture;

namespace {
// `held` iterations of TOTAL/7 { SERVICE } (SERVICE from 1000 * (i + 1) for 100), docked at
// SERVICE; or, as a child, of CPU_UD/3 from 5 to 25 after the docking stage's start.
std::unique_ptr<ZelProfiler> Profile(bool parent, uint64_t held, uint64_t claimed) {
    std::vector<ZelProfileData> r;
    for (uint64_t i = 0, t = 1000; i < held; ++i, t += 1000) {
        if (parent)
            r.insert(r.end(), {Start(TOTAL, 7, t - 10, i), Start(SERVICE, 0, t, i),
                               End(SERVICE, 0, t + 100, i), End(TOTAL, 7, t + 110, i)});
        else
            r.insert(r.end(), {Start(CPU_UD, 3, 5, i), End(CPU_UD, 3, 25, i)});
    }
    const uint64_t records = r.size();
    r.push_back(Start(DSP_OP, 9, 0));  // past the records held: no docking stage
    auto p = FromRecords(r, claimed, parent ? 4 : 2);
    p->rawdata_size = records * 40;
    p->set_leaf_docking_point({SERVICE, 0});
    p->relative_timestamp = !parent;
    return p;
}
}  // namespace

TEST_F(ProfilerMergeTest, SplicesTheChildUnderTheDockingStage) {
    auto parent = Profile(true, 4, 4), child = Profile(false, 3, 3);
    ASSERT_EQ(parent->finalize(), 0);
    ZelProfileData* const before = parent->rawdata;
    parent->set_leaf_docking_point({DSP_OP, 9});
    EXPECT_EQ(parent->merge(child.get()) + parent->merge(nullptr), 2);
    EXPECT_EQ(parent->rawdata, before);
    // Three child iterations into four: the fourth gets the child's stages without duration.
    parent->set_leaf_docking_point({SERVICE, 0});
    ASSERT_EQ(parent->merge(child.get()), 0);
    EXPECT_FALSE(parent->finalized);
    EXPECT_EQ(parent->num_iter * 1000 + parent->num_label * 100 + parent->rawdata_size, 5560u);
    const ZelProfileData* r = parent->rawdata + 6;  // iteration 1
    const int64_t labels[] = {TOTAL, SERVICE, CPU_UD, CPU_UD, SERVICE, TOTAL};
    for (int k = 0; k < 6; ++k)
        EXPECT_EQ(r[k].label, labels[k]) << k;
    EXPECT_EQ(r[2].timestamp + r[3].timestamp + r[6 + 2].timestamp, 2005u + 2025 + 3005);
    EXPECT_EQ(r[12 + 2].timestamp + r[12 + 3].iterKey, 4000u + 3);
    EXPECT_EQ(child->rawdata[0].timestamp, 5u);  // the child is read, not changed
    ASSERT_EQ(parent->finalize(), 0);
    const auto& service = parent->root->children[0]->children[0];
    EXPECT_EQ(service->self_time[1], 80u);  // 100 less the child's 20
    EXPECT_EQ(service->children.at(0)->duration[2] * 10 + service->children[0]->duration[3], 200u);

    // Counts beyond the array stop only what would read past it; an empty child has nothing to
    // dock.
    EXPECT_EQ(Profile(true, 2, 2)->merge(Profile(false, 2, 5).get()), 0);
    auto claims = Profile(true, 2, 3);
    EXPECT_EQ(claims->merge(Profile(false, 3, 3).get()), 1);
    EXPECT_EQ(claims->num_label * 1000 + claims->rawdata_size, 4320u);
    EXPECT_EQ(Profile(true, 2, 2)->merge(Profile(false, 0, 2).get()), 1);
    auto huge = Profile(true, 2, 2);
    huge->rawdata_size = 1ULL << 31;  // beyond the merge's 32-bit byte count: nothing is read
    EXPECT_EQ(huge->merge(Profile(false, 2, 2).get()), 1);
    for (const char* line :
         {"* Fail to find parent's leaf(DSP_OP:0x9)\n",
          "* Found Parent leaf idx(1) label(SERVICE:0x0)\n",
          "* Wrong merge usage. iter diff. (3) vs (4)\n",
          "* Wrong merge usage. iter diff. (5) vs (2)\n",
          "* Raw data too small for its counts. name[default] num_iter(3) num_label(4) size(320)\n",
          "* Raw data too small for its counts. name[default] num_iter(2) num_label(2) size(0)\n"})
        EXPECT_TRUE(log.contains(Line(line))) << line;
}
