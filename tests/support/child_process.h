// Runs code in a forked child process: for state a process fixes on first use, and for the
// other end of a descriptor hand-over.
#pragma once

#include <functional>
#include <string>

namespace zel_test {

// Forks, runs `body` in the child and returns the text it returned. A child that crashes or
// exits early yields "<child failed: ...>" so that the caller's comparison fails visibly.
std::string RunInChild(const std::function<std::string()>& body);

}  // namespace zel_test
