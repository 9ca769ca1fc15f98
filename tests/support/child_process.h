// Runs code in a forked child process, for state a process fixes on first use. The wait is
// bounded and the child dies with the process that forked it, so a fault fails a test instead of
// hanging it.
#pragma once

#include <functional>
#include <string>

namespace zel_test {

// Longest a test waits for its child: far above any case's run under sanitizers or emulation.
constexpr int kChildTimeoutSeconds = 300;

// Runs `body` in a child and returns the text it returned; a child that crashes, exits early or
// outlasts the timeout (then killed, status -1) yields "<child failed: status N> ...", so that
// the caller's comparison fails.
std::string RunInChild(const std::function<std::string()>& body);

}  // namespace zel_test
