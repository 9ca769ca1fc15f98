// Buffers, importers, allocators, factory, pool and manager: results, log lines and what each
// failure leaves behind.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <memory>

#include "src/common/zel_memory/allocator/device_buffer_allocator.h"
#include "src/common/zel_memory/allocator/heap_allocator.h"
#include "src/common/zel_memory/importer/file_descriptor_importer.h"
#include "src/common/zel_memory/memory_manager.h"
#include "src/common/zel_memory/native_handle_manager.h"
#include "support/log_capture.h"
#include "support/proc_stats.h"

namespace {

using namespace zel::memory;
using zel::TalornNnException;
using zel::debug::DbgPrintManager;
using zel_test::Line;
using zel_test::LogCapture;
using zel_test::MsgLine;

const std::string kImporterAt = "(src/common/zel_memory/importer/file_descriptor_importer:";
const std::string kPoolAt = "(src/common/zel_memory/buffer_pool:";
const std::string kDeviceAt = "(src/common/zel_memory/allocator/device_buffer_allocator:";

// what() of the TalornNnException that `body` throws.
template <typename Body>
std::string Thrown(Body body) {
    try {
        body();
    } catch (const TalornNnException& e) {
        return e.what();
    }
    return "<nothing thrown>";
}

class MemoryTest : public ::testing::Test {
  protected:
    void SetUp() override { saved_ = DbgPrintManager::GetInstance()->get_print_mask(); }
    void TearDown() override { DbgPrintManager::GetInstance()->set_mask(saved_); }
    void set_mask(uint64_t mask) { DbgPrintManager::GetInstance()->set_mask(mask); }

    // A sealed-size-free memfd of `size` bytes whose byte i is (i % 251).
    static int PatternFd(size_t size) {
        int fd = memfd_create("memory_test", MFD_CLOEXEC);
        std::string data(size, '\0');
        for (size_t i = 0; i < size; ++i)
            data[i] = static_cast<char>(i % 251);
        EXPECT_EQ(static_cast<ssize_t>(size), pwrite(fd, data.data(), size, 0));
        return fd;
    }
    static bool IsOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }
    static bool IsMapped(void* page) {
        unsigned char vec;
        return mincore(page, 4096, &vec) == 0;
    }
    // Heap a dmabuf descriptor came from: its exporter name, or the name of the host's memfd.
    static std::string HeapOf(int fd) {
        std::ifstream info("/proc/self/fdinfo/" + std::to_string(fd));
        for (std::string line; std::getline(info, line);) {
            if (line.rfind("exp_name:", 0) == 0) return line.substr(line.find_last_of(" \t") + 1);
        }
        char link[256] = {};
        readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), link, sizeof(link) - 1);
        std::string name(link);
        name = name.substr(name.find("dmabuf:") + 7);
        return name.substr(0, name.find(' '));
    }

    static std::string Ptr(void* address) {
        char text[32];
        snprintf(text, sizeof(text), "%p", address);
        return text;
    }

  private:
    uint64_t saved_ = 0;
};

TEST(MemoryBuffer, SizesAreCheckedIn32BitsAndDescribedOnOneLine) {
    char base[256];
    Buffer derived(base, 100, 28, 0, -1, nullptr);
    EXPECT_EQ(128u, derived.fd_size);
    EXPECT_EQ(base + 28, derived.va);

    EXPECT_NO_THROW(Buffer(base, 100, 28, 128, -1, nullptr));
    EXPECT_EQ("Offset is bigger or equal than size(src/common/zel_memory/buffer:49)",
              Thrown([&] { Buffer(base, 101, 28, 128, -1, nullptr); }));
    // 0xFFFFFFFF + 2 wraps to 1, which fits in 4.
    EXPECT_NO_THROW(Buffer(base, 0xFFFFFFFFu, 2, 4, -1, nullptr));

    Buffer heap(reinterpret_cast<void*>(0x7f00), 4096, 0, 4096, -1, nullptr);
    EXPECT_EQ("va(0x7f00), base_va(0x7f00), size(4096), offset(0), fd(-1)", heap.to_string());
}

