// Profiler reports: the multi-record table and the summary, line for line.
#include <gtest/gtest.h>

#include "profiler_test_util.h"

using namespace zel::util;
using namespace profiler_test;
using zel_test::Line;

namespace {

std::string Cells(const std::vector<std::string>& cells) {
    std::string line;
    for (const auto& cell : cells)
        line += std::string(18 - cell.size(), ' ') + cell;
    return line;
}

}  // namespace

TEST_F(ProfilerTest, ReportsOfTenIterationsLineForLine) {
    // TOTAL/7 { NPU_OP/0x1f } where TOTAL/7 lasts totals[i] and NPU_OP 20 less. Ascending, the
    // totals stand at iterations 3 1 7 5 9 0 8 4 6 2.
    const uint64_t totals[] = {150, 110, 190, 100, 170, 130, 180, 120, 160, 140};
    std::vector<ZelProfileData> records;
    for (uint64_t i = 0; i < 10; ++i) {
        const uint64_t t = 1000 * i;
        records.insert(records.end(),
                       {Start(TOTAL, 7, t, i), Start(NPU_OP, 0x1f, t + 10, i),
                        End(NPU_OP, 0x1f, t + totals[i] - 10, i), End(TOTAL, 7, t + totals[i], i)});
    }
    auto p = FromRecords(records, 10, 4);
    ASSERT_EQ(p->finalize(), 0);
    log.clear();
    p->show_output(false);
    EXPECT_EQ(log.messages(),
              std::vector<std::string>{Line("* Output show flag OFF. Skip print profile\n")});

    log.clear();
    p->show_output(true);
    // Ranks 6..9 of the root's self time are iterations 8, 4, 6, 2; the median (rank 5) is
    // iteration 0 and the 90% (rank 9) iteration 2, for every stage alike.
    const std::string heading = "* " + Cells({" [6th]", " [7th]", " [8th]", " [9th]"}) + "\n";
    const std::string stage = Cells({"140", "150", "160", "170"});
    const std::string table_banner =
            "* ===========================================  Result: modelId(0x0000000000000042)  "
            "unit(us) iter(      10)  ==============================================\n";
    const std::string summary_banner =
            "* ============  Result: modelId(0x0000000000000042)  unit(us) iter(      10)  "
            "=============\n";
    const std::string summary_heading =
            "*              <avg>              <median>               <90%>   <label>\n";
    const std::string table_rule = "* " + std::string(157, '=') + "\n";
    const std::string summary_rule = "* " + std::string(89, '=') + "\n";
    const std::vector<std::string> expected = {
            Line("  Profiler: end iter is invalid(12) so it has been changed to 9. (0.900, 3)\n"),
            Line("* print result of iter(6~9)\n"),
            Line(table_banner),
            Line(heading),
            Line("*  " + Cells({"160", "170", "180", "190"}) + " TOTAL\n"),
            Line(table_banner),
            Line(heading),
            Line("*  " + stage + " _TOTAL_0x7\n"),
            Line("*  " + stage + " __NPU_OP_0x1f\n"),
            Line(table_rule),
            Line(table_rule),
            Line(summary_banner),
            Line(summary_heading),
            Line("*              145.0                   150                 190    TOTAL\n"),
            Line(summary_banner),
            Line(summary_heading),
            Line("*              125.0                   130                 170    _TOTAL_0x7\n"),
            Line("*              125.0                   130                 170    "
                 "__NPU_OP_0x1f\n"),
            Line(summary_rule),
            Line(summary_rule),
    };
    EXPECT_EQ(log.messages(), expected);
}

TEST_F(ProfilerTest, ReportEdgeCases) {
    // One iteration: both selections take rank 0. A 16-digit self time; a label above 25.
    const uint64_t big = 1000000000000000ULL;
    auto p = FromRecords({Start(TOTAL, 7, 0), Start(API, 0, 1), End(API, 0, big + 1),
                          Start(static_cast<ProfileLabel>(40), 3, big + 2),
                          End(static_cast<ProfileLabel>(40), 3, big + 5), End(TOTAL, 7, big + 9)},
                         1, 6);
    ASSERT_EQ(p->finalize(), 0);
    log.clear();
    p->show_output(true);
    // The root's own cell (its self time is the whole request) is already too wide, so the
    // table stops right after its heading; the summary still runs.
    const std::vector<std::string> msgs = log.messages();
    ASSERT_GE(msgs.size(), 7u);
    EXPECT_EQ(msgs[0], Line("  Profiler: start iter is invalid so it has been changed to 0. "
                            "(0.900, 3)\n"));
    EXPECT_EQ(msgs[1], Line("  Profiler: end iter is invalid(3) so it has been changed to 0. "
                            "(0.900, 3)\n"));
    EXPECT_EQ(msgs[2], Line("* print result of iter(0~0)\n"));
    EXPECT_EQ(msgs[4], Line("* " + Cells({" [0th]"}) + "\n"));
    EXPECT_EQ(msgs[5], Line("  String size is big(16). Timevalue(1000000000000009) might be too "
                            "big. so stop print. (limit:15)\n"));
    EXPECT_EQ(msgs[6], Line("* ============  Result: modelId(0x0000000000000042)  unit(us) "
                            "iter(       1)  =============\n"));
    // The average keeps a 32-bit total: 10^15 + 9 wraps to 2764472329, read back negative.
    EXPECT_TRUE(
            log.contains(Line("*       18446744072179056640.0          1000000000000009        "
                              "1000000000000009    TOTAL\n")));
    EXPECT_TRUE(log.contains(Line(
            "*                3.0                     3                   3    __INVALID_0x3\n")));

    // A root without iterations fails the summary, which show_output turns into an exception.
    ZelProfiler empty(1, 100, "service", false);
    empty.root = std::make_shared<ProfileNode>(0);
    empty.finalized = true;
    EXPECT_THROW(empty.show_output(true), std::runtime_error);
    EXPECT_TRUE(log.contains(Line("* Wrong 90th index(0)>0\n")));
    EXPECT_TRUE(log.contains(Line("* Fail to show_result_summary\n")));
}

TEST_F(ProfilerTest, FiftyThousandIterationsOfTwelveStagesFinalizeAndReport) {
    ZelProfiler p(0x77, 50000, "service", true);
    for (uint64_t i = 0; i < 50000; ++i) {
        p.add_record_start(TOTAL, 7, i);
        for (ProfileLabel label : {CLIENT, SERVICE, ENGINE, DD, DD_ROOT, FW, HW, NPU_UD, NPU_OP,
                                   CPU_UD, GPU_KERNEL}) {  // eleven in a row inside TOTAL/7
            p.add_record_start(label, 0, i);
            p.add_record_end(label, 0, i);
        }
        p.add_record_end(TOTAL, 7, i);
    }
    ASSERT_EQ(p.finalize(), 0);
    ASSERT_EQ(p.root->children.at(0)->children.size(), 11u);
    log.clear();
    p.show_output(true);
    EXPECT_TRUE(log.contains(Line("* print result of iter(44997~45003)\n")));
    EXPECT_EQ(log.count(Line("* ============  Result: modelId(0x0000000000000077)  unit(us) "
                             "iter(   50000)  =============\n")),
              2u);
}
