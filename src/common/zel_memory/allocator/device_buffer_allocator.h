/*
 * Memory that devices and other processes can share: dmabuf heap buffers, mapped into this
 * process. The descriptor of each buffer is owned by a native handle in the Buffer, so it can be
 * handed to a device driver or sent to another process.
 */
#pragma once

#include <BufferAllocator/BufferAllocator.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "debug/zel_debug.h"
#include "src/common/zel_memory/allocator/i_allocator.h"

namespace zel {
namespace memory {

class DeviceBufferAllocator : public iAllocator {
  public:
    std::string ion_heap_name;                   // legacy ion heap for devices without dmabuf heaps
    std::string heap_name;                       // dmabuf heap to allocate from
    std::unique_ptr<BufferAllocator> allocator;  // null until opened
    std::mutex mutex;                            // serialises opening, allocation and closing

    // Opens the platform allocator; throws "DeviceBufferAllocator initialization failed" when
    // that fails.
    explicit DeviceBufferAllocator(std::string heap_name);
    ~DeviceBufferAllocator() override;

    // A mapped dmabuf of `size` bytes. Null on failure, with the reason written to stdout.
    Buffer::sptr create_memory(uint32_t size) override;

    ZelReturn ZelMemoryDeviceBufferOpen();
    ZelReturn ZelMemoryDeviceBufferClose();

    // Needs only the buffer's own fields, so buffers outlive their allocator.
    static void DeviceBufferAllocatorDeleter(Buffer* buffer);
};

// The "system" heap: CPU-cached memory.
class DeviceBufferAllocatorCached : public DeviceBufferAllocator {
  public:
    DeviceBufferAllocatorCached();
};

// The "system-uncached" heap.
class DeviceBufferAllocatorUncached : public DeviceBufferAllocator {
  public:
    DeviceBufferAllocatorUncached();
};

}  // namespace memory
}  // namespace zel
