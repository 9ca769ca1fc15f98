// Handles, importers, allocators, factory, pool and manager: results, log lines and what each
// failure or release leaves behind.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "src/common/zel_memory/allocator/device_buffer_allocator.h"
#include "src/common/zel_memory/importer/file_descriptor_importer.h"
#include "src/common/zel_memory/memory_manager.h"
#include "src/common/zel_memory/native_handle_manager.h"
#include "support/log_capture.h"
#include "support/proc_stats.h"

namespace {

using namespace zel::memory;
using zel::TalornNnException;
using zel_test::Line;
using zel_test::LogCapture;
using zel_test::MsgLine;
using Lines = std::vector<std::string>;

const std::string kImporterAt = "(src/common/zel_memory/importer/file_descriptor_importer:";
const std::string kPoolAt = "(src/common/zel_memory/buffer_pool:";
const std::string kDeviceAt = "(src/common/zel_memory/allocator/device_buffer_allocator:";

// Heap a dmabuf descriptor came from: its exporter name, or the name of the host's memfd.
std::string HeapOf(int fd) {
    std::ifstream info("/proc/self/fdinfo/" + std::to_string(fd));
    for (std::string line; std::getline(info, line);)
        if (line.rfind("exp_name:", 0) == 0) return line.substr(line.find_last_of(" \t") + 1);
    const std::string link = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd));
    const size_t name = link.find("dmabuf:") + 7;
    return link.substr(name, link.find(' ', name) - name);
}

// Each case sets the zones it reads.
zel::debug::DbgPrintManager& mask = *zel::debug::DbgPrintManager::GetInstance();

