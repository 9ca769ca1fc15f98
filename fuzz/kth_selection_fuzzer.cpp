// K-th selection with fuzzed values and rank lists. Whatever the ranks, the call must not read
// outside the values, and every index it hands back must be the one that stands at that rank in
// the ascending (value, index) order.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <utility>
#include <vector>

#include "fuzz_support.h"
#include "util/zel_utils_algo.h"

namespace {

[[noreturn]] void Fail(const char* what) {
    std::fprintf(stderr, "kth_selection_fuzzer: %s\n", what);
    std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    zel_fuzz::QuietLogs(in.ConsumeBool());

    // Few distinct values make ties, where the index decides the order.
    const bool narrow = in.ConsumeBool();
    std::vector<uint64_t> values(in.ConsumeIntegralInRange<size_t>(0, 300));
    for (uint64_t& value : values)
        value = narrow ? in.ConsumeIntegralInRange<uint64_t>(0, 3) : in.ConsumeIntegral<uint64_t>();
    const int n = static_cast<int>(values.size());
    std::vector<int> ranks(in.ConsumeIntegralInRange<size_t>(0, 12));
    for (int& rank : ranks)
        rank = in.ConsumeBool() ? in.ConsumeIntegralInRange(-2, n + 1) : in.ConsumeIntegral<int>();
    if (in.ConsumeBool()) std::sort(ranks.begin(), ranks.end());

    std::vector<std::pair<uint64_t, int>> sorted;
    for (int i = 0; i < n; ++i)
        sorted.emplace_back(values[i], i);
    std::sort(sorted.begin(), sorted.end());

    const std::vector<uint64_t> before = values;
    std::vector<int> indices = {-7};  // results are appended after what is there
    const ZelReturn result =
            zel::util::algo::find_kth_biggest_indices_in_vector(values, ranks, indices);
    if (values != before) Fail("values changed");
    if (indices.empty() || indices.front() != -7) Fail("existing indices touched");
    indices.erase(indices.begin());

    // Each answer is the element of some asked rank, and answers come in rank order.
    std::vector<int> asked;
    for (int rank : ranks) {
        if (rank >= 0 && rank < n) asked.push_back(rank);
    }
    size_t next = 0;
    for (int index : indices) {
        while (next < asked.size() && sorted[asked[next]].second != index)
            ++next;
        if (next == asked.size()) Fail("index is not the element of an asked rank");
        ++next;
    }
    // Ascending ranks inside the values are answered up to the first repeated rank: the walk
    // waits for the repeat, which it has already passed, until it ends after the last rank.
    const bool ascending = std::is_sorted(ranks.begin(), ranks.end());
    const bool inside = !ranks.empty() && asked.size() == ranks.size();
    if (ascending && inside) {
        size_t answered = 1;
        while (answered < asked.size() && asked[answered] != asked[answered - 1])
            ++answered;
        if (result != 0 || indices.size() != answered) Fail("ascending ranks not answered");
    }

    if (!ranks.empty()) {
        int index = -1;
        const int rank = ranks.front();
        const ZelReturn single =
                zel::util::algo::find_kth_biggest_index_in_vector(values, rank, index);
        if (rank >= 0 && rank < n) {
            if (single != 0 || index != sorted[rank].second) Fail("single rank answered wrongly");
        } else if (single == 0) {
            Fail("rank outside the values answered");
        }
    }
    return 0;
}
