// `zel-prof demo`: starts the driver and client processes, runs the service in this one, and
// reports how the three ended.
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "util/zel_utils_profiler_device.h"
#include "zel_prof/commands.h"
#include "zel_prof/demo.h"
#include "zel_prof/stdout_logger.h"

namespace zel_prof {

namespace {

// Runs `role` in a child process on `sock`; the other descriptors of the parent are closed.
pid_t StartRole(int sock, int close_a, int close_b, int (*role)(int, const demo::DemoOptions&),
                const demo::DemoOptions& options) {
    fflush(nullptr);
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid != 0) return pid;
    // A role never outlives the demo: killed or crashed, it takes its children down with it.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(1);
    close(close_a);
    close(close_b);
    const int status = role(sock, options);
    fflush(nullptr);
    _exit(status);
}

int DriverRole(int sock, const demo::DemoOptions&) {
    return demo::RunDriver(sock);
}

// True when the child exited with status 0; says otherwise.
bool Finished(pid_t pid, const char* role) {
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) return false;
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return true;
    fprintf(stderr, "%s process ended with status 0x%x\n", role, status);
    return false;
}

int RunDemo(const demo::DemoOptions& options) {
    InstallStdoutLogger(options.verbose);
    if (options.iterations == 0 || options.ops == 0) {
        fprintf(stderr, "demo: --iterations and --ops must be at least 1\n");
        return 2;
    }
    if (options.iterations > zel::util::ZelDeviceProfiler::kMaxIterLimit) {
        fprintf(stderr, "demo: at most %llu iterations\n",
                static_cast<unsigned long long>(zel::util::ZelDeviceProfiler::kMaxIterLimit));
        return 2;
    }
    printf("zel-prof demo: model %llu, %llu inferences of %u NPU operations, mode 0x%llx\n",
           static_cast<unsigned long long>(options.model_id),
           static_cast<unsigned long long>(options.iterations), options.ops,
           static_cast<unsigned long long>(options.mode));
    printf("  processes: client (API, CLIENT) -> service (SERVICE, ENGINE, CPU_UD, NPU_UD, DD) "
           "-> driver (device stages)\n");

    int client_pair[2];
    int driver_pair[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, client_pair) != 0 ||
        socketpair(AF_UNIX, SOCK_SEQPACKET, 0, driver_pair) != 0) {
        perror("demo: socketpair");
        return 1;
    }
    // Both children start before the service touches the profiler, so that neither inherits
    // its state.
    const pid_t driver =
            StartRole(driver_pair[1], client_pair[0], client_pair[1], DriverRole, options);
    const pid_t client =
            StartRole(client_pair[1], driver_pair[0], driver_pair[1], demo::RunClient, options);
    close(driver_pair[1]);
    close(client_pair[1]);
    if (driver < 0 || client < 0) {
        perror("demo: fork");
        return 1;
    }
    const int service = demo::RunService(client_pair[0], driver_pair[0], options);
    close(client_pair[0]);
    close(driver_pair[0]);
    const bool client_ok = Finished(client, "client");
    const bool driver_ok = Finished(driver, "driver");
    return service == 0 && client_ok && driver_ok ? 0 : 1;
}

}  // namespace

void AddDemoCommand(CLI::App& app) {
    static demo::DemoOptions options;
    CLI::App* command = app.add_subcommand(
            "demo", "Run a profiled model across client, service and driver processes");
    command->add_option("--iterations,-n", options.iterations, "Inferences to run")
            ->capture_default_str();
    command->add_option("--mode", options.mode,
                        "Profiling mode bits: 0x1 on, 0x2 detail, 0x4 skip client, 0x8 skip "
                        "service, 0x10 skip driver, 0x40 fast track")
            ->capture_default_str();
    command->add_option("--ops", options.ops, "NPU operations per inference")
            ->capture_default_str();
    command->add_option("--model", options.model_id, "Model id")->capture_default_str();
    command->add_flag("--verbose,-v", options.verbose, "Show every library log line");
    command->add_option("--trace", options.trace_path,
                        "Also write the merged profile as a timeline (Trace Event Format JSON)");
    command->add_option("--html", options.html_path,
                        "Also write the merged profile as a self-contained HTML page");
    command->callback([] {
        const int status = RunDemo(options);
        if (status != 0) throw CLI::RuntimeError(status);
    });
}

}  // namespace zel_prof
