#include "support/ratio_reporter.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>

namespace zel_bench {

namespace {

// Console output as usual, plus the real and CPU time per iteration (ns) of every run: the median
// over repetitions when there are several, else the single run's mean.
class RecordingReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.iterations <= 0) continue;
            const double per = 1e9 / static_cast<double>(run.iterations);
            const Times ns = {run.real_accumulated_time * per, run.cpu_accumulated_time * per};
            if (run.run_type == Run::RT_Iteration)
                single_ns_[run.run_name.str()] = ns;
            else if (run.aggregate_name == "median")
                median_ns_[run.run_name.str()] = ns;
        }
        ConsoleReporter::ReportRuns(runs);
    }
    struct Times {
        double real;
        double cpu;
    };
    // Times per iteration of the named benchmark, negative when it did not run.
    Times ns(const std::string& name) const {
        auto median = median_ns_.find(name);
        if (median != median_ns_.end()) return median->second;
        auto single = single_ns_.find(name);
        return single != single_ns_.end() ? single->second : Times{-1, -1};
    }

  private:
    std::map<std::string, Times> single_ns_;
    std::map<std::string, Times> median_ns_;
};

}  // namespace

int RunWithRatios(int argc, char** argv, const std::vector<Ratio>& ratios,
                  const std::vector<std::string>& default_flags) {
    std::vector<char*> args{argv[0]};
    for (const std::string& flag : default_flags)
        args.push_back(const_cast<char*>(flag.c_str()));
    args.insert(args.end(), argv + 1, argv + argc);
    int count = static_cast<int>(args.size());
    args.push_back(nullptr);
    benchmark::Initialize(&count, args.data());
    if (benchmark::ReportUnrecognizedArguments(count, args.data())) return 1;
    RecordingReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();

    // The target is judged on real time; CPU time is shown beside it because on a loaded machine
    // it is the steadier of the two (it leaves out the time spent waiting for a core).
    printf("\n%-52s %10s %10s  %s\n", "ratio (measured / baseline)", "real time", "CPU time",
           "target (real)");
    for (const Ratio& ratio : ratios) {
        const auto measured = reporter.ns(ratio.measured);
        const auto baseline = reporter.ns(ratio.baseline);
        if (measured.real < 0 || baseline.real <= 0) {
            printf("%-52s %10s\n", ratio.label.c_str(), "not run");
            continue;
        }
        const double value = measured.real / baseline.real;
        const double cpu = baseline.cpu > 0 ? measured.cpu / baseline.cpu : 0;
        if (ratio.target > 0) {
            printf("%-52s %9.2fx %9.2fx  <= %.2fx %s\n", ratio.label.c_str(), value, cpu,
                   ratio.target, value <= ratio.target ? "ok" : "MISSED");
        } else {
            printf("%-52s %9.2fx %9.2fx\n", ratio.label.c_str(), value, cpu);
        }
    }
    return 0;
}

}  // namespace zel_bench
