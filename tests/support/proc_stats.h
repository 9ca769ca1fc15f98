// Process resource counts, to check that operations give back what they take.
#pragma once

namespace zel_test {

// Open descriptors of this process (entries of /proc/self/fd, less the one used to list it).
int CountOpenFds();
// Mappings of memfd-backed memory (device buffers and imports on a host), not cached by allocators.
int CountMemfdMappings();

}  // namespace zel_test
