#include "src/common/zel_memory/allocator/device_buffer_allocator.h"

#include <sys/mman.h>
#include <unistd.h>

#include <iostream>

#include "src/common/zel_memory/native_handle_manager.h"

namespace zel {
namespace memory {

using debug::ZONE_DBG;
using debug::ZONE_ERR;
using debug::ZONE_MEM;

namespace {
constexpr const char kPath[] = "src/common/zel_memory/allocator/device_buffer_allocator";
}  // namespace

DeviceBufferAllocator::DeviceBufferAllocator(std::string heap_name)
    : ion_heap_name("dmabuf_system_heap"), heap_name(std::move(heap_name)) {
    std::unique_lock<std::mutex> lock(mutex);
    if (ZelMemoryDeviceBufferOpen() != 0) {
        lock.unlock();
        throw TalornNnException(kPath, 63) << "DeviceBufferAllocator initialization failed";
    }
}

DeviceBufferAllocator::~DeviceBufferAllocator() {
    std::lock_guard<std::mutex> lock(mutex);
    ZelMemoryDeviceBufferClose();
}

ZelReturn DeviceBufferAllocator::ZelMemoryDeviceBufferOpen() {
    allocator = std::make_unique<BufferAllocator>();
    // Devices without dmabuf heaps fall back to the legacy ion heap (mask 1, no flags).
    allocator->MapNameToIonHeap(heap_name, ion_heap_name, 0, 1, 0);
    ZEL_MSG(ZONE_DBG) << "Open with heap: " << heap_name << ", " << ion_heap_name << std::endl;
    return 0;
}

ZelReturn DeviceBufferAllocator::ZelMemoryDeviceBufferClose() {
    if (!allocator) {
        ZEL_LOG(ZONE_ERR, debug::PRINT_IF_ON, "  Allocator is not available.\n");
        return 0;
    }
    allocator.reset();
    return 0;
}

Buffer::sptr DeviceBufferAllocator::create_memory(uint32_t size) {
    std::lock_guard<std::mutex> lock(mutex);
    try {
        if (!allocator) throw TalornNnException(kPath, 73) << "Allocator is not available.";
        const int fd = allocator->Alloc(heap_name, size, 0, 0);
        if (fd < 0) throw TalornNnException(kPath, 75) << "dmabuf_allocator allocation failed!";

        native_handle_t* handle = nullptr;
        NativeHandleManager::CreateNativeHandle(&handle, fd);
        if (handle == nullptr) {
            // Already reported; without a handle nothing could close fd later.
            close(fd);
            return nullptr;
        }
        void* mapped = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (mapped == nullptr || mapped == MAP_FAILED) {
            close(fd);
            // The handle only wrapped fd, which is closed now: free the handle itself too.
            native_handle_delete(handle);
            throw TalornNnException(kPath, 82)
                    << "mmap failed : fd(" << fd << "), size(" << size << ")";
        }
        Buffer* record;
        try {
            record = new Buffer(mapped, size, 0, size, fd, handle);
        } catch (...) {
            munmap(mapped, size);
            native_handle_close(handle);
            native_handle_delete(handle);
            throw;
        }
        // Should the shared pointer fail to allocate, it applies the deleter itself.
        Buffer::sptr buffer(record, DeviceBufferAllocatorDeleter);
        ZEL_MSG(ZONE_MEM) << "Buffer Created: " << buffer->to_string() << std::endl;
        return buffer;
    } catch (const std::exception& e) {
        std::cout << e.what() << std::endl;
        return nullptr;
    }
}

void DeviceBufferAllocator::DeviceBufferAllocatorDeleter(Buffer* buffer) {
    try {
        ZEL_MSG(ZONE_MEM) << "Buffer Deleter: " << buffer->to_string() << std::endl;
        NativeHandleManager::RemoveNativeHandle(&buffer->native_handle);
    } catch (const std::exception& e) {
        ZEL_MSG(ZONE_ERR) << "Exception: " << e.what() << std::endl;
    }
    // Whatever the log did, the mapping goes.
    munmap(buffer->va, buffer->fd_size);
    delete buffer;
}

DeviceBufferAllocatorCached::DeviceBufferAllocatorCached() : DeviceBufferAllocator("system") {}

DeviceBufferAllocatorUncached::DeviceBufferAllocatorUncached()
    : DeviceBufferAllocator("system-uncached") {}

}  // namespace memory
}  // namespace zel
