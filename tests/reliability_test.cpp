// Fault injection: allocation failure (RLIMIT_AS) and descriptor exhaustion (RLIMIT_NOFILE), each
// in a child process. Every operation must fail with its own failure result and message, leave
// its object as it was, and give back every descriptor and mapping it took.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

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
using zel_test::LogCapture;
using zel_test::MsgLine;

constexpr size_t kMiB = 1 << 20;

// Lowers the soft address-space limit to what the process maps now plus `headroom`, so that any
// larger allocation fails; a headroom of 0 lifts it back to the hard limit.
bool LimitAddressSpace(size_t headroom) {
    size_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    rlimit limit;
    if (pages == 0 || getrlimit(RLIMIT_AS, &limit) != 0) return false;
    limit.rlim_cur = headroom == 0 ? limit.rlim_max : pages * getpagesize() + headroom;
    return setrlimit(RLIMIT_AS, &limit) == 0;
}

// Mappings of shared memory (device buffers and imports are memfds on a host). Heap blocks and
// thread stacks come and go with malloc's and the thread library's caches, so the count of all
// mappings says nothing about what the library gave back.
int SharedMappings() {
    std::ifstream maps("/proc/self/maps");
    int count = 0;
    for (std::string line; std::getline(maps, line);)
        count += line.find("/memfd:") != std::string::npos;
    return count;
}

std::string Yes(bool condition) {
    return condition ? "yes" : "no";
}

// " missing: <text>" for every text that no captured line matches exactly.
std::string Missing(const LogCapture& log, const std::vector<std::string>& texts) {
    std::string out;
    for (const std::string& text : texts)
        if (!log.contains(text)) out += " missing: " + text;
    return out;
}

// Raw data of `n` iterations of TOTAL{SERVICE} (parent) or CPU_UD alone (child).
std::vector<ZelProfileData> Iterations(uint64_t n, bool parent) {
    std::vector<ZelProfileData> records;
    for (uint64_t i = 0; i < n; ++i) {
        if (parent) {
            records.insert(records.end(), {{START, TOTAL, 7, i, 10 * i},
                                           {START, SERVICE, 0, i, 10 * i + 1},
                                           {END, SERVICE, 0, i, 10 * i + 8},
                                           {END, TOTAL, 7, i, 10 * i + 9}});
        } else {
            records.insert(records.end(), {{START, CPU_UD, 3, i, 2}, {END, CPU_UD, 3, i, 5}});
        }
    }
    return records;
}

// A sparse file of `size` bytes that begins with `head`; removed with the object.
struct TempFile {
    TempFile(const std::string& name, size_t size, const std::string& head)
        : path("/tmp/zel_reliability_" + std::to_string(getpid()) + "_" + name) {
        std::ofstream(path, std::ios::binary) << head;
        if (size > head.size()) EXPECT_EQ(0, truncate(path.c_str(), static_cast<off_t>(size)));
    }
    ~TempFile() { unlink(path.c_str()); }
    const std::string path;
};

