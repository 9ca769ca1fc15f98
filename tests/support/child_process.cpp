#include "support/child_process.h"

#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

namespace zel_test {

// Reaps `pid` within `seconds`, killing it once they have passed. The wait status, or -1.
static int Reap(pid_t pid, int seconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    int status = 0;
    while (waitpid(pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() >= deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return status;
}

pid_t ForkChild(const std::function<int()>& body) {
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid != 0) return pid;
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // no orphan keeps CTest's output pipe open
    _exit(getppid() == parent ? body() : 127);
}

bool WaitChild(pid_t pid, int seconds) {
    const int status = pid < 0 ? -1 : Reap(pid, seconds);
    return status >= 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

std::string RunInChild(const std::function<std::string()>& body) {
    // The child writes its text into memory shared with this process, so that it never waits
    // for a reader.
    const int fd = memfd_create("zel_child_result", MFD_CLOEXEC);
    const pid_t pid = fd < 0 ? -1 : ForkChild([&] {
        const std::string text = body();
        return write(fd, text.data(), text.size()) == ssize_t(text.size()) ? 0 : 2;
    });
    const int status = pid < 0 ? -2 : Reap(pid, kChildTimeoutSeconds);
    std::string text(fd < 0 ? 0 : lseek(fd, 0, SEEK_END), '\0');
    if (fd >= 0 && pread(fd, &text[0], text.size(), 0) < 0) text.clear();
    if (fd >= 0) close(fd);
    if (status >= 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0) return text;
    return "<child failed: status " + std::to_string(status) + "> " + text;
}

}  // namespace zel_test
