// `zel-prof trace FILE -o OUT`: a raw-data file as a timeline in Trace Event Format JSON, to be
// opened in Perfetto UI or chrome://tracing.
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "util/zel_utils_profiler.h"
#include "util/zel_utils_profiler_trace.h"
#include "zel_prof/commands.h"
#include "zel_prof/rawdata_file.h"
#include "zel_prof/stdout_logger.h"

namespace zel_prof {

namespace {

struct TraceOptions {
    std::string path;
    std::string output;
    RawDataCounts counts;
    uint64_t key = 0;
    bool key_given = false;
    bool verbose = false;
};

int RunTrace(const TraceOptions& options) {
    InstallStdoutLogger(options.verbose);
    std::vector<uint8_t> bytes;
    std::string error;
    RawDataCounts counts = options.counts;
    if (!ReadRawDataFile(options.path, &bytes, &error) || !InferCounts(bytes, &counts, &error)) {
        fprintf(stderr, "trace: %s\n", error.c_str());
        return 1;
    }
    const uint64_t key = options.key_given ? options.key : KeyFromFileName(options.path);
    try {
        zel::util::ZelProfiler profiler(key, bytes.data(), bytes.size(), counts.iterations,
                                        counts.iterations, counts.labels);
        if (profiler.finalize() != 0 || !profiler.finalized) {
            fprintf(stderr, "trace: the records do not form a profile\n");
            return 1;
        }
        if (zel::util::export_trace_to_file(profiler, options.output.c_str()) != 0) {
            fprintf(stderr, "trace: cannot write %s\n", options.output.c_str());
            return 1;
        }
    } catch (const std::exception& failure) {
        std::string reason = failure.what();
        while (!reason.empty() && reason.back() == '\n')
            reason.pop_back();
        fprintf(stderr, "trace: the records do not form a profile (%s)\n", reason.c_str());
        return 1;
    }
    printf("%s: %llu iterations x %llu records, modelId 0x%llx -> %s\n", options.path.c_str(),
           static_cast<unsigned long long>(counts.iterations),
           static_cast<unsigned long long>(counts.labels), static_cast<unsigned long long>(key),
           options.output.c_str());
    fflush(stdout);
    return 0;
}

}  // namespace

void AddTraceCommand(CLI::App& app) {
    static TraceOptions options;
    CLI::App* command = app.add_subcommand(
            "trace", "Write a raw-data file as a timeline (Trace Event Format JSON)");
    command->add_option("file", options.path, "Raw-data file (profile_rawdata_<key>.bin)")
            ->required();
    command->add_option("--output,-o", options.output, "Trace file to write (JSON)")->required();
    command->add_option("--iterations,-n", options.counts.iterations,
                        "Iterations in the file (derived from the records when not given)");
    command->add_option("--labels,-l", options.counts.labels,
                        "Records per iteration (derived from the records when not given)");
    command->add_option("--key,-k", options.key,
                        "Model id of the trace's process (default: from the file name)")
            ->each([](const std::string&) { options.key_given = true; });
    command->add_flag("--verbose,-v", options.verbose, "Show every library log line");
    command->callback([] {
        const int status = RunTrace(options);
        if (status != 0) throw CLI::RuntimeError(status);
    });
}

}  // namespace zel_prof
