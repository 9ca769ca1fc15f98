#include "src/common/zel_memory/allocator/heap_allocator.h"

#include <cstdlib>

#include "debug/zel_debug.h"

namespace zel {
namespace memory {

using debug::ZONE_ERR;
using debug::ZONE_MEM;

namespace {
constexpr const char kPath[] = "src/common/zel_memory/allocator/heap_allocator";
}  // namespace

HeapAllocator::HeapAllocator(uint64_t alignment) : alignment(alignment) {}

Buffer::sptr HeapAllocator::create_memory(uint32_t size) {
    try {
        if (size == 0) throw TalornNnException(kPath, 49) << "Incorrect size(0) requested";
        // aligned_alloc wants a whole number of alignment units.
        const uint64_t rounded =
                alignment == 0 ? size : (size + alignment - 1) / alignment * alignment;
        void* block = aligned_alloc(alignment, rounded);
        if (block == nullptr) throw TalornNnException(kPath, 51) << "Heap allocation failed";
        Buffer* record;
        try {
            record = new Buffer(block, size, 0, size, -1, nullptr);
        } catch (...) {
            free(block);
            throw;
        }
        Buffer::sptr buffer(record, HeapAllocatorDeleter);
        ZEL_MSG(ZONE_MEM) << "Buffer Created: " << buffer->to_string() << std::endl;
        return buffer;
    } catch (const std::exception& e) {
        ZEL_MSG(ZONE_ERR) << "Exception at creation: " << e.what() << std::endl;
        return nullptr;
    }
}

void HeapAllocator::HeapAllocatorDeleter(Buffer* buffer) {
    try {
        ZEL_MSG(ZONE_MEM) << "Buffer Deleter: " << buffer->to_string() << std::endl;
    } catch (const std::exception& e) {
        ZEL_MSG(ZONE_ERR) << "Exception: " << e.what() << std::endl;
    }
    free(buffer->base_va);
    delete buffer;
}

}  // namespace memory
}  // namespace zel
