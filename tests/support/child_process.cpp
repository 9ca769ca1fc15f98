#include "support/child_process.h"

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

namespace zel_test {

namespace {

using Clock = std::chrono::steady_clock;

int MillisecondsLeft(Clock::time_point deadline) {
    const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

// Reaps `pid` by `deadline`, killing it once the deadline has passed. The wait status, or -1.
int Reap(pid_t pid, Clock::time_point deadline) {
    int status = 0;
    while (waitpid(pid, &status, WNOHANG) == 0) {
        if (MillisecondsLeft(deadline) == 0) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return status;
}

}  // namespace

pid_t ForkChild(const std::function<int()>& body) {
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid != 0) return pid;
    // Dies with the test process, so no orphan keeps CTest's output pipe open.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(127);
    _exit(body());
}

bool WaitChild(pid_t pid, int seconds) {
    if (pid < 0) return false;
    const int status = Reap(pid, Clock::now() + std::chrono::seconds(seconds));
    return status >= 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

std::string RunInChild(const std::function<std::string()>& body) {
    int pipe_fds[2];
    if (pipe(pipe_fds) != 0) return "<child failed: pipe>";
    const pid_t pid = ForkChild([&] {
        close(pipe_fds[0]);
        const std::string result = body();
        size_t done = 0;
        while (done < result.size()) {
            ssize_t n = write(pipe_fds[1], result.data() + done, result.size() - done);
            if (n <= 0) return 2;
            done += static_cast<size_t>(n);
        }
        return 0;
    });
    close(pipe_fds[1]);
    if (pid < 0) {
        close(pipe_fds[0]);
        return "<child failed: fork>";
    }
    const auto deadline = Clock::now() + std::chrono::seconds(kChildTimeoutSeconds);
    std::string result;
    char chunk[4096];
    pollfd readable{pipe_fds[0], POLLIN, 0};
    while (poll(&readable, 1, MillisecondsLeft(deadline)) > 0) {
        const ssize_t n = read(pipe_fds[0], chunk, sizeof(chunk));
        if (n <= 0) break;
        result.append(chunk, n);
    }
    close(pipe_fds[0]);
    const int status = Reap(pid, deadline);
    if (status < 0) return "<child failed: no answer in time> " + result;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        return "<child failed: status " + std::to_string(status) + "> " + result;
    }
    return result;
}

}  // namespace zel_test