TEST(MemoryTest, HandlesAndImportsOwnTheirDuplicateAndReleaseFromVa) {
    mask.set_mask(0x3F);
    LogCapture log;
    const int fds = zel_test::CountOpenFds(), fd = memfd_create("memory_test", MFD_CLOEXEC);
    const std::string from = std::to_string(fd);
    ASSERT_EQ(0, ftruncate(fd, 12288));
    native_handle_t* empty = native_handle_create(0, 0);
    for (const native_handle_t* source : {static_cast<native_handle_t*>(nullptr), empty}) {
        try {
            ADD_FAILURE() << NativeHandleManager::CloneNativeHandle(&empty, source);
        } catch (const TalornNnException& e) {
            EXPECT_STREQ("Invalid handle!(src/common/zel_memory/native_handle_manager:61)",
                         e.what());
        }
    }
    log.clear();  // nothing to close, nothing to read; no slot: refused, the descriptor stays open
    NativeHandleManager::RemoveNativeHandle(&empty);
    EXPECT_TRUE(log.contains(Line("* Handle is removed: it holds no descriptor\n")));
    NativeHandleManager::CreateNativeHandle(nullptr, fd);
    EXPECT_EQ(-1, NativeHandleManager::CloneNativeHandle(nullptr, fd));
    NativeHandleManager::RemoveNativeHandle(nullptr);
    EXPECT_EQ(2u, log.count(Line("* Handle slot is null: fd(" + from + ")\n")));
    EXPECT_TRUE(log.contains(Line("* Handle is null: nothing to remove\n")));

    FdImporter importer;
    const int dir = open("/", O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(nullptr, importer.import(fd, 8192, 8192 - 15, 16, nullptr));
    EXPECT_EQ(nullptr, importer.import(dir, 4096, 16, 0, nullptr));
    close(dir);
    EXPECT_TRUE(log.contains(
            MsgLine("Exception: Parameter is incorrect8177, 16, 8192" + kImporterAt + "52)")));
    EXPECT_TRUE(log.contains(MsgLine("Exception: mmap failed : fd(" + std::to_string(dir) +
                                     "), size(4096)" + kImporterAt + "58)")));

    // Imports outlive the caller's descriptor. The release unmaps fd_size bytes from va: all at
    // offset 0, up to the mapping's end (with a line) from an aligned va, nothing from another.
    log.clear();
    Buffer::sptr buffers[] = {importer.import(fd, 12288, 100, 0, nullptr),
                              importer.import(fd, 12288, 100, 300, nullptr),
                              importer.import(fd, 12288, 4096, 8192, nullptr)};  // to the end
    close(fd);
    ASSERT_TRUE(buffers[0] && buffers[1] && buffers[2]);
    EXPECT_TRUE(log.contains(MsgLine("fd :" + from + " will be cloned")));
    EXPECT_TRUE(log.contains(
            MsgLine("Handle is cloned: " + from + " -> " + std::to_string(buffers[2]->fd))));
    const char* pages_mapped[] = {"000", "111", "110"};
    mask.set_mask(0);
    for (int i = 0; i < 3; ++i) {
        char* base = static_cast<char*>(buffers[i]->base_va);
        std::ostringstream cut;
        cut << "* Buffer Deleter: unmapping 12288 bytes from va(" << buffers[i]->va
            << ") stops at the end of the mapping, after 4096 bytes\n";
        // A page of our own right after the mapping, where the kernel lets us place one.
        void* guard = mmap(base + 12288, 4096, PROT_READ,
                           MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
        log.clear();
        buffers[i].reset();
        EXPECT_EQ(i == 2 ? Lines{Line(cut.str())} : Lines{}, log.messages());
        std::string mapped;
        unsigned char vec;
        for (int page = 0; page < 4; ++page)
            mapped += mincore(base + page * 4096, 4096, &vec) == 0 ? '1' : '0';
        EXPECT_EQ(pages_mapped[i] + (guard == base + 12288 ? "1" : mapped.substr(3)), mapped);
        if (guard != MAP_FAILED) munmap(guard, 4096);
        munmap(base, 12288);
    }
    EXPECT_EQ(fds, zel_test::CountOpenFds());
}

TEST(MemoryTest, AllocatorsFactoryAndManagerTurnEveryFailureIntoItsResult) {
    TalornNnException error("src/x", 7);  // every failure's text: a copy shares the stream
    error << "a" << 5 << 6u << std::string("s");
    EXPECT_STREQ("a56s(src/x:7)", error.what());
    TalornNnException shared(error);
    error << "!";
    EXPECT_STREQ("a56s!(src/x:7)", shared.what());
    mask.set_mask(0x2B);
    LogCapture log;
    const int fds = zel_test::CountOpenFds();
    auto manager = std::make_unique<MemoryManager>();
    EXPECT_TRUE(log.contains(MsgLine("Open with heap: system-uncached, dmabuf_system_heap")));
    void* const at = reinterpret_cast<void*>(0x7f00);  // a dummy buffer wraps any address
    Buffer::sptr dummy = manager->dummy_memory(7, 0, 16, 8, at);  // fd_size 0: size + offset
    ASSERT_NE(nullptr, dummy);
    const std::string text = "va(0x7f08), base_va(0x7f00), size(16), offset(8), fd(7)";
    EXPECT_EQ(text + " 24", dummy->to_string() + " " + std::to_string(dummy->fd_size));
    EXPECT_EQ(nullptr, manager->get_user_raw_buffer(dummy));  // and pools nothing
    BufferPool& pool = *manager->buffer_pool;  // but can be pooled by hand, twice by value
    EXPECT_EQ(pool.add_buffer(dummy), pool.add_buffer(dummy));
    EXPECT_TRUE(log.contains(MsgLine("buffer map already has buffer: " + text)));
    pool.add_buffer(manager->dummy_memory(7, 0, 16, 8, at));
    EXPECT_EQ("BUFFER_MAP: " + text + "\nBUFFER_MAP: " + text + "\n", manager->to_string());
    EXPECT_NE(nullptr, manager->dummy_memory(3, 128, 100, 28, at));
    EXPECT_NE(nullptr, manager->dummy_memory(3, 4, 0xFFFFFFFFu, 2, at));  // the sum wraps to 1
    EXPECT_EQ(nullptr, manager->dummy_memory(3, 128, 101, 28, at));
    EXPECT_TRUE(log.contains(MsgLine(
            "Exception: Offset is bigger or equal than size(src/common/zel_memory/buffer:49)")));

    Buffer::sptr heap = manager->create_memory(ZEL_MM_HEAP, 1, 0);
    ZelBuffer* record = manager->get_user_raw_buffer(heap);
    ASSERT_TRUE(heap && record && heap->fd == -1);
    EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(heap->base_va) % 4096);
    EXPECT_GE(malloc_usable_size(heap->base_va), 4096u);
    EXPECT_EQ("system", HeapOf(manager->create_memory(ZEL_MM_DEVICE_BUFFER, 64, 1)->fd));
    Buffer::sptr uncached = manager->create_memory(ZEL_MM_DEVICE_BUFFER, 5000, 0);
    ASSERT_NE(nullptr, uncached);
    EXPECT_EQ("system-uncached", HeapOf(uncached->fd));
    EXPECT_EQ(5000u, uncached->size);
    EXPECT_EQ(8192, lseek(uncached->fd, 0, SEEK_END));  // whole pages, as the kernel's heaps
    memset(uncached->va, 0x5A, 5000);
    ZelBuffer copy = *manager->get_user_raw_buffer(uncached), stranger{at, 1, 0};
    EXPECT_EQ(uncached, manager->get_buffer(&copy));
    // More records alive at once than a thread keeps for reuse, released, then as many again:
    // each shows its own buffer, and once released its own address.
    for (int round = 0; round < 2; ++round) {
        std::vector<std::pair<Buffer::sptr, ZelBuffer*>> held(20);
        for (auto& [buffer, view] : held)
            view = manager->get_user_raw_buffer(buffer =
                                                        manager->create_memory(ZEL_MM_HEAP, 64, 0));
        for (auto& [buffer, view] : held) {
            EXPECT_EQ(buffer->va, view->va);
            manager->delete_memory(buffer);
            EXPECT_EQ(view, view->va);
        }
    }

    BufferFactory& factory = *manager->buffer_factory;
    testing::internal::CaptureStdout();
    log.clear();
    EXPECT_EQ(nullptr, manager->create_memory(ZEL_MM_HEAP, 0, 0));
    EXPECT_EQ(nullptr, manager->create_memory(static_cast<ZelMmType>(2), 64, 1));
    EXPECT_EQ(nullptr, manager->create_memory(ZEL_MM_ASHMEM, 64, 1));
    EXPECT_EQ(nullptr, manager->create_memory(ZEL_MM_DEVICE_BUFFER, 0, 0));
    static_cast<DeviceBufferAllocator&>(*factory.allocators[BUFFER_ALLOC_DEVICE_UNCACHED])
            .allocator.reset();
    EXPECT_EQ(nullptr, factory.allocate_device_buffer_noncache(4096));
    EXPECT_EQ(nullptr, factory.allocate(static_cast<BufferAllocationType>(3), 4096));
    EXPECT_EQ(nullptr, factory.import_buffer(-1, 4096, 16, 8));
    EXPECT_EQ("dmabuf_allocator allocation failed!" + kDeviceAt + "75)\n" +
                      "Allocator is not available." + kDeviceAt + "73)\n",
              testing::internal::GetCapturedStdout());
    const std::string no_buffer = MsgLine("Exception: Argument is nullptr" + kPoolAt + "41)");
    EXPECT_EQ((Lines{MsgLine("Exception at creation: Incorrect size(0) "
                             "requested(src/common/zel_memory/allocator/heap_allocator:49)"),
                     no_buffer,
                     MsgLine("Exception: type 2is not allowed to "
                             "create(src/common/zel_memory/memory_manager:57)"),
                     MsgLine("ashmem allocation is not allowed: Please check _ENABLE_ASHMEM is "
                             "enabled"),
                     no_buffer, no_buffer, MsgLine("(type, _size) = (3, 4096) is incorrect."),
                     Line("  fd(-1), fd_size(4096), buf_size(16), offset(8)\n"),
                     MsgLine("Exception: fd is incorrect: -1" + kImporterAt + "75)")}),
              log.messages());

    log.clear();  // deletions twice, of nothing and of what the pool no longer has; null lookups
    std::ostringstream results;
    results << manager->delete_memory(record) << manager->delete_memory(record)
            << manager->delete_memory(Buffer::sptr()) << manager->delete_memory(heap) << " "
            << manager->get_buffer(nullptr) << manager->get_fd(nullptr)
            << manager->get_user_raw_buffer(heap) << manager->get_fd(&stranger);
    EXPECT_EQ("0550 0-10-1", results.str());
    for (const std::string& line :
         Lines{"Memory Deletion is failed: buffer is not managed by map: please check local ptr is "
               "modified(src/common/zel_memory/buffer_pool:80)",
               "Memory deletion failed", "parameter is null" + kPoolAt + "93)",
               "Couldn't find buffer at map :" + heap->to_string() + kPoolAt + "105)",
               "buffer is not managed by map: " + heap->to_string(),
               "Failed to erase from buffer_map: " + heap->to_string(),
               "Not found user_buffer0" + kPoolAt + "99)"})
        EXPECT_TRUE(log.contains(MsgLine(line))) << line;
    log.clear();
    manager.reset();
    EXPECT_EQ(1u, log.count(Line("  Allocator is not available.\n")));
    EXPECT_EQ(0x5A, static_cast<unsigned char*>(uncached->va)[4999]);  // outlives its allocator
    uncached.reset();
    EXPECT_EQ(fds, zel_test::CountOpenFds());
}

}  // namespace
