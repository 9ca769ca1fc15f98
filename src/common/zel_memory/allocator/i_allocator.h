// Source of fresh memory of a requested size, wrapped in a Buffer::sptr whose deleter gives the
// memory back.
#pragma once

#include <cstdint>

#include "src/common/zel_memory/buffer.h"

namespace zel {
namespace memory {

class iAllocator {
  public:
    virtual ~iAllocator() = default;
    // Null on failure; never throws.
    virtual Buffer::sptr create_memory(uint32_t size) = 0;
};

}  // namespace memory
}  // namespace zel
