#include "support/ratio_reporter.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>

namespace zel_bench {

namespace {

// Console output as usual, plus the real time per iteration (ns) of every run.
class RecordingReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.iterations > 0 && run.run_type == Run::RT_Iteration) {
                ns_[run.benchmark_name()] =
                        run.real_accumulated_time * 1e9 / static_cast<double>(run.iterations);
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }
    const std::map<std::string, double>& ns() const { return ns_; }

  private:
    std::map<std::string, double> ns_;
};

}  // namespace

int RunWithRatios(int argc, char** argv, const std::vector<Ratio>& ratios) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    RecordingReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();

    printf("\n%-52s %10s  %s\n", "ratio (measured / baseline, real time)", "value", "target");
    for (const Ratio& ratio : ratios) {
        auto measured = reporter.ns().find(ratio.measured);
        auto baseline = reporter.ns().find(ratio.baseline);
        if (measured == reporter.ns().end() || baseline == reporter.ns().end() ||
            baseline->second <= 0) {
            printf("%-52s %10s\n", ratio.label.c_str(), "not run");
            continue;
        }
        const double value = measured->second / baseline->second;
        if (ratio.target > 0) {
            printf("%-52s %9.2fx  <= %.2fx %s\n", ratio.label.c_str(), value, ratio.target,
                   value <= ratio.target ? "ok" : "MISSED");
        } else {
            printf("%-52s %9.2fx\n", ratio.label.c_str(), value);
        }
    }
    return 0;
}

}  // namespace zel_bench
