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

#include <chrono>
#include <cstdio>
#include <cstring>
#include <regex>
#include <string>
#include <vector>

#include "src/common/zel_memory/memory_manager.h"
#include "support/child_process.h"
#include "support/log_capture.h"
#include "util/zel_utils_profiler_wrapper.h"

namespace {

using android::base::unique_fd;
using zel::util::ProfileNode;
using zel::util::ZelProfileData;
using zel::util::ZelProfiler;
using zel::util::ZelProfilerWrapper;
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
    if (fd != nullptr) {
        return android::base::ReceiveFileDescriptors(sock, packet, sizeof(*packet), fd) ==
               static_cast<ssize_t>(sizeof(*packet));
    }
    return read(sock, packet, sizeof(*packet)) == static_cast<ssize_t>(sizeof(*packet));
}

// Device durations per operation: DD_ROOT, FW, HW, nested, the same in every iteration.
uint32_t Duration(uint64_t op, int slot) {
    static const uint32_t kDurations[kOps][3] = {{30, 20, 12}, {24, 16, 9}};
    return kDurations[op - 1][slot];
}

void Spin(int microseconds) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::microseconds(microseconds);
    while (std::chrono::steady_clock::now() < until) {
    }
}

int Client(int service) {
    ZelProfilerWrapper::initialize(zel::util::PROFILE_ON, kIterations);
    ZelProfilerWrapper::create_profiler_client(kModel);
    for (uint64_t i = 0; i < kIterations; ++i) {
        ZelProfilerWrapper::profile_from(kModel, zel::util::API, 0, i);
        ZelProfilerWrapper::profile_from(kModel, zel::util::CLIENT, 0, i);
        Packet reply;
        if (!Send(service, {i, 0}) || !Receive(service, &reply)) return 1;
        ZelProfilerWrapper::profile_until(kModel, zel::util::CLIENT, 0, i);
        ZelProfilerWrapper::profile_until(kModel, zel::util::API, 0, i);
    }
    zel::memory::Buffer::sptr profile = ZelProfilerWrapper::get_client_profiler_mem(kModel);
    Packet taken;
    if (profile == nullptr || !Send(service, {profile->size, 0}, profile->fd) ||
        !Receive(service, &taken)) {
        return 2;
    }
    return 0;
}

