#include "src/common/zel_memory/memory_manager.h"

#include <exception>

namespace zel {
namespace memory {

using debug::ZONE_ERR;
using debug::ZONE_MEM;
using debug::ZONE_WAR;

MemoryManager::MemoryManager()
    : buffer_factory(std::make_unique<BufferFactory>()),
      buffer_pool(std::make_unique<BufferPool>()) {}

// Members go in reverse order: the pool (whose imported buffers call back into the factory's
// importer) before the factory.
MemoryManager::~MemoryManager() = default;

Buffer::sptr MemoryManager::create_memory(ZelMmType type, uint32_t size, uint32_t flag) {
    std::lock_guard<std::mutex> lock(mutex);
    try {
        Buffer::sptr buffer;
        switch (type) {
            case ZEL_MM_DEVICE_BUFFER:
                buffer = flag != 0 ? buffer_factory->allocate_device_buffer_cache(size)
                                   : buffer_factory->allocate_device_buffer_noncache(size);
                break;
            case ZEL_MM_HEAP:
                buffer = buffer_factory->allocate_heap(size);
                break;
            case ZEL_MM_ASHMEM:
                buffer = buffer_factory->allocate_ashmem(size);
                break;
            default:
                throw TalornNnException("src/common/zel_memory/memory_manager", 57)
                        << "type " << static_cast<uint32_t>(type) << "is not allowed to create";
        }
        // A failed allocation is turned into the pool's "Argument is nullptr" here.
        buffer_pool->add_buffer(buffer);
        return buffer;
    } catch (const std::exception& e) {
        ZEL_MSG(ZONE_ERR) << "Exception: " << e.what() << std::endl;
        return nullptr;
    }
}

Buffer::sptr MemoryManager::import_memory(int fd, uint32_t fd_size, uint32_t size,
                                          uint32_t offset) {
    std::lock_guard<std::mutex> lock(mutex);
    Buffer::sptr buffer = buffer_factory->import_buffer(fd, fd_size, size, offset);
    buffer_pool->add_buffer(buffer);
    return buffer;
}

Buffer::sptr MemoryManager::dummy_memory(int fd, uint32_t fd_size, uint32_t target_size,
                                         uint32_t offset, void* va) {
    std::lock_guard<std::mutex> lock(mutex);
    return buffer_factory->dummy_buffer(fd, fd_size, target_size, offset, va);
}

ZelReturn MemoryManager::delete_memory(ZelBuffer* user_buffer) {
    std::lock_guard<std::mutex> lock(mutex);
    try {
        buffer_pool->delete_buffer(user_buffer);
        ZEL_MSG(ZONE_MEM) << "Buffer deleted" << std::endl;
        return 0;
    } catch (const TalornNnException& e) {
        ZEL_MSG(ZONE_WAR) << "Memory Deletion is failed: " << e.what() << std::endl;
        return 5;
    } catch (const std::exception& e) {
        ZEL_MSG(ZONE_ERR) << "Memory deletion failed: " << e.what() << std::endl;
        return 5;
    }
}

ZelReturn MemoryManager::delete_memory(Buffer::sptr buffer) {
    std::lock_guard<std::mutex> lock(mutex);
    try {
        buffer_pool->delete_buffer(std::move(buffer));
        ZEL_MSG(ZONE_MEM) << "Buffer deleted" << std::endl;
        return 0;
    } catch (const std::exception&) {
        ZEL_MSG(ZONE_ERR) << "Memory deletion failed" << std::endl;
        return 5;
    }
}

ZelBuffer* MemoryManager::get_user_raw_buffer(Buffer::sptr buffer) {
    std::lock_guard<std::mutex> lock(mutex);
    try {
        return buffer_pool->get_buffer(std::move(buffer));
    } catch (const std::exception& e) {
        ZEL_MSG(ZONE_ERR) << e.what() << std::endl;
        return nullptr;
    }
}

Buffer::sptr MemoryManager::get_buffer(ZelBuffer* user_buffer) {
    std::lock_guard<std::mutex> lock(mutex);
    try {
        return buffer_pool->get_buffer(user_buffer);
    } catch (const std::exception& e) {
        ZEL_MSG(ZONE_ERR) << e.what() << std::endl;
        return nullptr;
    }
}

int MemoryManager::get_fd(ZelBuffer* user_buffer) {
    std::lock_guard<std::mutex> lock(mutex);
    try {
        return buffer_pool->get_buffer(user_buffer)->fd;
    } catch (const std::exception& e) {
        ZEL_MSG(ZONE_ERR) << e.what() << std::endl;
        return -1;
    }
}

std::string MemoryManager::to_string() {
    std::lock_guard<std::mutex> lock(mutex);
    return buffer_pool->to_string();
}

}  // namespace memory
}  // namespace zel