TEST(Reliability, AllocationFailuresFailTheOperationAndLeaveNothingBehind) {
#ifdef ZEL_SANITIZED
    GTEST_SKIP() << "sanitizers reserve terabytes of shadow address space, so RLIMIT_AS cannot "
                    "bound this process; these cases run in the release build";
#endif
    // Set by the cross build's test preset: RLIMIT_AS would bound the emulator's address space.
    if (const char* emulator = getenv("ZEL_TEST_EMULATOR")) {
        GTEST_SKIP()
                << "run by " << emulator
                << ": RLIMIT_AS bounds the emulator, not this program; these cases run natively";
    }
    const TempFile big("image", 64 * kMiB, "model");
    const std::string result = zel_test::RunInChild([&big] {
        LogCapture log;
        std::string out;

        // Raw data: 400,000 queued records cannot be folded with 8 MiB to spare.
        ZelProfiler queued(1, 50000, "service", false);
        for (int i = 0; i < 400000; ++i) {
            ProfileLabel label = i % 2 == 0 ? TOTAL : SERVICE;
            ProfilerKeyType postfix = 0, iter = 0;
            queued.add_record(static_cast<ProfileRecordType>(i % 2), label, postfix, iter);
        }
        if (!LimitAddressSpace(8 * kMiB)) return std::string("cannot limit");
        out += "finalize=" + std::to_string(queued.finalize());
        out += " finalized=" + Yes(queued.finalized) + " raw=" + Yes(queued.rawdata != nullptr);
        LimitAddressSpace(0);

        // Merge: parent and child fit, the merged array does not; the parent stays as it was.
        const std::vector<ZelProfileData> p = Iterations(100000, true);
        const std::vector<ZelProfileData> c = Iterations(100000, false);
        auto* p_data = const_cast<ZelProfileData*>(p.data());
        ZelProfiler parent(7, p_data, p.size() * 40, 50000, 100000, 4);
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
            ZelProfiler copy(7, p_data, p.size() * 40, 50000, 100000, 4);
            out += " adopted";
        } catch (const std::runtime_error& e) {
            out += std::string(" thrown=") + e.what();
        }
        LimitAddressSpace(0);
        out += " retry=" + std::to_string(parent.merge(&child));  // memory is there again

        // Buffers, file images and the profilers' shared memory, 64 MiB or more each.
        MemoryManager manager;
        ZelClientProfiler client(3, 50000, false);
        client.rawdata = static_cast<ZelProfileData*>(std::malloc(64 * kMiB));  // never touched
        client.rawdata_size = client.rawdata != nullptr ? 64 * kMiB : 0;
        const int fds = zel_test::CountOpenFds();
        const int mappings = SharedMappings();
        if (!LimitAddressSpace(16 * kMiB)) return std::string("cannot limit");
        out += " heap=" + Yes(manager.create_memory(ZEL_MM_HEAP, 64 * kMiB, 0) == nullptr);
        out += " device=" +
               Yes(manager.create_memory(ZEL_MM_DEVICE_BUFFER, 64 * kMiB, 1) == nullptr);
        uint32_t whole = 0;
        out += " owning=" + Yes(import_file_to_mem(big.path.c_str(), &whole, 0, 0) == nullptr);
        char* image = nullptr;
        out += " caller=" +
               std::to_string(import_file_to_mem(big.path.c_str(), &image, nullptr, 0, 0));
        out += image == nullptr ? "/null" : "/block";
        std::free(image);
        out += " dump=" + std::to_string(FileBufferReader(big.path).dump_model_file());
        try {
            client.fill_profile_mem_to_send_service();
            out += " packed";
        } catch (const std::runtime_error& e) {
            out += std::string(" client=") + e.what() + Yes(client.profile_memory == nullptr);
        }
        try {
            delete new ZelDeviceProfiler(4, 2000000, false);  // a 96 MiB device buffer
            out += " device profiler made";
        } catch (const std::runtime_error& e) {
            out += std::string(" driver=") + e.what();
        }
        LimitAddressSpace(0);

        out += " fds=" + Yes(zel_test::CountOpenFds() == fds);
        out += " maps=" + Yes(SharedMappings() == mappings);
        return out +
               Missing(log, {Line("* Fail to alloc memory for rawdata\n"),
                             Line("* Fail to process queue data to rawdata.(service)\n"),
                             Line("* Fail to alloc memory for rawdata. size(24000000)\n"),
                             Line("* profiler mem alloc error\n"),
                             MsgLine("Exception at creation: Heap allocation failed"
                                     "(src/common/zel_memory/allocator/heap_allocator:51)"),
                             MsgLine("Exception: Argument is nullptr"
                                     "(src/common/zel_memory/buffer_pool:41)"),
                             Line("* Fail to allocate 67108865 bytes for " + big.path + "\n")});
    });
    EXPECT_EQ(
            "finalize=1 finalized=no raw=no merge=1 same=yes thrown=no mem\n retry=0 heap=yes "
            "device=yes owning=yes caller=3/null dump=5 client=Fail to alloc profile mem\nyes "
            "driver=Fail to alloc profile mem\n fds=yes maps=yes",
            result);
}

TEST(Reliability, DescriptorExhaustionFailsImportsAndReadsCleanly) {
    std::string data(kMiB + 5, '\0');
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<char>(i * 7 + i / 4096);
    const TempFile file("pattern", 0, data);
    const std::string& path = file.path;
    const std::string result = zel_test::RunInChild([&] {
        LogCapture log;
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
            std::string sink(1, '\0');
            FileBufferReader(path + ".missing").copy_buffer(&sink[0], 1, 0);
        }
        const int fds = zel_test::CountOpenFds();
        const int mappings = SharedMappings();

        // Fills every free descriptor number below a low limit but `spare` of them.
        const rlimit low = {256, 256};
        if (setrlimit(RLIMIT_NOFILE, &low) != 0) return std::string("cannot limit");
        std::vector<int> fillers;
        const auto fill = [&fillers](int spare) {
            for (int fd; (fd = open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;)
                fillers.push_back(fd);
            for (; spare > 0; --spare, fillers.pop_back())
                close(fillers.back());
        };

        // Two free numbers: both imports read the whole file over the handles they could open.
        fill(2);
        uint32_t whole = 0;
        std::unique_ptr<char[]> image = import_file_to_mem(path.c_str(), &whole, 0, 0);
        out += "owning=" +
               Yes(image && whole == data.size() && std::string(image.get(), whole) == data);
        char* block = nullptr;
        out += " caller=" + std::to_string(import_file_to_mem(path.c_str(), &block, nullptr, 0, 0));
        out += block != nullptr && std::string(block, data.size()) == data ? "/same" : "/differ";
        std::free(block);

        // None free: no reader handle, no duplicate for an import, no new device buffer.
        fill(0);
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
        fill(1);
        Buffer::sptr imported = manager.import_memory(source, 4096, 4096, 0);
        out += " retry=" + Yes(imported != nullptr && manager.delete_memory(imported) == 0);
        imported.reset();

        for (int fd : fillers)
            close(fd);
        out += " fds=" + Yes(zel_test::CountOpenFds() == fds);
        out += " maps=" + Yes(SharedMappings() == mappings);
        out += Missing(log,
                       {Line("  File Open Error\n"),
                        Line("* Handle clone failed: fd(" + std::to_string(source) + ")\n"),
                        MsgLine("Exception: mmap failed : fd(" + std::to_string(source) +
                                "), size(4096)"
                                "(src/common/zel_memory/importer/file_descriptor_importer:58)")});
        close(source);
        return out;
    });
    EXPECT_EQ(
            "owning=yes caller=0/same handles=0 valid=no read=2 nofile=yes import=Argument is "
            "nullptr(src/common/zel_memory/buffer_pool:41) device=yes retry=yes fds=yes maps=yes",
            result);
}

}  // namespace
