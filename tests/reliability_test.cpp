// Out of memory (RLIMIT_AS) and out of descriptors (RLIMIT_NOFILE), each in a child process: every
// operation fails with its own result and line, and gives back every descriptor and mapping.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>

#include <fstream>
#include <sstream>

#include "src/common/zel_memory/memory_manager.h"
#include "support/child_process.h"
#include "support/log_capture.h"
#include "support/proc_stats.h"
#include "util/zel_utils.h"
#include "util/zel_utils_profiler_client.h"
#include "util/zel_utils_profiler_device.h"

namespace {

using namespace zel::util;
using namespace zel::memory;
using namespace zel_test;

constexpr size_t kMiB = 1 << 20;
const std::string kPath = "/tmp/zel_reliability_" + std::to_string(getpid());

size_t MappedBytes() {
    size_t pages = 0;
    return std::ifstream("/proc/self/statm") >> pages ? pages * getpagesize() : 0;
}

// Lets the process map only `headroom` more bytes; 0 lifts the limit back to the hard one.
bool LimitAddressSpace(size_t headroom) {
    rlimit limit;
    getrlimit(RLIMIT_AS, &limit);
    limit.rlim_cur = headroom == 0 ? limit.rlim_max : MappedBytes() + headroom;
    return setrlimit(RLIMIT_AS, &limit) == 0;
}

// " fds=1 maps=1" when both counts are back, then " missing: <text>" for every line not logged.
std::string Released(int fds, int maps, const LogCapture& log,
                     const std::vector<std::string>& texts) {
    std::string out = " fds=" + std::to_string(CountOpenFds() == fds) +
                      " maps=" + std::to_string(CountMemfdMappings() == maps);
    for (const std::string& text : texts)
        if (!log.contains(text)) out += " missing: " + text;
    return out;
}

TEST(ReliabilityTest, AllocationFailuresFailTheOperationAndLeaveNothingBehind) {
    if (getenv("ZEL_TEST_EMULATOR") != nullptr || MappedBytes() > (size_t{1} << 40))
        GTEST_SKIP() << "RLIMIT_AS cannot bound this process (sanitizer or emulator)";
    std::ofstream(kPath) << "model";
    ASSERT_EQ(0, truncate(kPath.c_str(), 64 * kMiB));
    const std::string result = RunInChild([] {
        LogCapture log;
        ZelProfiler queued(1, 50000, "service", false);  // 400,000 records: 16 MB of raw data
        for (int i = 0; i < 400000; ++i)
            i % 2 ? queued.add_record_end(SERVICE, 0, 0) : queued.add_record_start(TOTAL, 0, 0);
        std::vector<ZelProfileData> p, c;  // 8 MB each, 16 MB merged
        for (uint64_t i = 0; i < 100000; ++i) {
            p.insert(p.end(), {{START, SERVICE, 0, i, 10 * i}, {END, SERVICE, 0, i, 10 * i + 9}});
            c.insert(c.end(), {{START, CPU_UD, 3, i, 2}, {END, CPU_UD, 3, i, 5}});
        }
        ZelProfiler parent(7, p.data(), p.size() * 40, 50000, 100000, 2);
        ZelProfiler child(7, c.data(), c.size() * 40, 50000, 100000, 2);
        parent.set_leaf_docking_point({SERVICE, 0});
        ZelProfileData* before = parent.rawdata;
        MemoryManager manager;
        ZelClientProfiler client(3, 50000, false);  // 64 MiB of raw data to pack, never touched
        client.rawdata = static_cast<ZelProfileData*>(std::malloc(64 * kMiB));
        client.rawdata_size = client.rawdata != nullptr ? 64 * kMiB : 0;
        const int fds = CountOpenFds(), maps = CountMemfdMappings();

        if (!LimitAddressSpace(4 * kMiB)) return std::string("cannot limit");
        std::ostringstream out;
        out << "finalize=" << queued.finalize() << queued.finalized << (queued.rawdata != nullptr);
        out << " merge=" << parent.merge(&child)
            << (parent.rawdata == before && parent.num_label == 2 &&
                parent.rawdata_size == p.size() * 40);
        out << " heap=" << (manager.create_memory(ZEL_MM_HEAP, 64 * kMiB, 0) == nullptr);
        out << " device=" << (manager.create_memory(ZEL_MM_DEVICE_BUFFER, 64 * kMiB, 1) == nullptr);
        uint32_t whole = 0;
        char* image = nullptr;
        out << " owning=" << (import_file_to_mem(kPath.c_str(), &whole, 0, 0) == nullptr);
        out << " caller=" << import_file_to_mem(kPath.c_str(), &image, nullptr, 0, 0)
            << (image == nullptr) << " dump=" << FileBufferReader(kPath).dump_model_file();
        for (int i = 0; i < 3; ++i) {
            try {
                if (i == 0) ZelProfiler copy(7, p.data(), p.size() * 40, 50000, 100000, 2);
                if (i == 1) client.fill_profile_mem_to_send_service();
                if (i == 2) delete new ZelDeviceProfiler(4, 2000000, false);  // a 96 MB buffer
                out << " made";
            } catch (const std::runtime_error& e) {
                out << " thrown=" << e.what();
            }
        }
        LimitAddressSpace(0);  // memory is there again
        out << " retry=" << parent.merge(&child) << (client.profile_memory == nullptr);
        return out.str() +
               Released(fds, maps, log,
                        {Line("* Fail to alloc memory for rawdata\n"),
                         Line("* Fail to alloc memory for rawdata. size(16000000)\n"),
                         Line("* profiler mem alloc error\n"),
                         MsgLine("Exception at creation: Heap allocation failed"
                                 "(src/common/zel_memory/allocator/heap_allocator:51)"),
                         Line("* Fail to allocate 67108865 bytes for " + kPath + "\n")});
    });
    EXPECT_EQ(
            "finalize=100 merge=11 heap=1 device=1 owning=1 caller=31 dump=5 thrown=no mem\n "
            "thrown=Fail to alloc profile mem\n thrown=Fail to alloc profile mem\n retry=01 "
            "fds=1 maps=1",
            result);
    unlink(kPath.c_str());
}

// File and buffer imports and device buffers in four states of the descriptor table: numbers to
// spare, 2 free, none, 1.
TEST(ReliabilityTest, DescriptorExhaustionFailsImportsCleanly) {
    std::string data(kMiB + 5, '\0');
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<char>(i * 7 + i / 4096);
    std::ofstream(kPath, std::ios::binary) << data;
    const std::string result = RunInChild([&] {
        LogCapture log;
        MemoryManager manager;
        const int source = memfd_create("zel_source", MFD_CLOEXEC);
        if (source < 0 || ftruncate(source, 4096) != 0) return std::string("no memfd");
        const auto round = [&] {
            uint32_t whole = 0;
            char* block = nullptr;
            std::unique_ptr<char[]> image = import_file_to_mem(kPath.c_str(), &whole, 0, 0);
            std::ostringstream out;
            out << " owning=" << (image && std::string(image.get(), whole) == data)
                << " caller=" << import_file_to_mem(kPath.c_str(), &block, nullptr, 0, 0)
                << (block != nullptr && std::string(block, data.size()) == data) << " import=";
            std::free(block);
            try {
                out << manager.delete_memory(manager.import_memory(source, 4096, 4096, 0));
            } catch (const zel::TalornNnException& e) {
                out << e.what();
            }
            Buffer::sptr device = manager.create_memory(ZEL_MM_DEVICE_BUFFER, 4096, 1);
            out << " device=" << (device && manager.delete_memory(device) == 0) << " |";
            return out.str();
        };
        // Once with numbers to spare, and refused requests, so that UBSan's type checks (which
        // need a pipe the first time) are done before the table is full.
        std::string out = round();
        try {
            manager.create_memory(ZEL_MM_DEVICE_BUFFER, 0, 1);
            manager.import_memory(-1, 4096, 4096, 0);
        } catch (const zel::TalornNnException&) {
        }
        const int fds = CountOpenFds(), maps = CountMemfdMappings();
        const rlimit low = {256, 256};
        if (setrlimit(RLIMIT_NOFILE, &low) != 0) return std::string("cannot limit");
        std::vector<int> fillers;
        for (int spare : {2, 0, 1}) {  // fill every free number below the limit but `spare`
            for (int fd; (fd = open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;)
                fillers.push_back(fd);
            for (; spare > 0; --spare, fillers.pop_back())
                close(fillers.back());
            out += round();
        }
        for (int fd : fillers)
            close(fd);
        const std::string fd = "fd(" + std::to_string(source) + ")";
        out += Released(fds, maps, log,
                        {Line("* Handle clone failed: " + fd + "\n"),
                         MsgLine("Exception: mmap failed : " + fd +
                                 ", size(4096)"
                                 "(src/common/zel_memory/importer/file_descriptor_importer:58)")});
        close(source);
        return out;
    });
    const std::string fine = " owning=1 caller=01 import=0 device=1 |";
    EXPECT_EQ(fine + fine +
                      " owning=0 caller=30 import=Argument is "
                      "nullptr(src/common/zel_memory/buffer_pool:41) device=0 |" +
                      fine + " fds=1 maps=1",
              result);
    unlink(kPath.c_str());
}

}  // namespace
