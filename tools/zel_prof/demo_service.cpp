// The demo's service process: records its stages for each request, has the driver run each
// operation under a DD stage, takes over the client's profile, docks the device profiles and
// prints the merged report.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <string>

#include "src/common/zel_memory/memory_manager.h"
#include "util/zel_utils_profiler_trace.h"
#include "util/zel_utils_profiler_wrapper.h"
#include "zel_prof/demo.h"
#include "zel_prof/demo_protocol.h"
#include "zel_prof/html_report.h"
#include "zel_prof/stdout_logger.h"

namespace zel_prof {
namespace demo {

using zel::util::ZelProfilerWrapper;

namespace {

constexpr char kRawDataDir[] = "/data/vendor/zel/";

void SpinFor(uint32_t microseconds) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::microseconds(microseconds);
    while (std::chrono::steady_clock::now() < until) {
    }
}

// One request: engine set-up on the CPU, then every operation on the NPU through the driver.
bool RunInference(int driver_sock, uint64_t model, uint64_t i, const DemoOptions& options) {
    ZelProfilerWrapper::profile_from(model, zel::util::SERVICE, 0, i);
    SpinFor(4);
    ZelProfilerWrapper::profile_from(model, zel::util::ENGINE, 0, i);
    ZelProfilerWrapper::profile_from(model, zel::util::CPU_UD, 0, i);
    SpinFor(12);
    ZelProfilerWrapper::profile_until(model, zel::util::CPU_UD, 0, i);
    ZelProfilerWrapper::profile_from(model, zel::util::NPU_UD, 0, i);
    for (uint64_t op = 1; op <= options.ops; ++op) {
        ZelProfilerWrapper::profile_from(model, zel::util::NPU_OP, op, i);
        ZelProfilerWrapper::profile_from(model, zel::util::DD, op, i);
        Message run{};
        run.kind = kRunOp;
        run.op = op;
        run.iteration = i;
        Message done{};
        if (!Send(driver_sock, run) || !Receive(driver_sock, &done) || done.kind != kOpDone) {
            return false;
        }
        ZelProfilerWrapper::profile_until(model, zel::util::DD, op, i);
        ZelProfilerWrapper::profile_until(model, zel::util::NPU_OP, op, i);
    }
    ZelProfilerWrapper::profile_until(model, zel::util::NPU_UD, 0, i);
    ZelProfilerWrapper::profile_until(model, zel::util::ENGINE, 0, i);
    SpinFor(3);
    ZelProfilerWrapper::profile_until(model, zel::util::SERVICE, 0, i);
    return true;
}

// Maps the client's buffer and merges its profile with the service's. The buffer's own size is
// checked against what the client claims before anything is mapped.
void TakeClientProfile(uint64_t model, int fd, uint64_t claimed_size) {
    struct stat st;
    if (fd < 0 || fstat(fd, &st) != 0 || claimed_size < zel::util::kClientProfileHeaderSize ||
        claimed_size > static_cast<uint64_t>(st.st_size) || claimed_size > INT32_MAX) {
        fprintf(stderr, "service: client profile of %llu bytes refused\n",
                static_cast<unsigned long long>(claimed_size));
        return;
    }
    zel::memory::MemoryManager memory;
    const auto size = static_cast<uint32_t>(claimed_size);
    zel::memory::Buffer::sptr buffer;
    try {
        buffer = memory.import_memory(fd, size, size, 0);
    } catch (const std::exception& error) {
        fprintf(stderr, "service: cannot map the client profile: %s\n", error.what());
        return;
    }
    zel::util::ClientProfileHeader header;
    memcpy(&header, buffer->va, sizeof(header));
    auto* rawdata = static_cast<uint8_t*>(buffer->va) + zel::util::kClientProfileHeaderSize;
    const int rawdata_size = static_cast<int>(size - zel::util::kClientProfileHeaderSize);
    if (ZelProfilerWrapper::merge_rawdata_mem_to_profiler(
                model, rawdata, rawdata_size, static_cast<int>(header.num_iter),
                static_cast<int>(header.num_label)) != 0) {
        fprintf(stderr, "service: the client profile could not be merged\n");
    }
}

// Writes the merged raw data where a device keeps it, or else into the temporary directory.
std::string ExportRawData(uint64_t model, std::string* note) {
    std::error_code error;
    std::filesystem::create_directories(kRawDataDir, error);
    if (access(kRawDataDir, W_OK) == 0) {
        const std::string path = ZelProfilerWrapper::export_rawdata_to_file(model);
        if (!path.empty()) return path;
        *note = std::string("could not write into ") + kRawDataDir;
    } else {
        *note = std::string(kRawDataDir) + " is not writable (" + strerror(errno) + ")";
    }
    auto found = ZelProfilerWrapper::profilerMap_.find(model);
    if (found == ZelProfilerWrapper::profilerMap_.end() || !found->second->finalized) return "";
    const zel::util::ZelProfiler& profiler = *found->second;
    const std::string path = (std::filesystem::temp_directory_path(error) /
                              ("profile_rawdata_" + std::to_string(model) + ".bin"))
                                     .string();
    FILE* file = fopen(path.c_str(), "wb");
    if (file == nullptr) {
        *note += std::string("; ") + path + ": " + strerror(errno);
        return "";
    }
    const size_t written = fwrite(profiler.rawdata, 1, profiler.rawdata_size, file);
    const bool ok = fclose(file) == 0 && written == profiler.rawdata_size;
    if (!ok) {
        *note += std::string("; ") + path + ": write failed";
        return "";
    }
    return path;
}

// Writes the model's profile as a timeline; the reason in `note` when it cannot.
bool WriteTrace(uint64_t model, const std::string& path, std::string* note) {
    auto found = ZelProfilerWrapper::profilerMap_.find(model);
    if (found == ZelProfilerWrapper::profilerMap_.end() || found->second == nullptr) {
        *note = "the service holds no profile";
        return false;
    }
    try {
        if (found->second->finalize() != 0 || !found->second->finalized) {
            *note = "the profile cannot be finalized";
            return false;
        }
    } catch (const std::exception&) {
        *note = "the profile cannot be finalized";
        return false;
    }
    if (zel::util::export_trace_to_file(*found->second, path.c_str()) != 0) {
        *note = "cannot write " + path;
        return false;
    }
    return true;
}

}  // namespace

int RunService(int client_sock, int driver_sock, const DemoOptions& options) {
    const uint64_t model = options.model_id;
    ZelProfilerWrapper::initialize(options.mode, options.iterations);
    ZelProfilerWrapper::create_profiler(model);

    for (uint64_t op = 1; op <= options.ops; ++op) {
        zel::util::DeviceProfileInfo info{};
        ZelProfilerWrapper::create_device_profiler(model, op, info);
        if (!info.enable) continue;  // no device profiling in this mode
        Message buffer{};
        buffer.kind = kDeviceBuffer;
        buffer.op = op;
        buffer.detail = info.detail;
        buffer.size = info.size;
        buffer.max_iter = info.max_iter;
        buffer.split_offset = info.split_offset;
        if (!Send(driver_sock, buffer, info.fd)) {
            fprintf(stderr, "service: the driver went away\n");
            return 1;
        }
    }

    int status = 0;
    Message message;
    android::base::unique_fd fd;
    while (Receive(client_sock, &message, &fd)) {
        if (message.kind == kRunIteration) {
            if (!RunInference(driver_sock, model, message.iteration, options)) {
                fprintf(stderr, "service: the driver went away\n");
                status = 1;
                break;
            }
            Message done{};
            done.kind = kIterationDone;
            done.iteration = message.iteration;
            if (!Send(client_sock, done)) break;
            continue;
        }
        if (message.kind == kClientProfile) TakeClientProfile(model, fd.get(), message.size);
        fd.reset();
        Message taken{};
        taken.kind = kProfileTaken;
        Send(client_sock, taken);
        break;
    }
    Message quit{};
    quit.kind = kQuit;
    Send(driver_sock, quit);

    {
        // With the service skipped, each device profile prints its own report here.
        const bool device_reports = ZelProfilerWrapper::printFlagDevice_;
        if (device_reports) printf("\n== device profiles (service process) ==\n");
        if (device_reports) SetReportCapture(true);
        for (uint64_t op = 1; op <= options.ops; ++op)
            ZelProfilerWrapper::merge_device_profiler_to_main_profiler(model, op);
        if (device_reports) SetReportCapture(false);
    }

    const uint64_t iterations = ZelProfilerWrapper::get_profiler_iteration(model);
    const uint64_t labels = ZelProfilerWrapper::get_profiler_num_label(model);
    std::string note;
    const std::string path = iterations != 0 ? ExportRawData(model, &note) : "";
    std::string trace_note = "the service holds no profile";
    const bool traced = !options.trace_path.empty() && iterations != 0 &&
                        WriteTrace(model, options.trace_path, &trace_note);
    if (iterations != 0) {
        printf("\n== merged profile (service process) ==\n");
        ReportScope report;
        ZelProfilerWrapper::remove_profiler(model);
    } else {
        ZelProfilerWrapper::remove_profiler(model);
    }

    if (!path.empty()) {
        if (!note.empty()) printf("\nNote: %s.\n", note.c_str());
        printf("\nRaw data written to %s (%llu iterations x %llu records).\n", path.c_str(),
               static_cast<unsigned long long>(iterations),
               static_cast<unsigned long long>(labels));
        printf("Read it back with: zel-prof report %s --iterations %llu --labels %llu --key %llu\n",
               path.c_str(), static_cast<unsigned long long>(iterations),
               static_cast<unsigned long long>(labels), static_cast<unsigned long long>(model));
    } else if (iterations == 0) {
        printf("\nNo raw data written: the service holds no profile in mode 0x%llx.\n",
               static_cast<unsigned long long>(options.mode));
    } else {
        printf("\nNo raw data written: %s.\n", note.c_str());
    }
    if (!options.html_path.empty()) {
        std::string html_error = "no raw data written";
        const RawDataCounts counts{iterations, labels};
        if (!path.empty() &&
            WriteHtmlReport(path, counts, &model, options.html_path, &html_error)) {
            printf("HTML report written to %s.\n", options.html_path.c_str());
        } else {
            printf("No HTML report written: %s.\n", html_error.c_str());
        }
    }
    if (traced) {
        printf("Timeline written to %s: open it in Perfetto UI or chrome://tracing.\n",
               options.trace_path.c_str());
    } else if (!options.trace_path.empty()) {
        printf("No timeline written: %s.\n", trace_note.c_str());
    }
    fflush(stdout);
    return status;
}

}  // namespace demo
}  // namespace zel_prof
