// Subcommands of zel-prof. Each registers itself on the CLI11 app.
#pragma once

#include <CLI/CLI.hpp>

#include <string>

#include "zel_prof/rawdata_file.h"

namespace zel_prof {

// The raw-data file of a command that reads one, and the counts that override what its records
// imply.
inline void AddRawDataFileOptions(CLI::App* command, std::string& path, RawDataCounts& counts) {
    command->add_option("file", path, "Raw-data file (profile_rawdata_<key>.bin)")->required();
    command->add_option("--iterations,-n", counts.iterations,
                        "Iterations in the file (derived from the records when not given)");
    command->add_option("--labels,-l", counts.labels,
                        "Records per iteration (derived from the records when not given)");
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
