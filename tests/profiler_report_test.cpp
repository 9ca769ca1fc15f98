// Profiler reports: the multi-record table and the summary, line for line.
#include <gtest/gtest.h>

#include <climits>

#include "profiler_test_util.h"

using namespace zel::util;
using namespace profiler_test;
using ProfilerReportTest = Fixture;

namespace {
std::string Cells(const std::vector<std::string>& cells) {
    std::string line;
    for (const auto& cell : cells)
        line += std::string(18 - cell.size(), ' ') + cell;
    return line;
}
// The log lines of `texts`; "T:" and "S:" stand for the banners of the table and of the summary
// (with its heading) of model 0x42 over the iterations that follow, "T=" and "S=" for the rules.
std::vector<std::string> Lines(const std::vector<std::string>& texts) {
    const std::string model = "  Result: modelId(0x0000000000000042)  unit(us) iter(";
    std::vector<std::string> lines;
    for (const std::string& text : texts) {
        const std::string tag = text.substr(0, 2), iter = text.substr(2);
        if (tag == "T:") {
            lines.push_back("* " + std::string(43, '=') + model + iter + ")  " +
                            std::string(46, '=') + "\n");
        } else if (tag == "S:") {
            lines.push_back("* ============" + model + iter + ")  =============\n");
            lines.push_back(
                    "*              <avg>              <median>               <90%>   "
                    "<label>\n");
        } else if (tag == "T=" || tag == "S=") {
            lines.push_back("* " + std::string(tag == "T=" ? 157 : 89, '=') + "\n");
        } else {
            lines.push_back(text);
        }
    }
    for (std::string& line : lines)
        line = zel_test::Line(line);
    return lines;
}
// TOTAL/7 { NPU_OP/0x1f }, TOTAL/7 lasting totals[i] and NPU_OP 20 less.
std::unique_ptr<ZelProfiler> Finalized(const std::vector<uint64_t>& totals) {
    std::vector<ZelProfileData> r;
    for (uint64_t i = 0, t = 0; i < totals.size(); ++i, t += 1000) {
        r.insert(r.end(),
                 {Start(TOTAL, 7, t, i), Start(NPU_OP, 0x1f, t + 10, i),
                  End(NPU_OP, 0x1f, t + totals[i] - 10, i), End(TOTAL, 7, t + totals[i], i)});
    }
    auto p = FromRecords(r, totals.size(), 4);
    EXPECT_EQ(p->finalize(), 0);
    return p;
}
}  // namespace

TEST_F(ProfilerReportTest, ReportsLineForLine) {
    // Ascending, the totals stand at iterations 3 1 7 5 9 0 8 4 6 2.
    auto p = Finalized({150, 110, 190, 100, 170, 130, 180, 120, 160, 140});
    log.clear();
    p->show_output(false);
    EXPECT_EQ(log.messages(), Lines({"* Output show flag OFF. Skip print profile\n"}));
    log.clear();
    p->show_output(true);
    // Ranks 6..9 are iterations 8, 4, 6, 2; the median is iteration 0, the 90% iteration 2.
    const std::string heading = "* " + Cells({" [6th]", " [7th]", " [8th]", " [9th]"}) + "\n";
    const std::string stage = Cells({"140", "150", "160", "170"});
    const std::string avg = "*              125.0                   130                 170    ";
    EXPECT_EQ(
            log.messages(),
            Lines({"  Profiler: end iter is invalid(12) so it has been changed to 9. (0.900, 3)\n",
                   "* print result of iter(6~9)\n", "T:      10", heading,
                   "*  " + Cells({"160", "170", "180", "190"}) + " TOTAL\n", "T:      10", heading,
                   "*  " + stage + " _TOTAL_0x7\n", "*  " + stage + " __NPU_OP_0x1f\n",
                   "T=", "T=", "S:      10",
                   "*              145.0                   150                 190    TOTAL\n",
                   "S:      10", avg + "_TOTAL_0x7\n", avg + "__NPU_OP_0x1f\n", "S=", "S="}));
    // Four iterations: the range starts at 0 exactly, without a correction.
    auto four = Finalized({150, 110, 190, 100});
    log.clear();
    EXPECT_EQ(four->show_result_multi_records(0.9f, 3), 0);
    EXPECT_EQ(log.messages().at(1), Lines({"* print result of iter(0~3)\n"})[0]);
}

TEST_F(ProfilerReportTest, EdgeCasesAndRefusals) {
    // One iteration, a 16-digit self time, a label above 25: the table stops after its heading;
    // the summary's average comes from a 32-bit total read back negative.
    const uint64_t big = 1000000000000000ULL;
    auto p = FromRecords({Start(TOTAL, 7, 0), Start(API, 0, 1), End(API, 0, big + 1),
                          Start(40, 3, big + 2), End(40, 3, big + 5), End(TOTAL, 7, big + 9)},
                         1, 6);
    ASSERT_EQ(p->finalize(), 0);
    log.clear();
    p->show_output(true);
    const std::string huge = "*       18446744072179056640.0          100000000000000";
    EXPECT_EQ(log.messages(),
              Lines({"  Profiler: start iter is invalid so it has been changed to 0. (0.900, 3)\n",
                     "  Profiler: end iter is invalid(3) so it has been changed to 0. (0.900, 3)\n",
                     "* print result of iter(0~0)\n", "T:       1", "* " + Cells({" [0th]"}) + "\n",
                     "  String size is big(16). Timevalue(1000000000000009) might be too big. so "
                     "stop print. (limit:15)\n",
                     "S:       1", huge + "9        1000000000000009    TOTAL\n", "S:       1",
                     huge + "3        1000000000000003    _TOTAL_0x7\n",
                     huge + "0        1000000000000000    __API\n",
                     "*                3.0                     3                   3    "
                     "__INVALID_0x3\n",
                     "S=", "S="}));
    // Ranks and iteration columns beyond the iterations are refused.
    EXPECT_EQ(p->show_result_nth_nodes(0, INT_MAX, p->root) +
                      p->show_result_nth_nodes(-1, 0, p->root),
              2);
    log.clear();
    p->show_records_7columns(0, {0}, {1}, p->root);
    p->show_records_7columns(0, {0}, {0}, p->root);
    EXPECT_EQ(log.count(Lines({"* Wrong iteration columns. ranks(1) indices(1)\n"})[0]), 1u);
    // A root without iterations fails the summary, which show_output turns into an exception.
    ZelProfiler empty(1, 100, "service", false);
    empty.root = std::make_shared<ProfileNode>(0);
    empty.finalized = true;
    EXPECT_THROW(empty.show_output(true), std::runtime_error);
    for (const std::string& line :
         Lines({"* Fail to find biggest indices vector\n", "* Wrong 90th index(0)>0\n",
                "* Fail to show_result_summary\n"}))
        EXPECT_TRUE(log.contains(line)) << line;
    empty.num_iter = 1;  // counted, yet without times: refused once
    log.clear();
    EXPECT_EQ(empty.show_result_summary(), 1);
    EXPECT_EQ(log.messages(), Lines({"* Fail to get median. rank(0)\n"}));
}
