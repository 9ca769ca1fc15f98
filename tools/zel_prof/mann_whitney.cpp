#include "mann_whitney.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace zel_prof {

namespace {

constexpr size_t kExactMaxSmallSample = 8;

// P(U >= u) under the null hypothesis for samples of sizes m and n without ties. The number of
// arrangements giving each U is the coefficient of the Gaussian binomial [m+n choose m] in q,
// built as the product over i = 1..m of (1 - q^(n+i)) / (1 - q^i).
double ExactUpperTail(size_t m, size_t n, size_t u) {
    if (m > n) std::swap(m, n);
    const size_t top = m * n;
    std::vector<double> counts(top + 1, 0.0);
    counts[0] = 1.0;
    for (size_t i = 1; i <= m; ++i) {
        for (size_t k = top; k >= n + i; --k)  // times (1 - q^(n+i))
            counts[k] -= counts[k - n - i];
        for (size_t k = i; k <= top; ++k)  // divided by (1 - q^i)
            counts[k] += counts[k - i];
    }
    double total = 0;
    double tail = 0;
    for (size_t k = 0; k <= top; ++k) {
        total += counts[k];
        if (k >= u) tail += counts[k];
    }
    return tail / total;
}

}  // namespace

MannWhitneyResult MannWhitneyU(const std::vector<uint64_t>& x, const std::vector<uint64_t>& y) {
    MannWhitneyResult result;
    const size_t n1 = x.size();
    const size_t n2 = y.size();
    if (n1 == 0 || n2 == 0) return result;

    // Mid-ranks over both samples, and the sum of t^3 - t over the groups of tied values.
    std::vector<std::pair<uint64_t, bool>> all;  // value, from x
    all.reserve(n1 + n2);
    for (uint64_t v : x)
        all.emplace_back(v, true);
    for (uint64_t v : y)
        all.emplace_back(v, false);
    std::sort(all.begin(), all.end());
    double rank_sum_x = 0;
    double tie_term = 0;
    for (size_t begin = 0; begin < all.size();) {
        size_t end = begin + 1;
        while (end < all.size() && all[end].first == all[begin].first)
            ++end;
        const double mid_rank = (begin + 1 + end) / 2.0;
        for (size_t k = begin; k < end; ++k)
            if (all[k].second) rank_sum_x += mid_rank;
        const double t = static_cast<double>(end - begin);
        tie_term += t * t * t - t;
        begin = end;
    }
    const double nn = static_cast<double>(n1) * static_cast<double>(n2);
    result.u = rank_sum_x - n1 * (n1 + 1) / 2.0;
    const double u_big = std::max(result.u, nn - result.u);

    if (std::min(n1, n2) <= kExactMaxSmallSample && tie_term == 0) {
        result.exact = true;
        result.p = 2 * ExactUpperTail(n1, n2, static_cast<size_t>(u_big));
    } else {
        const double n = static_cast<double>(n1 + n2);
        const double variance = nn / 12 * ((n + 1) - tie_term / (n * (n - 1)));
        if (variance <= 0) {  // every value equal: no evidence of any difference
            result.p = 1;
            return result;
        }
        const double z = (u_big - nn / 2 - 0.5) / std::sqrt(variance);
        result.p = std::erfc(z / std::sqrt(2.0));  // 2 * upper normal tail
    }
    result.p = std::min(1.0, std::max(0.0, result.p));
    return result;
}

uint64_t ValueAtRank(std::vector<uint64_t> values, uint64_t rank) {
    rank = std::min<uint64_t>(rank, values.size() - 1);
    std::nth_element(values.begin(), values.begin() + rank, values.end());
    return values[rank];
}

uint64_t Median(const std::vector<uint64_t>& values) {
    return ValueAtRank(values, values.size() / 2);
}

uint64_t Percentile90(const std::vector<uint64_t>& values) {
    return ValueAtRank(values, static_cast<uint64_t>(values.size() * 0.9));
}

}  // namespace zel_prof
