// Profiler: one model profiled across a client process and a service process, with the device
// driver's timings docked under the service's DD stage and one merged report at the end.
#include <android-base/cmsg.h>
#include <android-base/unique_fd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "debug/zel_debug.h"
#include "src/common/zel_memory/memory_manager.h"
#include "util/zel_utils_profiler_wrapper.h"

using namespace zel::util;
using zel::memory::Buffer;

constexpr ProfilerKeyType kModel = 7;  // model id: the key of the model's profiler
constexpr ProfilerKeyType kOp = 1;     // device operation id: the postfix of its DD stage
constexpr uint64_t kIterations = 10;

// Stops the program with status 1 when a result is not the one the page promises.
static void Require(bool ok, const char* what) {
    if (ok) return;
    fprintf(stderr, "unexpected: %s\n", what);
    exit(1);
}

// Client process: API and CLIENT stages around each request, then the profile to the service.
static int RunClient(int sock) {
    ZelProfilerWrapper::initialize(PROFILE_ON, kIterations);
    ZelProfilerWrapper::create_profiler_client(kModel);
    for (uint64_t i = 0; i < kIterations; ++i) {
        ZelProfilerWrapper::profile_from(kModel, API, 0, i);
        ZelProfilerWrapper::profile_from(kModel, CLIENT, 0, i);
        char request = 'r';  // the service runs the request meanwhile
        Require(write(sock, &request, 1) == 1 && read(sock, &request, 1) == 1, "request");
        ZelProfilerWrapper::profile_until(kModel, CLIENT, 0, i);
        ZelProfilerWrapper::profile_until(kModel, API, 0, i);
    }
    // Header and raw data in a shared buffer; its descriptor goes to the service.
    Buffer::sptr profile = ZelProfilerWrapper::get_client_profiler_mem(kModel);
    Require(profile != nullptr, "client profile packed");
    const uint32_t size = profile->size;
    Require(android::base::SendFileDescriptors(sock, &size, sizeof(size), profile->fd) > 0, "sent");
    char taken = 0;
    Require(read(sock, &taken, 1) == 1, "service has mapped it");  // keep the buffer until then
    ZelProfilerWrapper::remove_profiler(kModel);  // prints nothing: the service reports
    return 0;
}

// The driver's side of one operation: what it measured, written into the device buffer.
// Overview labels: one DD slot (DD_ROOT) and two FW slots (FW, HW) per iteration.
static void RunOnDevice(const DeviceProfileInfo& info, uint64_t iteration) {
    usleep(300);  // the operation itself; it must last as long as the durations below
    auto* base = static_cast<uint8_t*>(info.va);
    auto* dd = reinterpret_cast<DeviceProfilerData*>(base + 8) + iteration;
    auto* fw = reinterpret_cast<DeviceProfilerData*>(base + 8 + info.split_offset) + iteration * 2;
    *dd = {DD_ROOT, 0, 280};
    fw[0] = {FW, 0, 250};
    fw[1] = {HW, 0, 200};
    *reinterpret_cast<uint64_t*>(base) = iteration + 1;  // iterations written so far
}

// Service process: its own stages per request, the driver's under DD, then both merges.
static int RunService(int sock) {
    ZelProfilerWrapper::initialize(PROFILE_ON, kIterations);
    ZelProfilerWrapper::create_profiler(kModel);
    // The buffer for the driver; a driver in another process maps info.fd instead of info.va.
    DeviceProfileInfo info{};
    ZelProfilerWrapper::create_device_profiler(kModel, kOp, info);
    Require(info.enable == 1 && info.detail == 0 && info.fd >= 0, "device buffer");
    for (uint64_t i = 0; i < kIterations; ++i) {
        char request = 0;
        Require(read(sock, &request, 1) == 1, "request");
        ZelProfilerWrapper::profile_from(kModel, SERVICE, 0, i);
        ZelProfilerWrapper::profile_from(kModel, DD, kOp, i);
        RunOnDevice(info, i);
        ZelProfilerWrapper::profile_until(kModel, DD, kOp, i);
        ZelProfilerWrapper::profile_until(kModel, SERVICE, 0, i);
        Require(write(sock, &request, 1) == 1, "reply");
    }

    // The client's profile: map its buffer, read the header, merge (the service's stages are
    // docked under the client's CLIENT stage).
    uint32_t size = 0;
    android::base::unique_fd fd;
    Require(android::base::ReceiveFileDescriptors(sock, &size, sizeof(size), &fd) > 0, "received");
    zel::memory::MemoryManager memory;
    Buffer::sptr client = memory.import_memory(fd.get(), size, size, 0);
    Require(write(sock, "t", 1) == 1, "taken");
    const auto* header = static_cast<const ClientProfileHeader*>(client->va);
    void* rawdata = static_cast<uint8_t*>(client->va) + kClientProfileHeaderSize;
    Require(ZelProfilerWrapper::merge_rawdata_mem_to_profiler(
                    kModel, rawdata, static_cast<int>(size - kClientProfileHeaderSize),
                    static_cast<int>(header->num_iter), static_cast<int>(header->num_label)) == 0,
            "client and service merged");

    // The device's timings, docked under the (DD, kOp) stage.
    ZelProfilerWrapper::merge_device_profiler_to_main_profiler(kModel, kOp);
    Require(ZelProfilerWrapper::get_profiler_iteration(kModel) == kIterations, "iterations");
    Require(ZelProfilerWrapper::get_profiler_num_label(kModel) == 4 + 4 + 6, "client+service+dd");

    ZelProfilerWrapper::remove_profiler(kModel);  // prints the merged report
    return 0;
}

int main() {
    zel::debug::DbgPrintManager::GetInstance()->set_mask(0x3);  // reports print in any case
    int sockets[2];
    Require(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sockets) == 0, "socket pair");
    const pid_t client = fork();
    if (client == 0) {
        close(sockets[0]);
        _exit(RunClient(sockets[1]));
    }
    close(sockets[1]);
    const int service = RunService(sockets[0]);
    int status = 0;
    Require(waitpid(client, &status, 0) == client && WIFEXITED(status), "client ended");
    return service != 0 ? service : WEXITSTATUS(status);
}
