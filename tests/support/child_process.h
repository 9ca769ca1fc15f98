// Runs code in forked child processes: for state a process fixes on first use, and for the other
// end of a descriptor hand-over. Every wait is bounded, and a child dies with the process that
// forked it, so a fault fails a test instead of hanging it.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

namespace zel_test {

// Longest a test waits for one child: far above any case's run under sanitizers or emulation.
constexpr int kChildTimeoutSeconds = 300;

// Forks a child that runs `body` and exits with its result. Returns the child's pid, or -1.
pid_t ForkChild(const std::function<int()>& body);

// Waits for `pid` up to `seconds`, then kills it. True when the child exited with status 0.
bool WaitChild(pid_t pid, int seconds = kChildTimeoutSeconds);

// Runs `body` in a child and returns the text it returned; a child that crashes, exits early or
// outlasts the timeout (status -1) yields "<child failed: status N> ...", so that the caller's
// comparison fails.
std::string RunInChild(const std::function<std::string()>& body);

}  // namespace zel_test
