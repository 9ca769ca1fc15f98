// Fault injection: allocation failure (RLIMIT_AS) and descriptor exhaustion (RLIMIT_NOFILE), each
// in a child process. Every operation must fail with its own failure result and message, leave
// its object as it was, and give back every descriptor and mapping it took.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "src/common/zel_memory/memory_manager.h"
#include "support/child_process.h"
#include "support/log_capture.h"
#include "support/proc_stats.h"
#include "util/zel_utils.h"
#include "util/zel_utils_profiler.h"
#include "util/zel_utils_profiler_client.h"
#include "util/zel_utils_profiler_device.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ZEL_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define ZEL_SANITIZED 1
#endif
#endif

namespace {

using namespace zel::util;
using namespace zel::memory;
using zel_test::Line;
using zel_test::MsgLine;

constexpr size_t kMiB = 1 << 20;

#ifdef ZEL_SANITIZED
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

#define SKIP_IF_SANITIZED()                                                                      \
    if (kSanitized)                                                                              \
    GTEST_SKIP() << "sanitizers reserve terabytes of shadow address space, so RLIMIT_AS cannot " \
                    "bound this process; these cases run in the release build"

// Set by the cross build's test preset: a user-mode emulator runs the tests, and RLIMIT_AS then
// bounds the emulator's own address space, not this program's.
#define SKIP_IF_EMULATED()                                   \
    if (getenv("ZEL_TEST_EMULATOR") != nullptr)              \
    GTEST_SKIP() << "run by " << getenv("ZEL_TEST_EMULATOR") \
                 << ": RLIMIT_AS bounds the emulator, not this program; these cases run natively"

// Lowers the soft address-space limit to what the process maps now plus `headroom`, so that any
// larger allocation fails. The hard limit stays, so Unlimit() can lift it again.
bool LimitAddressSpace(size_t headroom) {
    std::ifstream status("/proc/self/status");
    std::string key;
    size_t vm_kb = 0;
    while (status >> key) {
        if (key == "VmSize:") {
            status >> vm_kb;
            break;
        }
    }
    rlimit limit;
    if (vm_kb == 0 || getrlimit(RLIMIT_AS, &limit) != 0) return false;
    limit.rlim_cur = vm_kb * 1024 + headroom;
    return setrlimit(RLIMIT_AS, &limit) == 0;
}

// Mappings of shared memory (device buffers and imports are memfds on a host). Heap blocks and
// thread stacks come and go with malloc's and the thread library's caches, so the count of all
// mappings says nothing about what the library gave back.
int SharedMappings() {
    std::ifstream maps("/proc/self/maps");
    int count = 0;
    for (std::string line; std::getline(maps, line);)
        if (line.find("/memfd:") != std::string::npos) ++count;
    return count;
}

void Unlimit() {
    rlimit limit;
    getrlimit(RLIMIT_AS, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_AS, &limit);
}

// Raw data of `iterations` iterations of TOTAL{SERVICE} (parent) or CPU_UD alone (child).
std::vector<ZelProfileData> Iterations(size_t iterations, bool parent) {
    std::vector<ZelProfileData> records;
    records.reserve(iterations * (parent ? 4 : 2));
    for (uint64_t i = 0; i < iterations; ++i) {
        if (parent) {
            records.push_back({START, TOTAL, 7, i, 10 * i});
            records.push_back({START, SERVICE, 0, i, 10 * i + 1});
            records.push_back({END, SERVICE, 0, i, 10 * i + 8});
            records.push_back({END, TOTAL, 7, i, 10 * i + 9});
        } else {
            records.push_back({START, CPU_UD, 3, i, 2});
            records.push_back({END, CPU_UD, 3, i, 5});
        }
    }
    return records;
}

std::string Yes(bool condition) {
    return condition ? "yes" : "no";
}

class Reliability : public ::testing::Test {
  protected:
    void TearDown() override {
        for (const std::string& path : files_)
            unlink(path.c_str());
    }
    // A sparse file of `size` bytes whose first bytes are `head`.
    std::string File(const std::string& name, size_t size, const std::string& head = "") {
        const std::string path = "/tmp/zel_reliability_" + std::to_string(getpid()) + "_" + name;
        files_.push_back(path);
        std::ofstream(path, std::ios::binary) << head;
        if (size > head.size() && truncate(path.c_str(), static_cast<off_t>(size)) != 0)
            ADD_FAILURE() << path;
        return path;
    }

