// Subcommands of zel-prof. Each registers itself on the CLI11 app.
#pragma once

#include <CLI/CLI.hpp>

namespace zel_prof {

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
