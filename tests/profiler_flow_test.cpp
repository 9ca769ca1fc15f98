// The road of a profiled inference across real processes: a client process records its API and
// CLIENT stages around each request and hands its packed profile to the service as a
// descriptor; a driver process maps the device buffers the service hands it and writes its
// timings; the service merges both into its own profile and prints the report.
#include <android-base/cmsg.h>
#include <android-base/unique_fd.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <regex>
#include <stdexcept>
#include <string>
#include <vector>

#include "src/common/zel_memory/memory_manager.h"
#include "support/child_process.h"
#include "support/log_capture.h"
#include "util/zel_utils_profiler_wrapper.h"

namespace {

using android::base::unique_fd;
using namespace zel::util;
using W = ZelProfilerWrapper;
using zel_test::Line;

constexpr uint64_t kModel = 7;
constexpr uint64_t kIterations = 12;
constexpr uint64_t kOps = 2;

struct Packet {
    uint64_t what;  // iteration to run, op to run, or a byte size
    uint64_t op;
};

bool Send(int sock, const Packet& packet, int fd = -1) {
    if (fd >= 0) return android::base::SendFileDescriptors(sock, &packet, sizeof(packet), fd) > 0;
    return write(sock, &packet, sizeof(packet)) == static_cast<ssize_t>(sizeof(packet));
}

bool Receive(int sock, Packet* packet, unique_fd* fd = nullptr) {
    const ssize_t got =
            fd != nullptr ? android::base::ReceiveFileDescriptors(sock, packet, sizeof(*packet), fd)
                          : read(sock, packet, sizeof(*packet));
    return got == static_cast<ssize_t>(sizeof(*packet));
}

// Iteration k's entries as a driver writes them: DD_ROOT in the DD area, FW and HW in the FW area.
void WriteDevice(void* buffer, uint64_t split, uint64_t k, DeviceProfilerData dd,
                 DeviceProfilerData fw, DeviceProfilerData hw) {
    auto* va = static_cast<uint8_t*>(buffer);
    memcpy(va + 8 + k * 8, &dd, 8);
    memcpy(va + 8 + split + k * 16, &fw, 8);
    memcpy(va + 8 + split + k * 16 + 8, &hw, 8);
    const uint64_t num_iter = k + 1;
    memcpy(va, &num_iter, 8);
}

int Client(int service) {
    W::initialize(PROFILE_ON, kIterations);
    W::create_profiler_client(kModel);
    for (uint64_t i = 0; i < kIterations; ++i) {
        W::profile_from(kModel, API, 0, i);
        W::profile_from(kModel, CLIENT, 0, i);
        Packet reply;
        if (!Send(service, {i, 0}) || !Receive(service, &reply)) return 1;
        W::profile_until(kModel, CLIENT, 0, i);
        W::profile_until(kModel, API, 0, i);
    }
    zel::memory::Buffer::sptr profile = W::get_client_profiler_mem(kModel);
    Packet taken;
    const bool sent = profile != nullptr && Send(service, {profile->size, 0}, profile->fd);
    return sent && Receive(service, &taken) ? 0 : 2;
}

// Maps each device buffer it is given; for each run writes that iteration's entries: DD_ROOT,
// FW and HW durations per operation, the same in every iteration.
int Driver(int service) {
    static const uint32_t kDurations[kOps + 1][3] = {{}, {30, 20, 12}, {24, 16, 9}};
    void* buffers[kOps + 1] = {};  // unmapped as the process exits
    for (uint64_t op = 1; op <= kOps; ++op) {
        Packet packet;
        unique_fd fd;
        if (!Receive(service, &packet, &fd)) return 1;
        void* va = mmap(nullptr, packet.what, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
        if (va == MAP_FAILED) return 2;
        buffers[packet.op] = va;
    }
    Packet run;
    while (Receive(service, &run) && run.op != 0) {
        // The device works at least as long as it reports.
        const auto until = std::chrono::steady_clock::now() + std::chrono::microseconds(50);
        while (std::chrono::steady_clock::now() < until) {
        }
        const uint32_t* d = kDurations[run.op];
        // One DD label per iteration: the FW area starts after kIterations entries.
        WriteDevice(buffers[run.op], kIterations * 8, run.what, {DD_ROOT, 0, d[0]}, {FW, 0, d[1]},
                    {HW, 0, d[2]});
        if (!Send(service, run)) return 3;
    }
    return 0;
}

std::string TreeText(const std::shared_ptr<ProfileNode>& node) {
    std::string text = ZelProfiler::labelToString(node->label);
    if (node->labelPostfix != 0) text += "_" + std::to_string(node->labelPostfix);
    if (node->children.empty()) return text;
    text += "(";
    for (size_t i = 0; i < node->children.size(); ++i)
        text += (i ? "," : "") + TreeText(node->children[i]);
    return text + ")";
}

pid_t Fork(int (*role)(int), int sock, int other) {
    return zel_test::ForkChild([=] {
        close(other);
        return role(sock);
    });
}

std::string SummaryRow(double avg, uint64_t median, uint64_t p90, const char* name) {
    char row[160];
    snprintf(row, sizeof(row), "*       %12.1f          %12lu        %12lu    %s\n", avg, median,
             p90, name);
    return Line(row);
}

// The service: returns the merged tree, then the report lines of the device stages.
std::string Service() {
    int client_pair[2], driver_pair[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, client_pair) != 0 ||
        socketpair(AF_UNIX, SOCK_SEQPACKET, 0, driver_pair) != 0) {
        return "socketpair failed";
    }
    // Both start before the service's profiler exists, so neither inherits it.
    const pid_t driver = Fork(Driver, driver_pair[1], client_pair[1]);
    const pid_t client = Fork(Client, client_pair[1], driver_pair[1]);
    close(client_pair[1]);
    close(driver_pair[1]);
    const int to_client = client_pair[0];
    const int to_driver = driver_pair[0];

    W::initialize(PROFILE_ON, kIterations);
    W::create_profiler(kModel);
    for (uint64_t op = 1; op <= kOps; ++op) {
        DeviceProfileInfo info{};
        W::create_device_profiler(kModel, op, info);
        if (info.enable != 1 || info.split_offset != kIterations * 8) return "bad device info";
        Send(to_driver, {info.size, op}, info.fd);
    }
    for (uint64_t i = 0; i < kIterations; ++i) {
        Packet request;
        if (!Receive(to_client, &request) || request.what != i) return "client went away";
        W::profile_from(kModel, SERVICE, 0, i);
        for (uint64_t op = 1; op <= kOps; ++op) {
            W::profile_from(kModel, DD, op, i);
            Packet done;
            if (!Send(to_driver, {i, op}) || !Receive(to_driver, &done)) return "driver went away";
            W::profile_until(kModel, DD, op, i);
        }
        W::profile_until(kModel, SERVICE, 0, i);
        Send(to_client, request);
    }
    Packet handover;
    unique_fd profile_fd;
    if (!Receive(to_client, &handover, &profile_fd)) return "no client profile";
    {
        zel::memory::MemoryManager memory;
        const auto size = static_cast<uint32_t>(handover.what);
        zel::memory::Buffer::sptr buffer = memory.import_memory(profile_fd.get(), size, size, 0);
        ClientProfileHeader header;
        memcpy(&header, buffer->va, sizeof(header));
        if (header.model_id != kModel) return "wrong model id in the client profile";
        if (W::merge_rawdata_mem_to_profiler(
                    kModel, static_cast<uint8_t*>(buffer->va) + 24, static_cast<int>(size - 24),
                    static_cast<int>(header.num_iter), static_cast<int>(header.num_label)) != 0) {
            return "client merge failed";
        }
    }
    Send(to_client, handover);
    Send(to_driver, {0, 0});
    if (!zel_test::WaitChild(client) || !zel_test::WaitChild(driver))
        return "a child process failed";

    for (uint64_t op = 1; op <= kOps; ++op)
        W::merge_device_profiler_to_main_profiler(kModel, op);
    if (!W::deviceProfilerMap_.empty()) return "device profilers left";
    ZelProfiler* merged = W::profilerMap_.at(kModel);
    std::string result = TreeText(merged->root) + "\n" + std::to_string(merged->num_iter) + "x" +
                         std::to_string(merged->num_label) + "\n";

    zel_test::LogCapture log;
    W::remove_profiler(kModel);
    // The summary rows of the device stages: those are the driver's numbers.
    const std::regex device_row("^2\\.1\\.17: \\* +[0-9]+\\.[0-9] .*_(DD_ROOT|FW|HW)_0x[12]\n$");
    for (const std::string& line : log.messages()) {
        if (std::regex_match(line, device_row)) result += line;
    }
    return result + (W::profilerMap_.empty() ? "" : "registry not empty\n");
}

TEST(ProfilerFlowTest, ClientServiceAndDeviceProfilesMergeAcrossProcesses) {
    // Device stages nest under the service's DD stage of their operation, the service's stages
    // under the client's CLIENT stage; a device stage's self time is the driver's duration less
    // its children's.
    EXPECT_EQ(
            "TOTAL(API(CLIENT(SERVICE(DD_1(DD_ROOT_1(FW_1(HW_1))),DD_2(DD_ROOT_2(FW_2(HW_2)))))))"
            "\n12x22\n" +
                    SummaryRow(10.0, 10, 10, "_____DD_ROOT_0x1") +
                    SummaryRow(8.0, 8, 8, "______FW_0x1") +
                    SummaryRow(12.0, 12, 12, "_______HW_0x1") +
                    SummaryRow(8.0, 8, 8, "_____DD_ROOT_0x2") +
                    SummaryRow(7.0, 7, 7, "______FW_0x2") + SummaryRow(9.0, 9, 9, "_______HW_0x2"),
            zel_test::RunInChild(Service));
}

// An outer stage around an inner one, one {outer start, inner start, inner end, outer end} per
// iteration.
std::vector<ZelProfileData> Nested(ProfileLabel outer, ProfileLabel inner,
                                   const std::vector<std::array<uint64_t, 4>>& times) {
    std::vector<ZelProfileData> data;
    for (uint64_t i = 0; i < times.size(); ++i) {
        const auto& t = times[i];
        data.insert(data.end(), {{START, outer, 0, i, t[0]},
                                 {START, inner, 0, i, t[1]},
                                 {END, inner, 0, i, t[2]},
                                 {END, outer, 0, i, t[3]}});
    }
    return data;
}

// What the driver writes and the client's profile memory come from other processes. Device
// entries are converted as far as they lie inside the buffer, whatever the counts say, and dock
// at their DD stage's start; a device profile that cannot be converted fails the merge, which
// throws. Client counts that disagree with the memory's size are refused, and a failed client
// merge leaves the registry as it was.
TEST(ProfilerFlowTest, UntrustedDataFromTheDriverAndTheClient) {
    const std::string result = zel_test::RunInChild([] {
        constexpr uint64_t kBadOps = 4;
        W::initialize(PROFILE_ON, 3);
        // The service's profile: SERVICE around DD_1 .. DD_4, each DD stage 50 us long.
        std::vector<ZelProfileData> stages;
        for (uint64_t i = 0, base = 1000; i < 3; ++i, base += 1000) {
            stages.push_back({START, SERVICE, 0, i, base});
            for (uint64_t op = 1; op <= kBadOps; ++op) {
                stages.push_back({START, DD, op, i, base + 100 * op});
                stages.push_back({END, DD, op, i, base + 100 * op + 50});
            }
            stages.push_back({END, SERVICE, 0, i, base + 500});
        }
        W::profilerMap_[kModel] = new ZelProfiler(kModel, stages.data(), 1200, 3, 3, 10);
        DeviceProfileInfo info[kBadOps + 1] = {};
        for (uint64_t op = 1; op <= kBadOps; ++op)
            W::create_device_profiler(kModel, op, info[op]);
        // 1: four iterations for a limit of three, all inside the buffer; 2: a label outside the
        // tree; 3: num_iter beyond the buffer; 4: empty slots, which bind to the tree's root and
        // leave the stages unbound.
        for (uint64_t k = 0; k < 3; ++k)
            WriteDevice(info[1].va, info[1].split_offset, k, {DD_ROOT, 0, 30}, {FW, 0, 20},
                        {HW, 0, 12});
        WriteDevice(info[2].va, info[2].split_offset, 0, {API, 0, 3}, {FW, 0, 2}, {HW, 0, 1});
        WriteDevice(info[3].va, info[3].split_offset, 0, {DD_ROOT, 0, 3}, {FW, 0, 2}, {HW, 0, 1});
        const uint64_t four = 4, too_many = 100, one = 1;
        memcpy(info[1].va, &four, 8);
        memcpy(info[3].va, &too_many, 8);
        memcpy(info[4].va, &one, 8);

        zel_test::LogCapture log;
        std::string codes;
        for (uint64_t op = 1; op <= kBadOps; ++op) {
            try {
                W::merge_device_profiler_to_main_profiler(kModel, op);
                codes += "-";
            } catch (const std::runtime_error& error) {
                codes += error.what() == std::string("finalize fail\n") ? "T" : "?";
            }
        }
        ZelProfiler* service = W::profilerMap_.at(kModel);
        // Iteration 0 of op 1's stages, relative to the start of its DD stage.
        const ZelProfileData* records = service->rawdata;
        uint64_t dock = 0;
        for (uint64_t r = 0; r < service->num_label; ++r) {
            if (records[r].label == DD && records[r].labelPostfix == 1 && records[r].type == START)
                dock = records[r].timestamp;
            if (records[r].label >= DD_ROOT && records[r].label <= HW)
                codes += " " + std::to_string(records[r].timestamp - dock);
        }
        auto client = Nested(API, CLIENT, {{10, 20, 30, 40}});
        // A loop, not a chain of +: the calls log, and + leaves their order open.
        codes += " ";
        for (const auto& [size, iterations] : {std::pair{160, 2}, {-1, 1}, {160, -1}})
            codes += std::to_string(
                    W::merge_rawdata_mem_to_profiler(kModel, client.data(), size, iterations, 4));
        // Records queued after raw data exist make the client profile's finalize fail.
        ZelProfiler late(kModel, client.data(), 160, 10, 1, 4);
        late.add_record_start(API, 0, 0);
        codes += std::to_string(W::merge_client_service_profilers(kModel, &late));

        std::string text;
        for (const std::string& line : log.messages()) {
            if (line.rfind("2.1.17: * ", 0) == 0 && line.find("Finalize") == std::string::npos &&
                line.find("Found") == std::string::npos &&
                line.find("Cannot merge") == std::string::npos &&
                line.find("show flag") == std::string::npos) {
                text += line;
            }
        }
        text += codes + " left " + std::to_string(W::deviceProfilerMap_.size());
        if (W::profilerMap_.at(kModel) != service) return text + " replaced\n";
        return text + " labels " + std::to_string(service->num_label) + " kept\n";
    });
    EXPECT_EQ(Line("* Wrong merge usage. iter diff. (4) vs (3)\n") +
                      Line("* Fail to find node(API:25) in tree.\n") +
                      Line("* Fail to fill index\n") +
                      Line("* Fail to fill_offset_ingredient_treer\n") +
                      Line("* Fail to merge child(0x2\n") +
                      Line("* Device num_iter(100) beyond the buffer. size(152)\n") +
                      Line("* Fail to convert_to_rawdata\n") + Line("* Fail to merge child(0x3\n") +
                      Line("* No device slot for label(DD_ROOT)\n") +
                      Line("* Fail to convert_to_rawdata\n") + Line("* Fail to merge child(0x4\n") +
                      Line("* Client profile counts disagree with its size. size(160) num_iter(2) "
                           "num_label(4)\n") +
                      Line("* Client profile counts disagree with its size. size(-1) num_iter(1) "
                           "num_label(4)\n") +
                      Line("* Client profile counts disagree with its size. size(160) "
                           "num_iter(-1) num_label(4)\n") +
                      Line("* Wrong flow. We already have rawdata\n") +
                      Line("* Fail to process queue data to rawdata.(default)\n") +
                      Line("* Fail to finalize profilerFromClient at merge stage\n") +
                      "-TTT 0 0 0 12 20 30 1111 left 0 labels 16 kept\n",
              result);
}

}  // namespace