TEST(MemoryException, WhatIsRebuiltAndTheStreamIsSharedByCopies) {
    TalornNnException error("src/x", 7);
    EXPECT_STREQ("", error.what());
    error << "a" << 5 << 6u << std::string("s");
    EXPECT_STREQ("a56s(src/x:7)", error.what());
    EXPECT_STREQ("a56s(src/x:7)", error.what());
    TalornNnException copy(error);
    error << "!";
    EXPECT_STREQ("a56s!(src/x:7)", copy.what());
    EXPECT_EQ(0, copy.reserved);
}

TEST_F(MemoryTest, NativeHandlesOwnExactlyOneDescriptor) {
    set_mask(0x3F);
    LogCapture log;
    const int fds = zel_test::CountOpenFds();
    const int fd = PatternFd(4096);
    native_handle_t* handle = nullptr;
    const int dup_fd = NativeHandleManager::CloneNativeHandle(&handle, fd);
    ASSERT_NE(nullptr, handle);
    EXPECT_NE(fd, dup_fd);
    EXPECT_EQ(dup_fd, handle->data[0]);
    EXPECT_TRUE(log.contains(MsgLine("fd :" + std::to_string(fd) + " will be cloned")));
    EXPECT_TRUE(log.contains(
            MsgLine("Handle is cloned: " + std::to_string(fd) + " -> " + std::to_string(dup_fd))));
    NativeHandleManager::RemoveNativeHandle(&handle);
    EXPECT_FALSE(IsOpen(dup_fd));
    EXPECT_TRUE(IsOpen(fd));
    close(fd);

    native_handle_t* empty = native_handle_create(0, 0);
    for (const native_handle_t* source : {static_cast<native_handle_t*>(nullptr), empty}) {
        EXPECT_EQ("Invalid handle!(src/common/zel_memory/native_handle_manager:61)",
                  Thrown([&] { NativeHandleManager::CloneNativeHandle(&handle, source); }));
    }
    NativeHandleManager::RemoveNativeHandle(&empty);  // nothing to close, nothing to read
    EXPECT_EQ(fds, zel_test::CountOpenFds());
}

TEST_F(MemoryTest, FdImportChecksItsArgumentsAndOwnsADuplicate) {
    LogCapture log;
    FdImporter importer;
    const int fds = zel_test::CountOpenFds();
    const int fd = PatternFd(8192);

    Buffer::sptr empty = importer.import(fd, 8192, 0, 0, nullptr);
    ASSERT_NE(nullptr, empty);
    EXPECT_EQ(0u, empty->size);
    EXPECT_NE(nullptr, importer.import(fd, 8192, 8192 - 16, 16, nullptr));
    EXPECT_EQ(nullptr, importer.import(fd, 8192, 8192 - 15, 16, nullptr));
    EXPECT_TRUE(log.contains(
            MsgLine("Exception: Parameter is incorrect8177, 16, 8192" + kImporterAt + "52)")));
    EXPECT_EQ(nullptr, importer.import(-1, 4096, 16, 0, nullptr));
    EXPECT_TRUE(log.contains(MsgLine("Exception: fd is incorrect: -1" + kImporterAt + "75)")));

    // A descriptor that cannot be mapped: the duplicate made for it must not stay open.
    int pipe_fds[2];
    ASSERT_EQ(0, pipe(pipe_fds));
    EXPECT_EQ(nullptr, importer.import(pipe_fds[0], 4096, 16, 0, nullptr));
    EXPECT_TRUE(log.contains(MsgLine("Exception: mmap failed : fd(" + std::to_string(pipe_fds[0]) +
                                     "), size(4096)" + kImporterAt + "58)")));
    close(pipe_fds[0]);
    close(pipe_fds[1]);
    // A descriptor number that is not open cannot even be duplicated.
    EXPECT_EQ(nullptr, importer.import(9999, 4096, 16, 0, nullptr));
    EXPECT_TRUE(log.contains(
            MsgLine("Exception: mmap failed : fd(9999), size(4096)" + kImporterAt + "58)")));

    Buffer::sptr buffer = importer.import(fd, 8192, 100, 300, nullptr);
    ASSERT_NE(nullptr, buffer);
    close(fd);  // the buffer keeps its own descriptor
    EXPECT_EQ(static_cast<char>(300 % 251), *static_cast<char*>(buffer->va));
    EXPECT_EQ(8192u, buffer->fd_size);
    const std::string released = "* Buffer Deleter: offset(300) buffer unmapped from base_va(" +
                                 Ptr(buffer->base_va) + "), not va(" + Ptr(buffer->va) + ")\n";
    empty.reset();
    buffer.reset();
    EXPECT_EQ(fds, zel_test::CountOpenFds());
    EXPECT_TRUE(log.contains(Line(released)));
}

