/*
 * The single place where new buffers are made: one allocator per allocation type, plus the
 * descriptor importer and the dummy importer. Buffers imported here refer to the factory's
 * FdImporter, so the factory must outlive them.
 */
#pragma once

#include <cstdint>
#include <map>
#include <memory>

#include "src/common/zel_memory/allocator/i_allocator.h"
#include "src/common/zel_memory/buffer.h"
#include "src/common/zel_memory/importer/i_importer.h"

namespace zel {
namespace memory {

enum BufferAllocationType : uint32_t {
    BUFFER_ALLOC_HEAP = 0,             // HeapAllocator, 4096-byte aligned
    BUFFER_ALLOC_DEVICE_CACHED = 1,    // dmabuf heap "system"
    BUFFER_ALLOC_DEVICE_UNCACHED = 2,  // dmabuf heap "system-uncached"
};

class BufferFactory {
  public:
    std::map<BufferAllocationType, std::shared_ptr<iAllocator>> allocators;
    std::shared_ptr<iImporter> importer;        // FdImporter
    std::shared_ptr<iImporter> dummy_importer;  // DummyImporter

    // Opens both dmabuf heaps; their "DeviceBufferAllocator initialization failed" leaves here.
    BufferFactory();
    virtual ~BufferFactory();

    // Null for a type without an allocator (logged) or when the allocator fails.
    Buffer::sptr allocate(BufferAllocationType type, uint32_t size);

    virtual Buffer::sptr allocate_heap(uint32_t size);
    // Ashmem is switched off in this build: always null.
    virtual Buffer::sptr allocate_ashmem(uint32_t size);
    virtual Buffer::sptr allocate_device_buffer_cache(uint32_t size);
    virtual Buffer::sptr allocate_device_buffer_noncache(uint32_t size);
    virtual Buffer::sptr import_buffer(int fd, uint32_t fd_size, uint32_t buf_size,
                                       uint32_t offset);

    Buffer::sptr dummy_buffer(int fd, uint32_t fd_size, uint32_t target_size, uint32_t offset,
                              void* va);
};

}  // namespace memory
}  // namespace zel
