// The statistics behind `zel-prof diff`: the Mann-Whitney U test against reference figures, and
// the ranks of the medians it prints. (Its power on a 10 % shift shows in ZelProfTest's diff.)
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "../tools/zel_prof/mann_whitney.h"

namespace {

using zel_prof::MannWhitneyU;

// Reference figures from SciPy 1.10: scipy.stats.mannwhitneyu(x, y, alternative='two-sided')
// with its default method choice and continuity correction.
TEST(ZelProfStatsTest, MatchesReferenceFigures) {
    // clang-format off
    const struct {
        const char* name;
        std::vector<uint64_t> x, y;
        double u, p;
        bool exact;
    } kCases[] = {
        {"exact", {12, 15, 11, 19, 14}, {21, 18, 25, 17, 23, 20}, 2.0, 0.017316017316017316, true},
        {"exact, one small side", {3, 9, 1}, {2, 4, 5, 6, 7, 8, 10, 11, 12, 13}, 7.0,
         0.2167832167832168, true},
        {"exact, interleaved", {5, 1, 9, 7, 3, 11, 13}, {2, 4, 6, 8, 10, 12, 14, 16}, 21.0,
         0.46340326340326343, true},
        {"normal, ties", {10, 10, 11, 12, 12, 12, 13, 14, 15, 15},
         {11, 12, 13, 13, 14, 15, 16, 16, 17, 18, 18, 19}, 23.5, 0.01687887735914733, false},
        {"normal, small with ties", {4, 4, 5}, {5, 6, 6, 7}, 0.5, 0.0692003544198483, false},
        {"all equal", std::vector<uint64_t>(9, 7), std::vector<uint64_t>(10, 7), 45.0, 1.0, false},
    };
    // clang-format on
    for (const auto& c : kCases) {
        const zel_prof::MannWhitneyResult r = MannWhitneyU(c.x, c.y);
        EXPECT_DOUBLE_EQ(c.u, r.u) << c.name;
        EXPECT_NEAR(c.p, r.p, 1e-12) << c.name;
        EXPECT_EQ(c.exact, r.exact) << c.name;
    }
    // 20 + 20 distinct values: SciPy's asymptotic 0.08585487995041037 (exact would be 0.08591).
    std::vector<uint64_t> x, y;
    for (uint64_t i = 0; i < 20; ++i) {
        x.push_back(3 * i);
        y.push_back(3 * i + 10);
    }
    EXPECT_NEAR(0.08585487995041037, MannWhitneyU(x, y).p, 1e-12);
    EXPECT_DOUBLE_EQ(136.0, MannWhitneyU(x, y).u);
}

TEST(ZelProfStatsTest, MedianAndPercentileUseTheReportsRanks) {
    const std::vector<uint64_t> ten = {9, 1, 8, 2, 7, 3, 6, 4, 5, 10};
    EXPECT_EQ(6u, zel_prof::Median(ten));         // rank 5 of 10: the upper median
    EXPECT_EQ(10u, zel_prof::Percentile90(ten));  // rank 9
    EXPECT_EQ(4u, zel_prof::Median({4}));
    EXPECT_EQ(4u, zel_prof::Percentile90({4}));
}

}  // namespace