// Releasing an import that starts inside its mapping must unmap that whole mapping and nothing
// beyond it: unmapping fd_size bytes from va would leave the first page mapped and reach into the
// page after the mapping.
TEST_F(MemoryTest, OffsetImportReleasesExactlyItsOwnMapping) {
    LogCapture log;
    FdImporter importer;
    const int fd = PatternFd(8192);
    for (uint32_t offset : {16u, 4096u}) {
        Buffer::sptr buffer = importer.import(fd, 8192, 4096, offset, nullptr);
        ASSERT_NE(nullptr, buffer);
        char* base = static_cast<char*>(buffer->base_va);
        char* after = base + 8192;
        void* guard = mmap(after, 4096, PROT_READ | PROT_WRITE,
                           MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
        const bool own_guard = guard == after;
        if (!own_guard && guard != MAP_FAILED) munmap(guard, 4096);  // flag not supported
        const bool after_mapped = IsMapped(after);
        if (own_guard) *after = 'g';

        buffer.reset();
        EXPECT_FALSE(IsMapped(base)) << offset;
        EXPECT_FALSE(IsMapped(base + 4096)) << offset;
        EXPECT_EQ(after_mapped, IsMapped(after)) << offset;
        if (own_guard) {
            EXPECT_EQ('g', *after);
            munmap(after, 4096);
        }
    }
    close(fd);
}

TEST_F(MemoryTest, DummyImportWrapsCallerMemoryWithoutOwningIt) {
    LogCapture log;
    MemoryManager manager;
    const int fd = PatternFd(64);
    char memory[64];
    Buffer::sptr dummy = manager.dummy_memory(fd, 0, 16, 8, memory);
    ASSERT_NE(nullptr, dummy);
    EXPECT_EQ(24u, dummy->fd_size);
    EXPECT_EQ(memory + 8, dummy->va);
    EXPECT_EQ(fd, dummy->fd);
    EXPECT_EQ(nullptr, manager.get_user_raw_buffer(dummy));  // not pooled
    dummy.reset();
    EXPECT_TRUE(IsOpen(fd));
    close(fd);

    EXPECT_EQ(reinterpret_cast<void*>(8), manager.dummy_memory(-1, 0, 16, 8, nullptr)->va);
    EXPECT_EQ(nullptr, manager.dummy_memory(3, 16, 16, 1, memory));
    EXPECT_TRUE(log.contains(MsgLine(
            "Exception: Offset is bigger or equal than size(src/common/zel_memory/buffer:49)")));
}

TEST_F(MemoryTest, HeapBuffersArePageRoundedButReportTheRequestedSize) {
    LogCapture log;
    HeapAllocator allocator(4096);
    Buffer::sptr buffer = allocator.create_memory(1);
    ASSERT_NE(nullptr, buffer);
    EXPECT_EQ(1u, buffer->size);
    EXPECT_EQ(1u, buffer->fd_size);
    EXPECT_EQ(-1, buffer->fd);
    EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(buffer->base_va) % 4096);
    EXPECT_GE(malloc_usable_size(buffer->base_va), 4096u);

    EXPECT_EQ(nullptr, allocator.create_memory(0));
    EXPECT_EQ(std::vector<std::string>{MsgLine(
                      "Exception at creation: Incorrect size(0) "
                      "requested(src/common/zel_memory/allocator/heap_allocator:49)")},
              log.messages());
}

