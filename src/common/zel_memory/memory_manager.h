/*
 * Front door of the memory subsystem: buffers by memory type, imports of descriptors, and their
 * release by Buffer::sptr or by the user's ZelBuffer*. One mutex serialises every operation.
 * Failures come back as null, 5 or -1 (logged), except import_memory, which lets the pool's
 * exception out.
 */
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "debug/zel_debug.h"
#include "src/common/zel_memory/buffer.h"
#include "src/common/zel_memory/buffer_factory.h"
#include "src/common/zel_memory/buffer_pool.h"

namespace zel {
namespace memory {

// Memory type asked of create_memory; every other value is refused.
enum ZelMmType : uint32_t {
    ZEL_MM_DEVICE_BUFFER = 1,  // dmabuf: flag non-zero cached, flag zero uncached
    ZEL_MM_HEAP = 4,           // page-aligned heap memory
    ZEL_MM_ASHMEM = 5,         // refused in this build
};

class MemoryManager {
  public:
    std::unique_ptr<BufferFactory> buffer_factory;
    std::unique_ptr<BufferPool> buffer_pool;  // destroyed before the factory it calls back into
    std::mutex mutex;                         // held for the whole of every operation

    // Opens both dmabuf heaps; throws if one cannot be opened.
    MemoryManager();
    virtual ~MemoryManager();

    // A pooled buffer of `size` bytes; null (logged "Exception: ...") on any failure.
    virtual Buffer::sptr create_memory(ZelMmType type, uint32_t size, uint32_t flag);
    // Maps a duplicate of `fd` and pools it. Throws TalornNnException "Argument is nullptr" when
    // the import fails.
    virtual Buffer::sptr import_memory(int fd, uint32_t fd_size, uint32_t size, uint32_t offset);
    // Wraps the caller's own mapping; not pooled, freed with its last reference.
    virtual Buffer::sptr dummy_memory(int fd, uint32_t fd_size, uint32_t target_size,
                                      uint32_t offset, void* va);
    // 0, or 5 for a null or unknown record.
    virtual ZelReturn delete_memory(ZelBuffer* user_buffer);
    // 0 (also for an unknown buffer), or 5 for null.
    virtual ZelReturn delete_memory(Buffer::sptr buffer);
    virtual ZelBuffer* get_user_raw_buffer(Buffer::sptr buffer);
    // Found by va, offset and size, so a copy of the record works as well. Null if unknown.
    virtual Buffer::sptr get_buffer(ZelBuffer* user_buffer);
    // The descriptor of the buffer found as by get_buffer; -1 if unknown.
    virtual int get_fd(ZelBuffer* user_buffer);
    virtual std::string to_string();
};

}  // namespace memory
}  // namespace zel
