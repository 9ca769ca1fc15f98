// `zel-prof demo`: one profiled model run across three real processes. The client records its
// API and CLIENT stages around each request, the service records its stages and asks the driver
// to run each operation, the simulated driver measures its own stages into the device buffers it
// was handed. At the end the client's profile travels to the service as shared memory, the
// device profiles are docked under the service's DD stages, and the merged report is printed.
#pragma once

#include <cstdint>
#include <string>

namespace zel_prof {
namespace demo {

struct DemoOptions {
    uint64_t iterations = 200;
    uint64_t mode = 0x1;
    uint32_t ops = 3;
    uint64_t model_id = 7;
    bool verbose = false;
    std::string trace_path;  // where the service writes the merged profile's timeline, if set
    std::string html_path;   // where the service writes the merged profile's HTML page, if set
};

// Each role runs in its own process; the result is that process's exit status.
int RunDriver(int service_sock);
int RunClient(int service_sock, const DemoOptions& options);
int RunService(int client_sock, int driver_sock, const DemoOptions& options);

}  // namespace demo
}  // namespace zel_prof