TEST_F(MemoryTest, DeviceAllocatorsUseTheirHeapAndReportFailuresOnStdout) {
    set_mask(0xB);
    LogCapture log;
    const int fds = zel_test::CountOpenFds();
    auto allocator = std::make_unique<DeviceBufferAllocatorUncached>();
    EXPECT_TRUE(log.contains(MsgLine("Open with heap: system-uncached, dmabuf_system_heap")));

    Buffer::sptr buffer = allocator->create_memory(100);
    ASSERT_NE(nullptr, buffer);
    EXPECT_EQ(100u, buffer->size);
    EXPECT_EQ(100u, buffer->fd_size);
    ASSERT_NE(nullptr, buffer->native_handle);
    EXPECT_EQ(buffer->fd, buffer->native_handle->data[0]);
    EXPECT_EQ("system-uncached", HeapOf(buffer->fd));
    memset(buffer->va, 0x5A, 100);

    testing::internal::CaptureStdout();
    EXPECT_EQ(nullptr, allocator->create_memory(0));
    allocator->allocator.reset();
    EXPECT_EQ(nullptr, allocator->create_memory(4096));
    EXPECT_EQ("dmabuf_allocator allocation failed!" + kDeviceAt + "75)\n" +
                      "Allocator is not available." + kDeviceAt + "73)\n",
              testing::internal::GetCapturedStdout());

    log.clear();
    allocator.reset();
    EXPECT_EQ(std::vector<std::string>{Line("  Allocator is not available.\n")}, log.messages());
    // The buffer needs nothing of its allocator to be released.
    EXPECT_EQ(0x5A, static_cast<unsigned char*>(buffer->va)[99]);
    buffer.reset();
    EXPECT_EQ(fds, zel_test::CountOpenFds());
}

TEST_F(MemoryTest, FactoryRefusesUnknownTypesAndAshmem) {
    set_mask(0x23);
    LogCapture log;
    BufferFactory factory;
    EXPECT_EQ(nullptr, factory.allocate(static_cast<BufferAllocationType>(3), 4096));
    EXPECT_EQ(nullptr, factory.allocate_ashmem(4096));
    EXPECT_EQ(nullptr, factory.import_buffer(-1, 4096, 16, 8));
    const std::vector<std::string> expected = {
            MsgLine("(type, _size) = (3, 4096) is incorrect."),
            MsgLine("ashmem allocation is not allowed: Please check _ENABLE_ASHMEM is enabled"),
            Line("  fd(-1), fd_size(4096), buf_size(16), offset(8)\n"),
            MsgLine("Exception: fd is incorrect: -1" + kImporterAt + "75)")};
    EXPECT_EQ(expected, log.messages());
}

TEST_F(MemoryTest, PoolKeepsOneRecordPerBufferAndMatchesRecordsByValue) {
    LogCapture log;
    DummyImporter importer;
    char memory[64];
    Buffer::sptr first = importer.import(-1, 64, 32, 0, memory);
    Buffer::sptr second = importer.import(-1, 64, 32, 0, memory);
    Buffer::sptr lower = first.get() < second.get() ? first : second;
    BufferPool pool;
    UserBufferSptr record = pool.add_buffer(first);
    EXPECT_EQ(record, pool.add_buffer(first));
    EXPECT_TRUE(log.contains(MsgLine("buffer map already has buffer: " + first->to_string())));
    pool.add_buffer(second);
    EXPECT_EQ(2u, pool.buffer_map.size());
    EXPECT_EQ("BUFFER_MAP: " + lower->to_string() + "\nBUFFER_MAP: " + lower->to_string() + "\n",
              pool.to_string());

    ZelBuffer copy = *record;
    EXPECT_EQ(lower, pool.get_buffer(&copy));
    pool.delete_buffer(&copy);
    EXPECT_EQ(0u, pool.buffer_map.count(lower));

    ZelBuffer stranger{memory, 1, 0};
    EXPECT_EQ("Not found user_buffer0" + kPoolAt + "99)",
              Thrown([&] { pool.get_buffer(&stranger); }));
    EXPECT_EQ("buffer is not managed by map: please check local ptr is modified" + kPoolAt + "80)",
              Thrown([&] { pool.delete_buffer(&stranger); }));
    log.clear();
    pool.delete_buffer(lower);  // unknown by now: logged, not thrown
    EXPECT_EQ((std::vector<std::string>{
                      MsgLine("buffer is not managed by map: " + lower->to_string()),
                      MsgLine("Failed to erase from buffer_map: " + lower->to_string())}),
              log.messages());
    EXPECT_EQ(1u, pool.buffer_map.size());
}

