// Runs code in forked child processes: for state a process fixes on first use, and for the
// other end of a descriptor hand-over. Every wait is bounded, and a child never outlives the
// process that forked it, so a fault fails a test instead of hanging it.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

namespace zel_test {

// Longest a test waits for one child: far above any case's run under sanitizers or emulation.
constexpr int kChildTimeoutSeconds = 300;

// Forks a child that runs `body` and exits with its result. The child is killed when the process
// that forked it dies. Returns the child's pid, or -1.
pid_t ForkChild(const std::function<int()>& body);

// Waits for `pid` up to `seconds`; past that it kills the child. True when the child exited with
// status 0.
bool WaitChild(pid_t pid, int seconds = kChildTimeoutSeconds);

// Forks, runs `body` in the child and returns the text it returned. A child that crashes, exits
// early or outlasts the timeout yields "<child failed: ...>" so that the caller's comparison
// fails visibly.
std::string RunInChild(const std::function<std::string()>& body);

}  // namespace zel_test
