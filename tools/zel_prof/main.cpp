// zel-prof: the library's command-line front end.
#include <CLI/CLI.hpp>

#include "zel_prof/commands.h"

int main(int argc, char** argv) {
    CLI::App app{
            "zel-prof: configuration, profiling demo, profile reports, comparisons and traces of "
            "libzel_common_utils"};
    app.require_subcommand(1);
    zel_prof::AddConfigCommand(app);
    zel_prof::AddDemoCommand(app);
    zel_prof::AddDiffCommand(app);
    zel_prof::AddHtmlCommand(app);
    zel_prof::AddReportCommand(app);
    zel_prof::AddTraceCommand(app);
    CLI11_PARSE(app, argc, argv);
    return 0;
}