TEST_F(MemoryTest, ManagerTurnsEveryFailureIntoItsResult) {
    LogCapture log;
    MemoryManager manager;
    Buffer::sptr heap = manager.create_memory(ZEL_MM_HEAP, 4096, 0);
    ASSERT_NE(nullptr, heap);
    EXPECT_EQ(-1, heap->fd);
    ZelBuffer* record = manager.get_user_raw_buffer(heap);
    ASSERT_NE(nullptr, record);
    EXPECT_EQ(heap->va, record->va);
    EXPECT_EQ("system", HeapOf(manager.create_memory(ZEL_MM_DEVICE_BUFFER, 64, 1)->fd));
    Buffer::sptr uncached = manager.create_memory(ZEL_MM_DEVICE_BUFFER, 64, 0);
    EXPECT_EQ("system-uncached", HeapOf(uncached->fd));

    log.clear();
    EXPECT_EQ(nullptr, manager.create_memory(static_cast<ZelMmType>(2), 64, 1));
    EXPECT_EQ(nullptr, manager.create_memory(ZEL_MM_ASHMEM, 64, 1));
    EXPECT_EQ((std::vector<std::string>{
                      MsgLine("Exception: type 2is not allowed to "
                              "create(src/common/zel_memory/memory_manager:57)"),
                      MsgLine("ashmem allocation is not allowed: Please check _ENABLE_ASHMEM is "
                              "enabled"),
                      MsgLine("Exception: Argument is nullptr" + kPoolAt + "41)")}),
              log.messages());

    // A failed import leaves as an exception, with the manager still usable afterwards.
    EXPECT_EQ("Argument is nullptr" + kPoolAt + "41)",
              Thrown([&] { manager.import_memory(uncached->fd, 4096, 4096, 1); }));
    ZelBuffer copy = *manager.get_user_raw_buffer(uncached);
    EXPECT_EQ(uncached->fd, manager.get_fd(&copy));
    EXPECT_EQ(uncached, manager.get_buffer(&copy));

    log.clear();
    EXPECT_EQ(0, manager.delete_memory(record));
    EXPECT_EQ(5, manager.delete_memory(record));  // the same record again
    EXPECT_EQ(5, manager.delete_memory(Buffer::sptr()));
    EXPECT_EQ(0, manager.delete_memory(heap));  // unknown by now: the pool only logs
    EXPECT_EQ(nullptr, manager.get_buffer(nullptr));
    EXPECT_EQ(-1, manager.get_fd(nullptr));
    EXPECT_EQ(nullptr, manager.get_user_raw_buffer(heap));
    EXPECT_TRUE(log.contains(MsgLine(
            "Memory Deletion is failed: buffer is not managed by map: please check local ptr "
            "is modified" +
            kPoolAt + "80)")));
    EXPECT_TRUE(log.contains(MsgLine("Memory deletion failed")));
    EXPECT_TRUE(log.contains(MsgLine("parameter is null" + kPoolAt + "93)")));
    EXPECT_TRUE(log.contains(
            MsgLine("Couldn't find buffer at map :" + heap->to_string() + kPoolAt + "105)")));
}

}  // namespace
