// Runs the registered benchmarks and then prints each declared ratio of two of them, measured in
// the same run: this machine is shared and noisy, so only side-by-side ratios are meaningful.
#pragma once

#include <string>
#include <vector>

namespace zel_bench {

struct Ratio {
    std::string label;
    std::string measured;  // benchmark name, as Google Benchmark reports it
    std::string baseline;  // benchmark name
    double target;         // the ratio it should stay within (<= 0: report only)
};

// Use as main(): parses the usual benchmark flags, runs, prints the ratios. Returns 0.
// default_flags are parsed before the command line's, which may override them. When a benchmark
// is repeated, its ratio uses the median of the repetitions' mean times.
int RunWithRatios(int argc, char** argv, const std::vector<Ratio>& ratios,
                  const std::vector<std::string>& default_flags = {});

}  // namespace zel_bench