// Maps each device buffer it is given; for each run writes the entries of that iteration.
int Driver(int service) {
    uint8_t* buffers[kOps + 1] = {};
    uint64_t sizes[kOps + 1] = {};
    for (uint64_t op = 1; op <= kOps; ++op) {
        Packet packet;
        unique_fd fd;
        if (!Receive(service, &packet, &fd)) return 1;
        void* va = mmap(nullptr, packet.what, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
        if (va == MAP_FAILED) return 2;
        buffers[packet.op] = static_cast<uint8_t*>(va);
        sizes[packet.op] = packet.what;
    }
    Packet run;
    while (Receive(service, &run) && run.op != 0) {
        Spin(50);  // the device works at least as long as it reports
        const uint64_t k = run.what;
        uint8_t* va = buffers[run.op];
        const uint64_t split = kIterations * 8;  // one DD label per iteration
        const zel::util::DeviceProfilerData dd = {zel::util::DD_ROOT, 0, Duration(run.op, 0)};
        const zel::util::DeviceProfilerData fw[2] = {{zel::util::FW, 0, Duration(run.op, 1)},
                                                     {zel::util::HW, 0, Duration(run.op, 2)}};
        memcpy(va + 8 + k * 8, &dd, 8);
        memcpy(va + 8 + split + k * 16, fw, 16);
        const uint64_t num_iter = k + 1;
        memcpy(va, &num_iter, 8);
        if (!Send(service, run)) return 3;
    }
    for (uint64_t op = 1; op <= kOps; ++op)
        munmap(buffers[op], sizes[op]);
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
    const pid_t pid = fork();
    if (pid == 0) {
        close(other);
        _exit(role(sock));
    }
    return pid;
}

bool Exited(pid_t pid) {
    int status = 0;
    return waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
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

    ZelProfilerWrapper::initialize(zel::util::PROFILE_ON, kIterations);
    ZelProfilerWrapper::create_profiler(kModel);
    for (uint64_t op = 1; op <= kOps; ++op) {
        zel::util::DeviceProfileInfo info{};
        ZelProfilerWrapper::create_device_profiler(kModel, op, info);
        if (info.enable != 1 || info.split_offset != kIterations * 8) return "bad device info";
        Send(to_driver, {info.size, op}, info.fd);
    }
    for (uint64_t i = 0; i < kIterations; ++i) {
        Packet request;
        if (!Receive(to_client, &request) || request.what != i) return "client went away";
        ZelProfilerWrapper::profile_from(kModel, zel::util::SERVICE, 0, i);
        for (uint64_t op = 1; op <= kOps; ++op) {
            ZelProfilerWrapper::profile_from(kModel, zel::util::DD, op, i);
            Packet done;
            if (!Send(to_driver, {i, op}) || !Receive(to_driver, &done)) return "driver went away";
            ZelProfilerWrapper::profile_until(kModel, zel::util::DD, op, i);
        }
        ZelProfilerWrapper::profile_until(kModel, zel::util::SERVICE, 0, i);
        Send(to_client, request);
    }
    Packet handover;
    unique_fd profile_fd;
    if (!Receive(to_client, &handover, &profile_fd)) return "no client profile";
    {
        zel::memory::MemoryManager memory;
        const auto size = static_cast<uint32_t>(handover.what);
        zel::memory::Buffer::sptr buffer = memory.import_memory(profile_fd.get(), size, size, 0);
        zel::util::ClientProfileHeader header;
        memcpy(&header, buffer->va, sizeof(header));
        if (header.model_id != kModel) return "wrong model id in the client profile";
        if (ZelProfilerWrapper::merge_rawdata_mem_to_profiler(
                    kModel, static_cast<uint8_t*>(buffer->va) + 24, static_cast<int>(size - 24),
                    static_cast<int>(header.num_iter), static_cast<int>(header.num_label)) != 0) {
            return "client merge failed";
        }
    }
    Send(to_client, handover);
    Send(to_driver, {0, 0});
    if (!Exited(client) || !Exited(driver)) return "a child process failed";

    for (uint64_t op = 1; op <= kOps; ++op)
        ZelProfilerWrapper::merge_device_profiler_to_main_profiler(kModel, op);
    if (!ZelProfilerWrapper::deviceProfilerMap_.empty()) return "device profilers left";
    ZelProfiler* merged = ZelProfilerWrapper::profilerMap_.at(kModel);
    std::string result = TreeText(merged->root) + "\n" + std::to_string(merged->num_iter) + "x" +
                         std::to_string(merged->num_label) + "\n";

    zel_test::LogCapture log;
    ZelProfilerWrapper::remove_profiler(kModel);
    // The summary rows of the device stages: those are the driver's numbers.
    const std::regex device_row("^2\\.1\\.17: \\* +[0-9]+\\.[0-9] .*_(DD_ROOT|FW|HW)_0x[12]\n$");
    for (const std::string& line : log.messages()) {
        if (std::regex_match(line, device_row)) result += line;
    }
    return result + (ZelProfilerWrapper::profilerMap_.empty() ? "" : "registry not empty\n");
}

TEST(ProfilerFlowTest, ClientServiceAndDeviceProfilesMergeAcrossProcesses) {
    const std::string result = zel_test::RunInChild(Service);
    // Device stages nest under the service's DD stage of their operation, the service's stages
    // under the client's CLIENT stage.
    EXPECT_EQ(
            "TOTAL(API(CLIENT(SERVICE(DD_1(DD_ROOT_1(FW_1(HW_1))),DD_2(DD_ROOT_2(FW_2(HW_2)))))))"
            "\n12x22\n"
            // Summary rows of the device stages: self times are the driver's durations less
            // their children's, the same in every iteration.
            "2.1.17: *               10.0                    10                  10    "
            "_____DD_ROOT_0x1\n"
            "2.1.17: *                8.0                     8                   8    "
            "______FW_0x1\n"
            "2.1.17: *               12.0                    12                  12    "
            "_______HW_0x1\n"
            "2.1.17: *                8.0                     8                   8    "
            "_____DD_ROOT_0x2\n"
            "2.1.17: *                7.0                     7                   7    "
            "______FW_0x2\n"
            "2.1.17: *                9.0                     9                   9    "
            "_______HW_0x2\n",
            result);
}

// Raw data of one stage sequence per iteration: {label, postfix, start or end, time}.
struct Rec {
    zel::util::ProfileLabel label;
    uint64_t postfix;
    uint64_t type;
    uint64_t time;
};
std::vector<ZelProfileData> RawData(const std::vector<std::vector<Rec>>& iterations) {
    std::vector<ZelProfileData> data;
    for (size_t i = 0; i < iterations.size(); ++i) {
        for (const Rec& r : iterations[i])
            data.push_back({r.type, r.label, r.postfix, i, r.time});
    }
    return data;
}

std::string SummaryRow(double avg, uint64_t median, uint64_t p90, const char* name) {
    char row[160];
    snprintf(row, sizeof(row), "*       %12.1f          %12lu        %12lu    %s\n", avg, median,
             p90, name);
    return Line(row);
}

void WriteDevice(const zel::util::DeviceProfileInfo& info, uint64_t k,
                 zel::util::DeviceProfilerData dd, zel::util::DeviceProfilerData fw,
                 zel::util::DeviceProfilerData hw) {
    auto* va = static_cast<uint8_t*>(info.va);
    memcpy(va + 8 + k * 8, &dd, 8);
    memcpy(va + 8 + info.split_offset + k * 16, &fw, 8);
    memcpy(va + 8 + info.split_offset + k * 16 + 8, &hw, 8);
    const uint64_t num_iter = k + 1;
    memcpy(va, &num_iter, 8);
}

// With known times, the merged report is exact: the service's stages under CLIENT, the device's
// under DD, each stage's self time excluding its children.
TEST(ProfilerFlowTest, MergedReportLineForLine) {
    const std::string result = zel_test::RunInChild([] {
        using namespace zel::util;
        ZelProfilerWrapper::initialize(PROFILE_ON, 2);
        std::vector<ZelProfileData> client = RawData({{{API, 0, START, 1000},
                                                       {CLIENT, 0, START, 1010},
                                                       {CLIENT, 0, END, 1090},
                                                       {API, 0, END, 1100}},
                                                      {{API, 0, START, 2000},
                                                       {CLIENT, 0, START, 2010},
                                                       {CLIENT, 0, END, 2110},
                                                       {API, 0, END, 2120}}});
        std::vector<ZelProfileData> service = RawData({{{SERVICE, 0, START, 1020},
                                                        {DD, 1, START, 1030},
                                                        {DD, 1, END, 1070},
                                                        {SERVICE, 0, END, 1080}},
                                                       {{SERVICE, 0, START, 2020},
                                                        {DD, 1, START, 2030},
                                                        {DD, 1, END, 2090},
                                                        {SERVICE, 0, END, 2100}}});
        ZelProfilerWrapper::profilerMap_[kModel] =
                new ZelProfiler(kModel, service.data(), service.size() * 40, 2, 2, 4);
        DeviceProfileInfo info{};
        ZelProfilerWrapper::create_device_profiler(kModel, 1, info);
        WriteDevice(info, 0, {DD_ROOT, 0, 30}, {FW, 0, 20}, {HW, 0, 12});
        WriteDevice(info, 1, {DD_ROOT, 0, 50}, {FW, 0, 40}, {HW, 0, 25});

        if (ZelProfilerWrapper::merge_rawdata_mem_to_profiler(
                    kModel, client.data(), static_cast<int>(client.size() * 40), 2, 4) != 0) {
            return std::string("client merge failed");
        }
        ZelProfilerWrapper::merge_device_profiler_to_main_profiler(kModel, 1);
        zel_test::LogCapture log;
        ZelProfilerWrapper::remove_profiler(kModel);
        std::string text;
        bool summary = false;
        for (const std::string& line : log.messages()) {
            summary = summary || line.find("<avg>") != std::string::npos;
            if (summary) text += line;
        }
        return text;
    });
    EXPECT_EQ(Line("*              <avg>              <median>               <90%>   <label>\n") +
                      SummaryRow(110.0, 120, 120, "TOTAL") + SummaryRow(20.0, 20, 20, "_API") +
                      SummaryRow(20.0, 20, 20, "__CLIENT") +
                      SummaryRow(20.0, 20, 20, "___SERVICE") +
                      SummaryRow(10.0, 10, 10, "____DD_0x1") +
                      SummaryRow(10.0, 10, 10, "_____DD_ROOT_0x1") +
                      SummaryRow(11.5, 15, 15, "______FW_0x1") +
                      SummaryRow(18.5, 25, 25, "_______HW_0x1") +
                      Line("* ====================================================================="
                           "====================\n"),
              result);
}

// What a driver writes is not trusted: none of these may crash the service or change its
// profile; each fails that operation with a "* " line and drops the device profile.
TEST(ProfilerFlowTest, BadDeviceDataLeavesTheServiceProfile) {
    const std::string result = zel_test::RunInChild([] {
        using namespace zel::util;
        constexpr uint64_t kBadOps = 4;
        ZelProfilerWrapper::initialize(PROFILE_ON, 3);
        ZelProfilerWrapper::create_profiler(kModel);
        for (uint64_t i = 0; i < 3; ++i) {
            ZelProfilerWrapper::profile_from(kModel, SERVICE, 0, i);
            for (uint64_t op = 1; op <= kBadOps; ++op) {
                ZelProfilerWrapper::profile_from(kModel, DD, op, i);
                ZelProfilerWrapper::profile_until(kModel, DD, op, i);
            }
            ZelProfilerWrapper::profile_until(kModel, SERVICE, 0, i);
        }
        DeviceProfileInfo info[kBadOps + 1] = {};
        for (uint64_t op = 1; op <= kBadOps; ++op)
            ZelProfilerWrapper::create_device_profiler(kModel, op, info[op]);
        // 1: num_iter beyond the limit; 2: a label outside the tree; 3: every byte 0xFF;
        // 4: empty slots, which bind to the tree's root and leave the stages unbound.
        WriteDevice(info[1], 0, {DD_ROOT, 0, 3}, {FW, 0, 2}, {HW, 0, 1});
        const uint64_t too_many = 4;
        memcpy(info[1].va, &too_many, 8);
        WriteDevice(info[2], 0, {API, 0, 3}, {FW, 0, 2}, {HW, 0, 1});
        memset(info[3].va, 0xFF, info[3].size);
        const uint64_t one = 1;
        memcpy(info[4].va, &one, 8);

        zel_test::LogCapture log;
        for (uint64_t op = 1; op <= kBadOps; ++op)
            ZelProfilerWrapper::merge_device_profiler_to_main_profiler(kModel, op);
        std::string text;
        for (const std::string& line : log.messages()) {
            if (line.rfind("2.1.17: * ", 0) == 0 && line.find("Finalize") == std::string::npos &&
                line.find("Found") == std::string::npos &&
                line.find("show flag") == std::string::npos) {
                text += line;
            }
        }
        ZelProfiler* service = ZelProfilerWrapper::profilerMap_.at(kModel);
        text += "left " + std::to_string(ZelProfilerWrapper::deviceProfilerMap_.size()) +
                " labels " + std::to_string(service->num_label) + "\n";
        ZelProfilerWrapper::remove_profiler(kModel);
        return text;
    });
    EXPECT_EQ(Line("* Device num_iter(4) beyond the buffer. max_iter(3) size(152)\n") +
                      Line("* No device profile to merge for op(0x1)\n") +
                      Line("* Fail to find node(API:25) in tree.\n") +
                      Line("* Fail to fill index\n") +
                      Line("* Fail to fill_offset_ingredient_treer\n") +
                      Line("* No device profile to merge for op(0x2)\n") +
                      Line("* Device num_iter(18446744073709551615) beyond the buffer. "
                           "max_iter(3) size(152)\n") +
                      Line("* No device profile to merge for op(0x3)\n") +
                      Line("* No device slot for label(DD_ROOT)\n") +
                      Line("* Fail to convert_to_rawdata\n") +
                      Line("* No device profile to merge for op(0x4)\n") + "left 0 labels 10\n",
              result);
}

// Client profile memory comes from another process: counts that disagree with its size are
// refused before anything reads by them, and a failed merge leaves the registry as it was.
TEST(ProfilerFlowTest, ClientMergeFailuresLeaveTheRegistry) {
    const std::string result = zel_test::RunInChild([] {
        using namespace zel::util;
        ZelProfilerWrapper::initialize(PROFILE_ON, 0);
        ZelProfilerWrapper::create_profiler(kModel);
        ZelProfiler* service = ZelProfilerWrapper::profilerMap_.at(kModel);
        std::vector<ZelProfileData> client = RawData({{{API, 0, START, 10},
                                                       {CLIENT, 0, START, 20},
                                                       {CLIENT, 0, END, 30},
                                                       {API, 0, END, 40}}});
        zel_test::LogCapture log;
        std::string text;
        text += std::to_string(ZelProfilerWrapper::merge_rawdata_mem_to_profiler(
                kModel, client.data(), 160, 2, 4));
        text += std::to_string(
                ZelProfilerWrapper::merge_rawdata_mem_to_profiler(kModel, client.data(), -1, 1, 4));
        text += std::to_string(ZelProfilerWrapper::merge_rawdata_mem_to_profiler(
                kModel, client.data(), 160, -1, 4));
        // Records queued after raw data exist make the client profile's finalize fail.
        ZelProfiler late(kModel, client.data(), 160, 10, 1, 4);
        late.add_record_start(API, 0, 0);
        text += std::to_string(ZelProfilerWrapper::merge_client_service_profilers(kModel, &late));
        text += ZelProfilerWrapper::profilerMap_.at(kModel) == service ? " kept\n" : " replaced\n";
        for (const std::string& line : log.messages()) {
            if (line.rfind("2.1.17: * ", 0) == 0 && line.find("Finalize") == std::string::npos) {
                text += line;
            }
        }
        ZelProfilerWrapper::remove_profiler(kModel);
        return text;
    });
    EXPECT_EQ("1111 kept\n" +
                      Line("* Client profile counts disagree with its size. size(160) num_iter(2) "
                           "num_label(4)\n") +
                      Line("* Client profile counts disagree with its size. size(-1) num_iter(1) "
                           "num_label(4)\n") +
                      Line("* Client profile counts disagree with its size. size(160) "
                           "num_iter(-1) num_label(4)\n") +
                      Line("* Wrong flow. We already have rawdata\n") +
                      Line("* Fail to process queue data to rawdata.(default)\n") +
                      Line("* Fail to finalize profilerFromClient at merge stage\n"),
              result);
}

}  // namespace
