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
using Ints = std::vector<int>;

TEST(KthSelection, RanksCountFromTheSmallestWithTiesByIndex) {
    std::vector<uint64_t> values = {30, 10, 20};
    Ints indices = {-7};  // results are appended
    EXPECT_EQ(0, find_kth_biggest_indices_in_vector(values, {0, 1, 2}, indices));
    EXPECT_EQ((Ints{-7, 1, 2, 0}), indices);

    std::vector<uint64_t> same = {5, 5, 5}, big = {~0ull, 1, 1ull << 63};
    int index = -1;
    EXPECT_EQ(0, find_kth_biggest_index_in_vector(same, 1, index));
    EXPECT_EQ(1, index);
    EXPECT_EQ(0, find_kth_biggest_index_in_vector(big, 2, index));  // compared unsigned
    EXPECT_EQ(0, index);

    // Against a stable sort, on series with many equal values.
    std::mt19937_64 rng(7);
    for (int round = 0; round < 20; ++round) {
        std::vector<uint64_t> series(20 + rng() % 300);
        for (auto& v : series)
            v = rng() % 16;
        Ints order(series.size());
        std::iota(order.begin(), order.end(), 0);
        std::stable_sort(order.begin(), order.end(),
                         [&](int a, int b) { return series[a] < series[b]; });
        const int n = static_cast<int>(series.size());
        const Ints ranks = {0, n / 4, n / 2, n * 9 / 10, n - 1};
        Ints found, expected;
        for (int rank : ranks)
            expected.push_back(order[rank]);
        ASSERT_EQ(0, find_kth_biggest_indices_in_vector(series, ranks, found));
        EXPECT_EQ(expected, found) << "n=" << n;
    }
}

TEST(KthSelection, RankOrderRulesAndTraces) {
    std::vector<uint64_t> values = {40, 10, 30, 20, 50};
    LogCapture log;
    Ints indices;
    EXPECT_EQ(1, find_kth_biggest_indices_in_vector(values, {2, 1}, indices));
    EXPECT_EQ(Ints{2}, indices);
    EXPECT_EQ(std::vector<std::string>{Line("* input k_value vector is not ordered. 2,1\n")},
              log.messages());
    indices.clear();
    EXPECT_EQ(0, find_kth_biggest_indices_in_vector(values, {1, 1}, indices));
    EXPECT_EQ(0, find_kth_biggest_indices_in_vector(values, {4, 4}, indices));  // heap runs out
    EXPECT_EQ(0, find_kth_biggest_indices_in_vector(values, {0, 3, -1}, indices));
    EXPECT_EQ((Ints{3, 4}), indices);

    auto* manager = zel::debug::DbgPrintManager::GetInstance();
    const uint64_t saved = manager->get_print_mask();
    manager->set_mask(0xF);
    log.clear();
    int index = -1;
    EXPECT_EQ(0, find_kth_biggest_index_in_vector(values, 1, index));
    manager->set_mask(saved);
    EXPECT_EQ((std::vector<std::string>{Line("  [0] time(10)\n"), Line("  [1] time(20)\n"),
                                        Line("  \tFound! -->[1]=3 time(20)\n")}),
              log.messages());
}

TEST(KthSelection, UnanswerableInputsFailWithoutTouchingResults) {
    std::vector<uint64_t> values = {3, 1, 2}, none;
    Ints indices;
    int index = 42;
    LogCapture log;
    EXPECT_EQ(1, find_kth_biggest_indices_in_vector(none, {0}, indices));
    EXPECT_EQ(1, find_kth_biggest_indices_in_vector(values, {}, indices));
    EXPECT_EQ(1, find_kth_biggest_indices_in_vector(values, {0, 3}, indices));
    EXPECT_EQ(1, find_kth_biggest_indices_in_vector(values, {5, 1}, indices));
    EXPECT_TRUE(indices.empty());
    EXPECT_EQ(1, find_kth_biggest_index_in_vector(values, -1, index));
    EXPECT_EQ(1, find_kth_biggest_index_in_vector(values, 3, index));
    EXPECT_EQ(42, index);
    EXPECT_TRUE(log.contains(Line("* k value(3) is out of range, size(3)\n")));
    EXPECT_TRUE(log.contains(Line("* Fail to find biggest index for k=-1\n")));
    EXPECT_TRUE(log.contains(Line("* Fail to find biggest index for k=3\n")));
    for (const std::string& message : log.messages())
        EXPECT_EQ(0u, message.find("2.1.17: * "));
}

}  // namespace