  private:
    std::vector<std::string> files_;
};

TEST_F(Reliability, ProfilerAllocationFailuresFailTheOperationAndKeepTheProfiler) {
    SKIP_IF_SANITIZED();
    SKIP_IF_EMULATED();
    const std::string result = zel_test::RunInChild([] {
        zel_test::LogCapture log;
        std::string out;

        // Raw data: 32 MiB of queued records cannot be folded with 8 MiB to spare.
        ZelProfiler queued(1, 50000, "service", false);
        for (int i = 0; i < 400000; ++i) {
            ProfileLabel label = i % 2 == 0 ? TOTAL : SERVICE;
            ProfilerKeyType postfix = 0, iter = 0;
            queued.add_record(static_cast<ProfileRecordType>(i % 2), label, postfix, iter);
        }
        if (!LimitAddressSpace(8 * kMiB)) return std::string("cannot limit");
        out += "finalize=" + std::to_string(queued.finalize());
        out += " finalized=" + Yes(queued.finalized);
        out += " raw=" + Yes(queued.rawdata != nullptr);
        Unlimit();

        // Merge: parent and child fit, the merged array does not; the parent stays as it was.
        const std::vector<ZelProfileData> p = Iterations(100000, true);
        const std::vector<ZelProfileData> c = Iterations(100000, false);
        ZelProfiler parent(7, const_cast<ZelProfileData*>(p.data()), p.size() * 40, 50000, 100000,
                           4);
        ZelProfiler child(7, const_cast<ZelProfileData*>(c.data()), c.size() * 40, 50000, 100000,
                          2);
        parent.set_leaf_docking_point({SERVICE, 0});
        ZelProfileData* before = parent.rawdata;
        if (!LimitAddressSpace(8 * kMiB)) return std::string("cannot limit");
        out += " merge=" + std::to_string(parent.merge(&child));
        out += " same=" + Yes(parent.rawdata == before && parent.num_label == 4 &&
                              parent.rawdata_size == p.size() * 40);

        // Adopting raw data from memory: the copy cannot be made.
        try {
            ZelProfiler copy(7, const_cast<ZelProfileData*>(p.data()), p.size() * 40, 50000, 100000,
                             4);
            out += " adopted";
        } catch (const std::runtime_error& e) {
            out += std::string(" thrown=") + e.what();
        }
        Unlimit();
        // The merge works once memory is there again.
        out += " retry=" + std::to_string(parent.merge(&child));

        for (const char* text : {"* Fail to alloc memory for rawdata\n",
                                 "* Fail to process queue data to rawdata.(service)\n",
                                 "* Fail to alloc memory for rawdata. size(24000000)\n",
                                 "* profiler mem alloc error\n"}) {
            if (!log.contains(Line(text))) out += std::string(" missing: ") + text;
        }
        return out;
    });
    EXPECT_EQ("finalize=1 finalized=no raw=no merge=1 same=yes thrown=no mem\n retry=0", result);
}

TEST_F(Reliability, BufferAndFileImageAllocationFailuresLeaveNothingBehind) {
    SKIP_IF_SANITIZED();
    SKIP_IF_EMULATED();
    const std::string big = File("image", 64 * kMiB, "model");
    const std::string result = zel_test::RunInChild([&big] {
        zel_test::LogCapture log;
        std::string out;
        MemoryManager manager;
        ZelDeviceProfiler* device = nullptr;
        // A client profile of 64 MiB, reserved but never touched.
        ZelClientProfiler client(3, 50000, false);
        client.rawdata = static_cast<ZelProfileData*>(std::malloc(64 * kMiB));
        client.rawdata_size = client.rawdata != nullptr ? 64 * kMiB : 0;
        const int fds = zel_test::CountOpenFds();
        const int mappings = SharedMappings();
        if (!LimitAddressSpace(16 * kMiB)) return std::string("cannot limit");

        out += "heap=" + Yes(manager.create_memory(ZEL_MM_HEAP, 64 * kMiB, 0) == nullptr);
        out += " device=" +
               Yes(manager.create_memory(ZEL_MM_DEVICE_BUFFER, 64 * kMiB, 1) == nullptr);

        uint32_t whole = 0;
        out += " owning=" + Yes(import_file_to_mem(big.c_str(), &whole, 0, 0) == nullptr);
        char* image = nullptr;
        const ZelReturn loaded = import_file_to_mem(big.c_str(), &image, nullptr, 0, 0);
        out += " caller=" + std::to_string(loaded) + (image == nullptr ? "/null" : "/block");
        std::free(image);
        {
            FileBufferReader reader(big);
            out += " dump=" + std::to_string(reader.dump_model_file());
        }

        // Shared memory of the profilers: the client's packed profile and the driver's buffer.
        try {
            client.fill_profile_mem_to_send_service();
            out += " packed";
        } catch (const std::runtime_error& e) {
            out += std::string(" client=") + e.what() + Yes(client.profile_memory == nullptr);
        }
        try {
            device = new ZelDeviceProfiler(4, 2000000, false);  // a 96 MiB device buffer
            out += " device profiler made";
        } catch (const std::runtime_error& e) {
            out += std::string(" driver=") + e.what();
        }
        delete device;
        Unlimit();

        out += " fds=" + Yes(zel_test::CountOpenFds() == fds);
        out += " maps=" + Yes(SharedMappings() == mappings);
        for (const std::string& text :
             {MsgLine("Exception at creation: Heap allocation failed"
                      "(src/common/zel_memory/allocator/heap_allocator:51)"),
              MsgLine("Exception: Argument is nullptr(src/common/zel_memory/buffer_pool:41)"),
              Line("* Fail to allocate 67108865 bytes for " + big + "\n")}) {
            if (!log.contains(text)) out += " missing: " + text;
        }
        return out;
    });
    EXPECT_EQ(
            "heap=yes device=yes owning=yes caller=3/null dump=5 client=Fail to alloc profile "
            "mem\nyes driver=Fail to alloc profile mem\n fds=yes maps=yes",
            result);
}

// Fills every free descriptor number below a low limit, except `spare` of them; returns the
// fillers, or an empty list when the limit cannot be set.
std::vector<int> ExhaustDescriptors(int spare) {
    const rlimit limit = {256, 256};
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) return {};
    std::vector<int> fillers;
    for (int fd; (fd = open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;)
        fillers.push_back(fd);
    for (int i = 0; i < spare && !fillers.empty(); ++i) {
        close(fillers.back());
        fillers.pop_back();
    }
    return fillers;
}

TEST_F(Reliability, DescriptorExhaustionFailsImportsAndReadsCleanly) {
    std::string data(kMiB + 5, '\0');
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<char>(i * 7 + i / 4096);
    const std::string path = File("pattern", 0, data);
    const std::string result = zel_test::RunInChild([&] {
        zel_test::LogCapture log;
        std::string out;
        MemoryManager manager;
        const int source = memfd_create("zel_source", MFD_CLOEXEC);
        if (source < 0 || ftruncate(source, 4096) != 0) return std::string("no memfd");
        // Every operation once with descriptors to spare. (This also fills UndefinedBehavior-
        // Sanitizer's cache of checked object types: checking an object's type for the first time
        // needs a pipe, which a full descriptor table cannot give.)
        {
            uint32_t size = 0;
            std::unique_ptr<char[]> image = import_file_to_mem(path.c_str(), &size, 0, 0);
            Buffer::sptr warm = manager.import_memory(source, 4096, 4096, 0);
            Buffer::sptr device = manager.create_memory(ZEL_MM_DEVICE_BUFFER, 4096, 1);
            if (!image || !warm || !device || manager.delete_memory(warm) != 0 ||
                manager.delete_memory(device) != 0)
                return std::string("operations fail with descriptors to spare");
            try {
                manager.import_memory(-1, 4096, 4096, 0);
            } catch (const zel::TalornNnException&) {
            }
            if (manager.create_memory(ZEL_MM_DEVICE_BUFFER, 0, 1) != nullptr)
                return std::string("empty device buffer made");
            FileBufferReader missing(path + ".missing");
            std::string sink(1, '\0');
            missing.copy_buffer(&sink[0], 1, 0);
        }
        const int fds = zel_test::CountOpenFds();
        const int mappings = SharedMappings();

        // Two free numbers: both imports read the whole file over the handles they could open.
        std::vector<int> fillers = ExhaustDescriptors(2);
        if (fillers.empty()) return std::string("cannot limit");
        uint32_t whole = 0;
        std::unique_ptr<char[]> image = import_file_to_mem(path.c_str(), &whole, 0, 0);
        out += "owning=" +
               Yes(image && whole == data.size() && std::string(image.get(), whole) == data);
        char* block = nullptr;
        const ZelReturn read = import_file_to_mem(path.c_str(), &block, nullptr, 0, 0);
        out += " caller=" + std::to_string(read) +
               (block != nullptr && std::string(block, data.size()) == data ? "/same" : "/differ");
        std::free(block);

        // None free: no reader handle, no duplicate for an import, no new device buffer.
        for (int fd; (fd = open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;)
            fillers.push_back(fd);
        {
            FileBufferReader reader(path);
            std::string sink(data.size(), '\0');
            out += " handles=" + std::to_string(reader.handle_count) +
                   " valid=" + Yes(reader.is_valid()) +
                   " read=" + std::to_string(reader.copy_buffer(&sink[0], 0, 0));
        }
        out += " nofile=" + Yes(import_file_to_mem(path.c_str(), &whole, 0, 0) == nullptr);
        try {
            manager.import_memory(source, 4096, 4096, 0);
            out += " imported";
        } catch (const zel::TalornNnException& e) {
            out += std::string(" import=") + e.what();
        }
        out += " device=" + Yes(manager.create_memory(ZEL_MM_DEVICE_BUFFER, 4096, 1) == nullptr);

        // One number back: the same import succeeds and is released in full.
        close(fillers.back());
        fillers.pop_back();
        Buffer::sptr imported = manager.import_memory(source, 4096, 4096, 0);
        out += " retry=" + Yes(imported != nullptr && manager.delete_memory(imported) == 0);
        imported.reset();

        for (int fd : fillers)
            close(fd);
        out += " fds=" + Yes(zel_test::CountOpenFds() == fds);
        out += " maps=" + Yes(SharedMappings() == mappings);
        for (const std::string& text :
             {Line("  File Open Error\n"),
              Line("* Handle clone failed: fd(" + std::to_string(source) + ")\n"),
              MsgLine("Exception: mmap failed : fd(" + std::to_string(source) +
                      "), "
                      "size(4096)(src/common/zel_memory/importer/file_descriptor_importer:58)")}) {
            if (!log.contains(text)) out += " missing: " + text;
        }
        close(source);
        return out;
    });
    EXPECT_EQ(
            "owning=yes caller=0/same handles=0 valid=no read=2 nofile=yes import=Argument is "
            "nullptr(src/common/zel_memory/buffer_pool:41) device=yes retry=yes fds=yes maps=yes",
            result);
}

}  // namespace
