// Subcommands of zel-prof. Each registers itself on the CLI11 app.
#pragma once

#include <CLI/CLI.hpp>

#include <cstdint>
#include <string>

#include "zel_prof/rawdata_file.h"

namespace zel_prof {

// What a command that reads one raw-data file takes: the file, the counts that override what its
// records imply, the model id to use instead of the file name's, and whether the library's log
// lines are shown.
struct RawDataFileOptions {
    std::string path;
    RawDataCounts counts;
    uint64_t key = 0;
    bool key_given = false;
    bool verbose = false;

    const uint64_t* given_key() const { return key_given ? &key : nullptr; }
};

// Registers those options on `command`; `key_use` says what the model id is used for.
inline void AddRawDataFileOptions(CLI::App* command, RawDataFileOptions& options,
                                  const std::string& key_use) {
    command->add_option("file", options.path, "Raw-data file (profile_rawdata_<key>.bin)")
            ->required();
    command->add_option("--iterations,-n", options.counts.iterations,
                        "Iterations in the file (derived from the records when not given)");
    command->add_option("--labels,-l", options.counts.labels,
                        "Records per iteration (derived from the records when not given)");
    command->add_option("--key,-k", options.key, key_use + " (default: from the file name)")
            ->each([&options](const std::string&) { options.key_given = true; });
    command->add_flag("--verbose,-v", options.verbose, "Show every library log line");
}

// `zel-prof config`: the print mask and zone table this process was configured with.
void AddConfigCommand(CLI::App& app);

// `zel-prof demo`: a profiled model run across client, service and driver processes.
void AddDemoCommand(CLI::App& app);

// `zel-prof diff BASE NEW`: two raw-data files compared stage by stage.
void AddDiffCommand(CLI::App& app);

// `zel-prof html FILE -o OUT`: a raw-data file as a self-contained HTML page.
void AddHtmlCommand(CLI::App& app);

// `zel-prof report FILE`: the reports of a raw-data file.
void AddReportCommand(CLI::App& app);

// `zel-prof trace FILE -o OUT`: a raw-data file as a timeline for trace viewers.
void AddTraceCommand(CLI::App& app);

}  // namespace zel_prof
