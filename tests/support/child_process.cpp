#include "support/child_process.h"

#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

namespace zel_test {

std::string RunInChild(const std::function<std::string()>& body) {
    // The child writes its text into memory shared with this process, so that it never waits
    // for a reader.
    const int fd = memfd_create("zel_child_result", MFD_CLOEXEC);
    const pid_t parent = getpid();
    const pid_t pid = fd < 0 ? -1 : fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);  // no orphan keeps CTest's output pipe open
        if (getppid() != parent) _exit(127);
        const std::string text = body();
        _exit(write(fd, text.data(), text.size()) == ssize_t(text.size()) ? 0 : 2);
    }
    int status = -2;
    const auto deadline =
            std::chrono::steady_clock::now() + std::chrono::seconds(kChildTimeoutSeconds);
    while (pid > 0 && waitpid(pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() >= deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            status = -1;
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    std::string text(fd < 0 ? 0 : lseek(fd, 0, SEEK_END), '\0');
    if (fd >= 0 && pread(fd, &text[0], text.size(), 0) < 0) text.clear();
    if (fd >= 0) close(fd);
    if (status >= 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0) return text;
    return "<child failed: status " + std::to_string(status) + "> " + text;
}

}  // namespace zel_test
