// K-th selection, traced or not, against a plain walk over the sorted (value, index) pairs.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "fuzz_support.h"
#include "util/zel_utils_algo.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    zel_fuzz::QuietLogs(in.ConsumeBool());
    const uint64_t spread = in.ConsumeBool() ? 4 : ~0ull;  // few distinct values make ties
    std::vector<uint64_t> values(in.ConsumeIntegralInRange<size_t>(0, 300));
    std::vector<std::pair<uint64_t, int>> sorted;
    for (uint64_t& value : values)
        sorted.emplace_back(value = in.ConsumeIntegral<uint64_t>() % spread, sorted.size());
    std::sort(sorted.begin(), sorted.end());
    const int n = static_cast<int>(values.size());
    std::vector<int> ranks(in.ConsumeIntegralInRange<size_t>(0, 12)), expected = {-7}, got = {-7};
    for (int& rank : ranks)
        rank = in.ConsumeBool() ? in.ConsumeIntegralInRange(-2, n + 1) : in.ConsumeIntegral<int>();
    if (in.ConsumeBool()) std::sort(ranks.begin(), ranks.end());

    // A rank below the one just answered is refused; ranks not ascending are refused at the end.
    const int top = ranks.empty() ? n : *std::max_element(ranks.begin(), ranks.end());
    int result = n == 0 || top >= n ? 1 : ranks.back() < 0 ? 0 : -1;
    for (int step = 0, next = 0; result < 0 && step <= top; ++step) {
        if (step != ranks[next]) continue;
        expected.push_back(sorted[step].second);
        result = ++next == static_cast<int>(ranks.size()) ? 0 : ranks[next] < step ? 1 : -1;
    }
    if (result < 0) result = std::is_sorted(ranks.begin(), ranks.end()) ? 0 : 1;
    const std::vector<uint64_t> before = values;
    if (zel::util::algo::find_kth_biggest_indices_in_vector(values, ranks, got) != result ||
        got != expected || values != before)
        std::abort();
    return 0;
}
