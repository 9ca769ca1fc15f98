// `zel-prof trace FILE -o OUT`: a raw-data file as a timeline in Trace Event Format JSON, to be
// opened in Perfetto UI or chrome://tracing.
#include <cstdio>
#include <string>

#include "util/zel_utils_profiler_trace.h"
#include "zel_prof/commands.h"
#include "zel_prof/rawdata_file.h"
#include "zel_prof/stdout_logger.h"

namespace zel_prof {

namespace {

struct TraceOptions {
    RawDataFileOptions file;
    std::string output;
};

int RunTrace(const TraceOptions& options) {
    InstallStdoutLogger(options.file.verbose);
    std::string error;
    const RawDataProfile loaded = LoadRawDataProfile(options.file.path, options.file.counts,
                                                     options.file.given_key(), &error);
    if (loaded.profiler == nullptr) {
        fprintf(stderr, "trace: %s\n", error.c_str());
        return 1;
    }
    if (zel::util::export_trace_to_file(*loaded.profiler, options.output.c_str()) != 0) {
        fprintf(stderr, "trace: cannot write %s\n", options.output.c_str());
        return 1;
    }
    printf("%s: %llu iterations x %llu records, modelId 0x%llx -> %s\n", options.file.path.c_str(),
           static_cast<unsigned long long>(loaded.counts.iterations),
           static_cast<unsigned long long>(loaded.counts.labels),
           static_cast<unsigned long long>(loaded.key), options.output.c_str());
    fflush(stdout);
    return 0;
}

}  // namespace

void AddTraceCommand(CLI::App& app) {
    static TraceOptions options;
    CLI::App* command = app.add_subcommand(
            "trace", "Write a raw-data file as a timeline (Trace Event Format JSON)");
    AddRawDataFileOptions(command, options.file, "Model id of the trace's process");
    command->add_option("--output,-o", options.output, "Trace file to write (JSON)")->required();
    command->callback([] {
        const int status = RunTrace(options);
        if (status != 0) throw CLI::RuntimeError(status);
    });
}

}  // namespace zel_prof
