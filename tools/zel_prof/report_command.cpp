// `zel-prof report FILE`: both reports of a raw-data file as exported on a device, or its
// per-stage figures as CSV or JSON for programs.
#include <cstdio>
#include <exception>
#include <string>

#include <nlohmann/json.hpp>

#include "zel_prof/commands.h"
#include "zel_prof/rawdata_file.h"
#include "zel_prof/stage_table.h"
#include "zel_prof/stdout_logger.h"

namespace zel_prof {

namespace {

struct ReportOptions {
    RawDataFileOptions file;
    std::string format = "text";
};

nlohmann::ordered_json FiguresJson(const SummaryFigures& figures) {
    return {{"avg", figures.average},
            {"median", figures.median},
            {"90%", figures.p90},
            {"min", figures.min},
            {"max", figures.max}};
}

std::string FiguresCsv(const SummaryFigures& figures) {
    char line[160];
    snprintf(line, sizeof(line), "%.1f,%llu,%llu,%llu,%llu", figures.average,
             static_cast<unsigned long long>(figures.median),
             static_cast<unsigned long long>(figures.p90),
             static_cast<unsigned long long>(figures.min),
             static_cast<unsigned long long>(figures.max));
    return line;
}

// Per stage: self-time figures as the text summary prints them, then the same for the stage's
// whole time. Times in microseconds.
int PrintMachineReport(const RawDataProfile& loaded, const std::string& format) {
    StageTable table;
    std::string error;
    if (!BuildStageTable(*loaded.profiler, &table, &error)) {
        fprintf(stderr, "report: %s\n", error.c_str());
        return 1;
    }
    if (format == "csv") {
        printf("path,iterations,avg,median,90%%,min,max,time_avg,time_median,time_90%%,time_min,"
               "time_max\n");
        for (const Stage& stage : table.stages) {
            printf("%s,%llu,%s,%s\n", stage.path.c_str(),
                   static_cast<unsigned long long>(table.iterations),
                   FiguresCsv(Summarize(table, stage.self_time)).c_str(),
                   FiguresCsv(Summarize(table, stage.time)).c_str());
        }
    } else {
        char model[24];
        snprintf(model, sizeof(model), "0x%016llx", static_cast<unsigned long long>(loaded.key));
        nlohmann::ordered_json stages = nlohmann::ordered_json::array();
        for (const Stage& stage : table.stages) {
            stages.push_back({{"path", stage.path},
                              {"name", stage.name},
                              {"depth", stage.depth},
                              {"label", zel::util::ZelProfiler::labelToString(
                                                static_cast<zel::util::ProfileLabel>(stage.label))},
                              {"postfix", stage.postfix},
                              {"iterations", table.iterations},
                              {"self", FiguresJson(Summarize(table, stage.self_time))},
                              {"time", FiguresJson(Summarize(table, stage.time))}});
        }
        const nlohmann::ordered_json report = {{"modelId", model},
                                               {"unit", "us"},
                                               {"iterations", table.iterations},
                                               {"records_per_iteration", loaded.counts.labels},
                                               {"median_iteration", table.median_iteration},
                                               {"p90_iteration", table.p90_iteration},
                                               {"stages", stages}};
        printf("%s\n", report.dump(2).c_str());
    }
    fflush(stdout);
    return 0;
}

int RunReport(const ReportOptions& options) {
    InstallStdoutLogger(options.file.verbose);
    std::string error;
    const RawDataProfile loaded = LoadRawDataProfile(options.file.path, options.file.counts,
                                                     options.file.given_key(), &error);
    if (loaded.profiler == nullptr) {
        fprintf(stderr, "report: %s\n", error.c_str());
        return 1;
    }
    if (options.format != "text") return PrintMachineReport(loaded, options.format);
    printf("%s: %zu bytes, %llu iterations x %llu records, modelId 0x%llx\n",
           options.file.path.c_str(), loaded.bytes,
           static_cast<unsigned long long>(loaded.counts.iterations),
           static_cast<unsigned long long>(loaded.counts.labels),
           static_cast<unsigned long long>(loaded.key));
    try {
        ReportScope report;
        loaded.profiler->show_output(true);
    } catch (const std::exception& failure) {
        // The summary fails when its iterations cannot be ranked.
        fprintf(stderr, "report: %s", failure.what());
        return 1;
    }
    fflush(stdout);
    return 0;
}

}  // namespace

void AddReportCommand(CLI::App& app) {
    static ReportOptions options;
    CLI::App* command = app.add_subcommand(
            "report", "Print the summary and multi-record reports of a raw-data file");
    AddRawDataFileOptions(command, options.file, "Model id printed in the report");
    command->add_option("--format,-f", options.format,
                        "text: the library's reports; csv or json: per-stage figures")
            ->check(CLI::IsMember({"text", "csv", "json"}))
            ->capture_default_str();
    command->callback([] {
        const int status = RunReport(options);
        if (status != 0) throw CLI::RuntimeError(status);
    });
}

}  // namespace zel_prof
