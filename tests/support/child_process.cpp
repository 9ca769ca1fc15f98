#include "support/child_process.h"

#include <sys/wait.h>
#include <unistd.h>

namespace zel_test {

std::string RunInChild(const std::function<std::string()>& body) {
    int pipe_fds[2];
    if (pipe(pipe_fds) != 0) return "<child failed: pipe>";
    pid_t pid = fork();
    if (pid < 0) return "<child failed: fork>";
    if (pid == 0) {
        close(pipe_fds[0]);
        const std::string result = body();
        size_t done = 0;
        while (done < result.size()) {
            ssize_t n = write(pipe_fds[1], result.data() + done, result.size() - done);
            if (n <= 0) _exit(2);
            done += static_cast<size_t>(n);
        }
        _exit(0);
    }
    close(pipe_fds[1]);
    std::string result;
    char chunk[4096];
    ssize_t n;
    while ((n = read(pipe_fds[0], chunk, sizeof(chunk))) > 0)
        result.append(chunk, n);
    close(pipe_fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        return "<child failed: status " + std::to_string(status) + "> " + result;
    }
    return result;
}

}  // namespace zel_test
