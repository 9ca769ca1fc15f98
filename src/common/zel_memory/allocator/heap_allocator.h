// Page-aligned process memory (aligned_alloc), for buffers that no device shares.
#pragma once

#include <cstdint>

#include "src/common/zel_memory/allocator/i_allocator.h"

namespace zel {
namespace memory {

class HeapAllocator : public iAllocator {
  public:
    uint64_t alignment;  // every block is aligned to, and rounded up to, this many bytes

    explicit HeapAllocator(uint64_t alignment = 4096);

    // A buffer of `size` bytes (fd -1, fd_size = size) in a block rounded up to whole
    // alignment units, not cleared. Null for size 0 or when the allocation fails.
    Buffer::sptr create_memory(uint32_t size) override;

    static void HeapAllocatorDeleter(Buffer* buffer);
};

}  // namespace memory
}  // namespace zel
