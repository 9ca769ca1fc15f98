// `zel-prof diff BASE NEW`: compares two raw-data files stage by stage. Stages are matched by
// their path in the stage tree; for each one the medians and 90th percentiles of both sides, the
// change of the median and a two-sided Mann-Whitney U test over the per-iteration values decide
// whether the change is real.
#include <cmath>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "zel_prof/commands.h"
#include "zel_prof/mann_whitney.h"
#include "zel_prof/rawdata_file.h"
#include "zel_prof/stage_table.h"
#include "zel_prof/stdout_logger.h"

namespace zel_prof {

namespace {

// Exit statuses: 1 is kept for a regression above --fail-above, so that a CI job can tell a
// slower build from a broken comparison.
constexpr int kRegression = 1;
constexpr int kFailure = 2;

struct DiffOptions {
    std::string base_path;
    std::string new_path;
    double alpha = 0.05;
    double fail_above = -1;  // negative: never fail
    std::string format = "text";
    bool verbose = false;
};

// One stage's comparison for one measure (its time or its self time).
struct Comparison {
    uint64_t base_median = 0, base_p90 = 0, new_median = 0, new_p90 = 0;
    double change = NAN;  // percent; NaN when the base median is 0
    MannWhitneyResult test;
    bool significant = false;
};

struct MatchedStage {
    const Stage* base;
    const Stage* next;
    Comparison time;
    Comparison self;
};

Comparison Compare(const std::vector<uint64_t>& base, const std::vector<uint64_t>& next,
                   double alpha) {
    Comparison c;
    c.base_median = Median(base);
    c.base_p90 = Percentile90(base);
    c.new_median = Median(next);
    c.new_p90 = Percentile90(next);
    if (c.base_median != 0) {
        c.change = (static_cast<double>(c.new_median) - static_cast<double>(c.base_median)) *
                   100.0 / static_cast<double>(c.base_median);
    }
    c.test = MannWhitneyU(base, next);
    c.significant = c.test.p < alpha;
    return c;
}

bool Load(const std::string& path, RawDataProfile* loaded, StageTable* table) {
    std::string error;
    *loaded = LoadRawDataProfile(path, RawDataCounts{}, nullptr, &error);
    if (loaded->profiler == nullptr || !BuildStageTable(*loaded->profiler, table, &error)) {
        fprintf(stderr, "diff: %s: %s\n", path.c_str(), error.c_str());
        return false;
    }
    return true;
}

// Paths, made unique where a parent holds the same stage twice.
std::vector<std::string> UniquePaths(const StageTable& table) {
    std::vector<std::string> paths;
    std::map<std::string, int> seen;
    for (const Stage& stage : table.stages) {
        const int count = ++seen[stage.path];
        paths.push_back(count == 1 ? stage.path : stage.path + "#" + std::to_string(count));
    }
    return paths;
}

std::string ChangeText(const Comparison& c) {
    if (std::isnan(c.change)) return "n/a";
    if (!c.significant) return "~";
    char text[32];
    snprintf(text, sizeof(text), "%+.2f%%", c.change);
    return text;
}

nlohmann::ordered_json ComparisonJson(const Comparison& c) {
    nlohmann::ordered_json change = nullptr;
    if (!std::isnan(c.change)) change = c.change;
    return {{"base_median", c.base_median},
            {"base_90%", c.base_p90},
            {"new_median", c.new_median},
            {"new_90%", c.new_p90},
            {"change_pct", change},
            {"u", c.test.u},
            {"p", c.test.p},
            {"exact", c.test.exact},
            {"significant", c.significant}};
}

std::string ComparisonCsv(const Comparison& c) {
    char line[256];
    snprintf(line, sizeof(line), "%llu,%llu,%llu,%llu,%s,%.1f,%.6g,%d",
             static_cast<unsigned long long>(c.base_median),
             static_cast<unsigned long long>(c.base_p90),
             static_cast<unsigned long long>(c.new_median),
             static_cast<unsigned long long>(c.new_p90),
             std::isnan(c.change) ? "" : std::to_string(c.change).c_str(), c.test.u, c.test.p,
             c.significant ? 1 : 0);
    return line;
}

void PrintTextTable(const char* title, const std::vector<MatchedStage>& matched,
                    Comparison MatchedStage::*measure, size_t base_n, size_t new_n) {
    size_t width = 5;
    for (const MatchedStage& m : matched)
        width = std::max(width, m.base->depth + m.base->name.size());
    printf("%s\n", title);
    printf("  %-*s  %12s %12s  %12s %12s  %9s  %s\n", static_cast<int>(width), "stage",
           "base median", "base 90%", "new median", "new 90%", "change", "p");
    for (const MatchedStage& m : matched) {
        const Comparison& c = m.*measure;
        const std::string name = std::string(m.base->depth, '_') + m.base->name;
        printf("  %-*s  %12llu %12llu  %12llu %12llu  %9s  p=%.3f n=%zu+%zu\n",
               static_cast<int>(width), name.c_str(),
               static_cast<unsigned long long>(c.base_median),
               static_cast<unsigned long long>(c.base_p90),
               static_cast<unsigned long long>(c.new_median),
               static_cast<unsigned long long>(c.new_p90), ChangeText(c).c_str(), c.test.p, base_n,
               new_n);
    }
}

int RunDiff(const DiffOptions& options) {
    InstallStdoutLogger(options.verbose);
    if (!(options.alpha > 0 && options.alpha < 1)) {
        fprintf(stderr, "diff: --alpha must lie between 0 and 1\n");
        return kFailure;
    }
    RawDataProfile base_profile, new_profile;
    StageTable base, next;
    if (!Load(options.base_path, &base_profile, &base) ||
        !Load(options.new_path, &new_profile, &next)) {
        return kFailure;
    }

    const std::vector<std::string> base_paths = UniquePaths(base);
    const std::vector<std::string> new_paths = UniquePaths(next);
    std::map<std::string, size_t> new_index;
    for (size_t i = 0; i < new_paths.size(); ++i)
        new_index[new_paths[i]] = i;
    std::vector<MatchedStage> matched;
    std::vector<std::string> removed, added;
    std::map<std::string, bool> in_base;
    for (size_t i = 0; i < base_paths.size(); ++i) {
        in_base[base_paths[i]] = true;
        const auto found = new_index.find(base_paths[i]);
        if (found == new_index.end()) {
            removed.push_back(base_paths[i]);
            continue;
        }
        const Stage& b = base.stages[i];
        const Stage& n = next.stages[found->second];
        matched.push_back({&b, &n, Compare(b.time, n.time, options.alpha),
                           Compare(b.self_time, n.self_time, options.alpha)});
    }
    for (const std::string& path : new_paths)
        if (in_base.count(path) == 0) added.push_back(path);
    // The top of the tree always matches; below it the profiles must share a stage.
    if (matched.size() < 2) {
        fprintf(stderr,
                "diff: the profiles have no stage in common (%s has %zu stages, %s has %zu): "
                "not the same model?\n",
                options.base_path.c_str(), base.stages.size() - 1, options.new_path.c_str(),
                next.stages.size() - 1);
        return kFailure;
    }

    if (options.format == "json") {
        nlohmann::ordered_json stages = nlohmann::ordered_json::array();
        for (const MatchedStage& m : matched) {
            stages.push_back({{"path", m.base->path},
                              {"time", ComparisonJson(m.time)},
                              {"self", ComparisonJson(m.self)}});
        }
        const nlohmann::ordered_json report = {
                {"unit", "us"},
                {"alpha", options.alpha},
                {"base", {{"file", options.base_path}, {"iterations", base.iterations}}},
                {"new", {{"file", options.new_path}, {"iterations", next.iterations}}},
                {"stages", stages},
                {"added", added},
                {"removed", removed}};
        printf("%s\n", report.dump(2).c_str());
    } else if (options.format == "csv") {
        std::string header = "path,status";
        for (const char* measure : {"time_", "self_"}) {
            for (const char* column : {"base_median", "base_90%", "new_median", "new_90%",
                                       "change_pct", "u", "p", "significant"})
                header = header + "," + measure + column;
        }
        printf("%s\n", header.c_str());
        for (const MatchedStage& m : matched) {
            printf("%s,matched,%s,%s\n", m.base->path.c_str(), ComparisonCsv(m.time).c_str(),
                   ComparisonCsv(m.self).c_str());
        }
        for (const std::string& path : added)
            printf("%s,added%s\n", path.c_str(), std::string(16, ',').c_str());
        for (const std::string& path : removed)
            printf("%s,removed%s\n", path.c_str(), std::string(16, ',').c_str());
    } else {
        printf("base %s (%llu iterations), new %s (%llu iterations); unit(us), alpha %g, "
               "\"~\": no significant change\n",
               options.base_path.c_str(), static_cast<unsigned long long>(base.iterations),
               options.new_path.c_str(), static_cast<unsigned long long>(next.iterations),
               options.alpha);
        PrintTextTable("time", matched, &MatchedStage::time, base.iterations, next.iterations);
        PrintTextTable("self time", matched, &MatchedStage::self, base.iterations, next.iterations);
        for (const std::string& path : added)
            printf("added    %s\n", path.c_str());
        for (const std::string& path : removed)
            printf("removed  %s\n", path.c_str());
    }
    fflush(stdout);

    int status = 0;
    if (options.fail_above >= 0) {
        for (const MatchedStage& m : matched) {
            if (m.time.significant && !std::isnan(m.time.change) &&
                m.time.change > options.fail_above) {
                fprintf(stderr, "diff: %s regressed by %+.2f%% (p=%.3g), above %g%%\n",
                        m.base->path.c_str(), m.time.change, m.time.test.p, options.fail_above);
                status = kRegression;
            }
        }
    }
    return status;
}

}  // namespace

void AddDiffCommand(CLI::App& app) {
    static DiffOptions options;
    CLI::App* command = app.add_subcommand(
            "diff", "Compare two raw-data files stage by stage (medians, Mann-Whitney U test)");
    command->add_option("base", options.base_path, "Raw-data file of the baseline")->required();
    command->add_option("new", options.new_path, "Raw-data file to compare with it")->required();
    command->add_option("--alpha", options.alpha,
                        "Significance level of the two-sided Mann-Whitney U test")
            ->capture_default_str();
    command->add_option("--fail-above", options.fail_above,
                        "Exit with 1 when a stage's median time grew significantly by more "
                        "than this many percent");
    command->add_option("--format,-f", options.format, "Output format")
            ->check(CLI::IsMember({"text", "csv", "json"}))
            ->capture_default_str();
    command->add_flag("--verbose,-v", options.verbose, "Show every library log line");
    command->footer(
            "Exit status: 0 done, 1 a significant regression above --fail-above, 2 the files "
            "cannot be compared.");
    command->callback([] {
        const int status = RunDiff(options);
        if (status != 0) throw CLI::RuntimeError(status);
    });
}

}  // namespace zel_prof
