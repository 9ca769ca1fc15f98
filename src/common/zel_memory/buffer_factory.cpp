#include "src/common/zel_memory/buffer_factory.h"

#include <stdexcept>

#include "debug/zel_debug.h"
#include "src/common/zel_memory/allocator/device_buffer_allocator.h"
#include "src/common/zel_memory/allocator/heap_allocator.h"
#include "src/common/zel_memory/importer/file_descriptor_importer.h"

namespace zel {
namespace memory {

using debug::PRINT_TRACE;
using debug::ZONE_ERR;
using debug::ZONE_MEM;

BufferFactory::BufferFactory() {
    allocators[BUFFER_ALLOC_HEAP] = std::make_shared<HeapAllocator>(4096);
    dummy_importer = std::make_shared<DummyImporter>();
    allocators[BUFFER_ALLOC_DEVICE_CACHED] = std::make_shared<DeviceBufferAllocatorCached>();
    allocators[BUFFER_ALLOC_DEVICE_UNCACHED] = std::make_shared<DeviceBufferAllocatorUncached>();
    importer = std::make_shared<FdImporter>();
}

BufferFactory::~BufferFactory() = default;

Buffer::sptr BufferFactory::allocate(BufferAllocationType type, uint32_t size) {
    iAllocator* allocator;
    try {
        allocator = allocators.at(type).get();
    } catch (const std::out_of_range&) {
        ZEL_MSG(ZONE_ERR) << "(type, _size) = (" << type << ", " << size << ") is incorrect."
                          << std::endl;
        return nullptr;
    }
    if (allocator == nullptr) return nullptr;
    return allocator->create_memory(size);
}

Buffer::sptr BufferFactory::allocate_heap(uint32_t size) {
    return allocate(BUFFER_ALLOC_HEAP, size);
}

Buffer::sptr BufferFactory::allocate_ashmem(uint32_t /*size*/) {
    ZEL_MSG(ZONE_ERR) << "ashmem allocation is not allowed: Please check _ENABLE_ASHMEM is enabled"
                      << std::endl;
    return nullptr;
}

Buffer::sptr BufferFactory::allocate_device_buffer_cache(uint32_t size) {
    return allocate(BUFFER_ALLOC_DEVICE_CACHED, size);
}

Buffer::sptr BufferFactory::allocate_device_buffer_noncache(uint32_t size) {
    return allocate(BUFFER_ALLOC_DEVICE_UNCACHED, size);
}

Buffer::sptr BufferFactory::import_buffer(int fd, uint32_t fd_size, uint32_t buf_size,
                                          uint32_t offset) {
    ZEL_LOG(ZONE_MEM, PRINT_TRACE, "  fd(%d), fd_size(%d), buf_size(%d), offset(%d)\n", fd,
            static_cast<int>(fd_size), static_cast<int>(buf_size), static_cast<int>(offset));
    if (!importer) {
        ZEL_MSG(ZONE_ERR) << "There's no importer" << std::endl;
        return nullptr;
    }
    return importer->import(fd, fd_size, buf_size, offset, nullptr);
}

Buffer::sptr BufferFactory::dummy_buffer(int fd, uint32_t fd_size, uint32_t target_size,
                                         uint32_t offset, void* va) {
    ZEL_LOG(ZONE_MEM, PRINT_TRACE, "  fd(%d), fd_size(%d), target_size(%d), offset(%d), va(%p)\n",
            fd, static_cast<int>(fd_size), static_cast<int>(target_size), static_cast<int>(offset),
            va);
    if (!dummy_importer) {
        // Same answer as a missing fd importer: nothing to wrap the address with.
        ZEL_MSG(ZONE_ERR) << "There's no importer" << std::endl;
        return nullptr;
    }
    return dummy_importer->import(fd, fd_size, target_size, offset, va);
}

}  // namespace memory
}  // namespace zel
