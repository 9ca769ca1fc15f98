// Turns memory the caller already has into a Buffer::sptr.
#pragma once

#include <cstdint>

#include "src/common/zel_memory/buffer.h"

namespace zel {
namespace memory {

class iImporter {
  public:
    virtual ~iImporter() = default;
    // Null on failure; never throws.
    virtual Buffer::sptr import(int fd, uint32_t fd_size, uint32_t size, uint32_t offset,
                                void* va) = 0;
};

}  // namespace memory
}  // namespace zel
