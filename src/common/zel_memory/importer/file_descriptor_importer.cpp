#include "src/common/zel_memory/importer/file_descriptor_importer.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>

#include "debug/zel_debug.h"
#include "src/common/zel_memory/native_handle_manager.h"

namespace zel {
namespace memory {

using debug::ZONE_ERR;
using debug::ZONE_MEM;

namespace {
constexpr const char kPath[] = "src/common/zel_memory/importer/file_descriptor_importer";
}  // namespace

Buffer::sptr FdImporter::import(int fd, uint32_t fd_size, uint32_t size, uint32_t offset,
                                void* /*va*/) {
    Buffer* imported = nullptr;
    {
        std::lock_guard<std::mutex> lock(mutex);
        native_handle_t* handle = nullptr;
        void* mapped = MAP_FAILED;
        try {
            if (static_cast<uint32_t>(size + offset) > fd_size) {
                throw TalornNnException(kPath, 52)
                        << "Parameter is incorrect" << size << ", " << offset << ", " << fd_size;
            }
            if (fd < 0) throw TalornNnException(kPath, 75) << "fd is incorrect: " << fd;

            const int new_fd = NativeHandleManager::CloneNativeHandle(&handle, fd);
            // The whole file is mapped; the offset only moves the buffer's va, so it need not be
            // page-aligned.
            mapped = mmap(nullptr, fd_size, PROT_READ | PROT_WRITE, MAP_SHARED, new_fd, 0);
            if (mapped == nullptr || mapped == MAP_FAILED) {
                mapped = MAP_FAILED;
                throw TalornNnException(kPath, 58)
                        << "mmap failed : fd(" << fd << "), size(" << fd_size << ")";
            }
            if (handle == nullptr) {
                throw TalornNnException(kPath, 62) << "Native Handle couldn't cloned : fd " << fd;
            }
            imported = new Buffer(mapped, size, offset, fd_size, new_fd, handle);
        } catch (const std::exception& e) {
            // Nothing made so far may outlive the failed import: the duplicate and the mapping.
            if (mapped != MAP_FAILED) munmap(mapped, fd_size);
            if (handle != nullptr) {
                native_handle_close(handle);
                native_handle_delete(handle);
            }
            ZEL_MSG(ZONE_ERR) << "Exception: " << e.what() << std::endl;
            return nullptr;
        }
    }
    // Outside the lock: a shared pointer that cannot be made releases the buffer through its
    // deleter, which takes the lock itself.
    try {
        return Buffer::sptr(imported, [this](Buffer* released) { release(released); });
    } catch (const std::exception& e) {
        ZEL_MSG(ZONE_ERR) << "Exception: " << e.what() << std::endl;
        return nullptr;
    }
}

void FdImporter::release(Buffer* buffer) {
    ZEL_MSG(ZONE_MEM) << "Buffer Deleter: " << buffer->to_string() << std::endl;
    std::lock_guard<std::mutex> lock(mutex);
    if (buffer->native_handle == nullptr) {
        delete buffer;
        return;
    }
    NativeHandleManager::RemoveNativeHandle(&buffer->native_handle);
    // The release unmaps fd_size bytes from va, the buffer's own first byte, not from base_va:
    // pages before va stay mapped. Where va is page-aligned and offset by something, that range
    // would run past the end of this import's mapping into whatever lies after it, so it is cut
    // at that end. An unaligned va is handed to munmap as it is, which refuses it.
    const auto page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    uint32_t length = buffer->fd_size;
    if (buffer->offset != 0 && reinterpret_cast<uintptr_t>(buffer->va) % page == 0) {
        length = buffer->fd_size - buffer->offset;
        ZEL_LOG(ZONE_ERR, debug::PRINT_ALWAYS,
                "* Buffer Deleter: unmapping %u bytes from va(%p) stops at the end of the "
                "mapping, after %u bytes\n",
                buffer->fd_size, buffer->va, length);
    }
    munmap(buffer->va, length);
    delete buffer;
}

Buffer::sptr DummyImporter::import(int fd, uint32_t fd_size, uint32_t size, uint32_t offset,
                                   void* va) {
    try {
        return Buffer::sptr(new Buffer(va, size, offset, fd_size, fd, nullptr),
                            DummyImporterDeleter);
    } catch (const std::exception& e) {
        ZEL_MSG(ZONE_ERR) << "Exception: " << e.what() << std::endl;
        return nullptr;
    }
}

void DummyImporter::DummyImporterDeleter(Buffer* buffer) {
    try {
        ZEL_MSG(ZONE_MEM) << "Buffer Deleter: " << buffer->to_string() << std::endl;
    } catch (const std::exception& e) {
        ZEL_MSG(ZONE_ERR) << "Exception: " << e.what() << std::endl;
    }
    delete buffer;
}

}  // namespace memory
}  // namespace zel
