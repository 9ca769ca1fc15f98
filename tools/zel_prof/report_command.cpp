// `zel-prof report FILE`: both reports of a raw-data file as exported on a device.
#include <cstdio>
#include <exception>
#include <string>

#include "zel_prof/commands.h"
#include "zel_prof/rawdata_file.h"
#include "zel_prof/stdout_logger.h"

namespace zel_prof {

namespace {

struct ReportOptions {
    std::string path;
    RawDataCounts counts;
    uint64_t key = 0;
    bool key_given = false;
    bool verbose = false;
};

int RunReport(const ReportOptions& options) {
    InstallStdoutLogger(options.verbose);
    std::string error;
    const RawDataProfile loaded = LoadRawDataProfile(
            options.path, options.counts, options.key_given ? &options.key : nullptr, &error);
    if (loaded.profiler == nullptr) {
        fprintf(stderr, "report: %s\n", error.c_str());
        return 1;
    }
    printf("%s: %zu bytes, %llu iterations x %llu records, modelId 0x%llx\n", options.path.c_str(),
           loaded.bytes, static_cast<unsigned long long>(loaded.counts.iterations),
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
    command->add_option("file", options.path, "Raw-data file (profile_rawdata_<key>.bin)")
            ->required();
    command->add_option("--iterations,-n", options.counts.iterations,
                        "Iterations in the file (derived from the records when not given)");
    command->add_option("--labels,-l", options.counts.labels,
                        "Records per iteration (derived from the records when not given)");
    command->add_option("--key,-k", options.key,
                        "Model id printed in the report (default: "
                        "from the file name)")
            ->each([](const std::string&) { options.key_given = true; });
    command->add_flag("--verbose,-v", options.verbose, "Show every library log line");
    command->callback([] {
        const int status = RunReport(options);
        if (status != 0) throw CLI::RuntimeError(status);
    });
}

}  // namespace zel_prof
