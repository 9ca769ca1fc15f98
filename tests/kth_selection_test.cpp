// Rank selection: tie order, several ranks in one pass, out-of-order ranks and refused inputs.
#include "util/zel_utils_algo.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <random>

#include "support/log_capture.h"

namespace {

using zel::util::algo::find_kth_biggest_index_in_vector;
using zel::util::algo::find_kth_biggest_indices_in_vector;
using zel_test::Line;
using zel_test::LogCapture;

TEST(KthSelection, RanksCountFromTheSmallestWithTiesByIndex) {
    std::vector<uint64_t> values = {30, 10, 20};
    std::vector<int> indices = {-7};  // results are appended, not replacing
    EXPECT_EQ(0, find_kth_biggest_indices_in_vector(values, {0, 1, 2}, indices));
    EXPECT_EQ((std::vector<int>{-7, 1, 2, 0}), indices);
    EXPECT_EQ((std::vector<uint64_t>{30, 10, 20}), values);

    std::vector<uint64_t> same = {5, 5, 5};
    int index = -1;
    EXPECT_EQ(0, find_kth_biggest_index_in_vector(same, 1, index));
    EXPECT_EQ(1, index);

    // Values above 2^63 must compare unsigned.
    std::vector<uint64_t> big = {~0ull, 1, 1ull << 63};
    EXPECT_EQ(0, find_kth_biggest_index_in_vector(big, 2, index));
    EXPECT_EQ(0, index);
}

TEST(KthSelection, TracesEachStepWhenDebugIsOn) {
    auto* manager = zel::debug::DbgPrintManager::GetInstance();
    const uint64_t saved = manager->get_print_mask();
    manager->set_mask(0xF);
    std::vector<uint64_t> values = {30, 10, 20};
    int index = -1;
    LogCapture log;
    EXPECT_EQ(0, find_kth_biggest_index_in_vector(values, 1, index));
    manager->set_mask(saved);
    EXPECT_EQ((std::vector<std::string>{Line("  [0] time(10)\n"), Line("  [1] time(20)\n"),
                                        Line("  \tFound! -->[1]=2 time(20)\n")}),
              log.messages());
}

TEST(KthSelection, MatchesAStableSortOnRandomSeries) {
    std::mt19937_64 rng(7);
    for (int round = 0; round < 20; ++round) {
        std::vector<uint64_t> values(20 + rng() % 300);
        for (auto& v : values)
            v = rng() % 16;  // many ties
        std::vector<int> order(values.size());
        std::iota(order.begin(), order.end(), 0);
        std::stable_sort(order.begin(), order.end(),
                         [&](int a, int b) { return values[a] < values[b]; });
        const int n = static_cast<int>(values.size());
        const std::vector<int> ranks = {0, n / 4, n / 2, n * 9 / 10, n - 1};
        std::vector<int> indices;
        ASSERT_EQ(0, find_kth_biggest_indices_in_vector(values, ranks, indices));
        std::vector<int> expected;
        for (int rank : ranks)
            expected.push_back(order[rank]);
        EXPECT_EQ(expected, indices) << "n=" << n;
    }
}

TEST(KthSelection, RankOrderRules) {
    std::vector<uint64_t> values = {40, 10, 30, 20, 50};
    LogCapture log;

    std::vector<int> indices;
    EXPECT_EQ(1, find_kth_biggest_indices_in_vector(values, {2, 1}, indices));
    EXPECT_EQ((std::vector<int>{2}), indices);
    EXPECT_TRUE(log.contains(Line("* input k_value vector is not ordered. 2,1\n")));

    indices.clear();
    EXPECT_EQ(0, find_kth_biggest_indices_in_vector(values, {1, 1}, indices));
    EXPECT_EQ((std::vector<int>{3}), indices);

    indices.clear();
    EXPECT_EQ(0, find_kth_biggest_indices_in_vector(values, {4, 4}, indices));  // ends at the top
    EXPECT_EQ((std::vector<int>{4}), indices);

    indices.clear();
    EXPECT_EQ(0, find_kth_biggest_indices_in_vector(values, {0, 3, -1}, indices));
    EXPECT_TRUE(indices.empty());
}

TEST(KthSelection, UnanswerableInputsFailWithoutTouchingResults) {
    std::vector<uint64_t> values = {3, 1, 2};
    std::vector<uint64_t> none;
    std::vector<int> indices;
    int index = 42;
    LogCapture log;

    EXPECT_EQ(1, find_kth_biggest_indices_in_vector(none, {0}, indices));
    EXPECT_EQ(1, find_kth_biggest_indices_in_vector(values, {}, indices));
    EXPECT_EQ(1, find_kth_biggest_indices_in_vector(values, {0, 3}, indices));
    EXPECT_EQ(1, find_kth_biggest_indices_in_vector(values, {5, 1}, indices));
    EXPECT_TRUE(indices.empty());
    EXPECT_TRUE(log.contains(Line("* k value(3) is out of range, size(3)\n")));

    log.clear();
    EXPECT_EQ(1, find_kth_biggest_index_in_vector(values, -1, index));
    EXPECT_EQ(1, find_kth_biggest_index_in_vector(values, 3, index));
    EXPECT_EQ(1, find_kth_biggest_index_in_vector(none, 0, index));
    EXPECT_EQ(42, index);
    EXPECT_EQ(1u, log.count(Line("* Fail to find biggest index for k=-1\n")));
    EXPECT_EQ(2u, log.count(Line("* Fail to find biggest index for k=3\n")) +
                          log.count(Line("* Fail to find biggest index for k=0\n")));
    for (const std::string& message : log.messages())
        EXPECT_EQ(0u, message.find("2.1.17: * "));
}

}  // namespace
