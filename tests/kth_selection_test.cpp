// Rank selection: ties, several ranks, the walk's stop and traces, ranks out of order or outside.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "support/log_capture.h"
#include "util/zel_utils_algo.h"

namespace {

using zel_test::Line;
using Ints = std::vector<int>;
using Lines = std::vector<std::string>;

// One call under mask 0xF (zone 3 traced) or 3, left set: result, indices after -7, log lines.
std::tuple<int, Ints, Lines> Select(std::vector<uint64_t> values, const Ints& ranks, bool traced) {
    zel::debug::DbgPrintManager::GetInstance()->set_mask(traced ? 0xF : 0x3);
    zel_test::LogCapture log;
    Ints indices = {-7};
    const int result = zel::util::algo::find_kth_biggest_indices_in_vector(values, ranks, indices);
    return {result, indices, log.messages()};
}

TEST(KthSelectionTest, RanksCountFromTheSmallestWithTiesByIndex) {
    EXPECT_EQ((Ints{-7, 0}), std::get<1>(Select({~0ull, 1, 1ull << 63}, {2}, false)));
    std::mt19937_64 rng(7);  // against a sort of the pairs, ranks spread and clustered, many ties
    for (int round = 0; round < 40; ++round) {
        std::vector<uint64_t> series(8 + rng() % 400);
        std::vector<std::pair<uint64_t, int>> sorted;
        for (auto& v : series)
            sorted.emplace_back(v = rng() % 16, static_cast<int>(sorted.size()));
        std::sort(sorted.begin(), sorted.end());
        const int n = static_cast<int>(series.size()), at = static_cast<int>(rng() % n);
        Ints ranks = {0, n / 4, n / 2, n / 2 + 1, n / 2 + 2, n - 1}, expected = {-7};
        for (int rank : ranks)
            expected.push_back(sorted[rank].second);
        EXPECT_EQ(expected, std::get<1>(Select(series, ranks, round % 2))) << n;
        int index = -1;
        EXPECT_EQ(0, zel::util::algo::find_kth_biggest_index_in_vector(series, at, index));
        EXPECT_EQ(sorted[at].second, index);
    }
}

TEST(KthSelectionTest, WalkStopsAfterTheLastRankAndRefusesRanksOutOfOrderOrOutside) {
    std::vector<uint64_t> values = {40, 10, 30, 20, 50};
    Lines walk = {Line("  [0] time(10)\n"), Line("  [1] time(20)\n"),
                  Line("  \tFound! -->[1]=3 time(20)\n")};
    EXPECT_EQ(walk, std::get<2>(Select(values, {1, 1}, true)));  // a repeat costs no step
    walk.insert(walk.end(), {Line("  [2] time(30)\n"), Line("  [3] time(40)\n")});
    EXPECT_EQ(walk, std::get<2>(Select(values, {1, 1, 3}, true)));  // waits for the repeat
    const std::string U = "* input k_value vector is not ordered. ";
    // clang-format off
    const std::tuple<Ints, int, Ints, std::string> cases[] = {
            {{1, 1, 3}, 0, {-7, 3}, ""}, {{4, 4}, 0, {-7, 4}, ""}, {{0, 3, -1}, 0, {-7}, ""},
            {{2, 1}, 1, {-7, 2}, U + "2,1\n"}, {{1, 4, 2}, 1, {-7, 3, 4}, U + "4,2\n"},
            {{3, 3, 1}, 1, {-7, 0}, U + "4,3\n"}, {{-1, 2, 0}, 1, {-7}, U + "3,-1\n"},
            {{}, 1, {-7}, "* no k value to find\n"}};
    // clang-format on
    for (const auto& [ranks, result, indices, error] : cases)
        for (bool traced : {true, false}) {  // traced, only the walk's last line is checked
            const auto [got, found, log] = Select(values, ranks, traced);
            const std::string last = log.empty() ? "" : log.back();
            const std::string want = !error.empty() ? Line(error) : traced ? last : "";
            EXPECT_EQ(std::make_tuple(result, indices, want), std::make_tuple(got, found, last));
        }
    EXPECT_EQ(std::make_tuple(1, Ints{-7}, Lines{Line("* no value to select from\n")}),
              Select({}, {0}, false));
    int index = 42;
    zel_test::LogCapture log;
    EXPECT_EQ(2, zel::util::algo::find_kth_biggest_index_in_vector(values, -1, index) +
                         zel::util::algo::find_kth_biggest_index_in_vector(values, 5, index));
    EXPECT_EQ(42, index);
    EXPECT_EQ(3u, log.messages().size());  // the k=5 one after the range refusal
    EXPECT_EQ(Line("* Fail to find biggest index for k=5\n"), log.messages().back());
}

}  // namespace
