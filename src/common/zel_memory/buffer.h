/*
 * Buffer: one piece of memory handed out by the memory subsystem (heap, dmabuf heap, imported
 * descriptor or a caller's own mapping), always held through Buffer::sptr. The deleter stored in
 * the shared pointer owns the memory and releases it with the last reference.
 *
 * ZelBuffer: the plain record that users see for a pooled buffer; it owns nothing.
 */
#pragma once

#include <cutils/native_handle.h>

#include <cstdint>
#include <memory>
#include <string>

#include "src/common/zel_memory/talorn_nn_exception.h"

namespace zel {
namespace memory {

class Buffer {
  public:
    typedef std::shared_ptr<Buffer> sptr;

    void* base_va;                   // start of the whole mapping or allocation
    uint32_t size;                   // bytes that belong to this buffer
    uint32_t offset;                 // first byte of the buffer inside the mapping
    uint32_t fd_size;                // size of the whole mapping; never zero after construction
    int32_t fd;                      // backing descriptor, -1 for heap memory
    native_handle_t* native_handle;  // owns fd, or null
    void* va;                        // base_va + offset

    // `va` is the base of the mapping. fd_size 0 means "exactly size + offset". Throws
    // TalornNnException when size + offset (32-bit sum) exceeds a non-zero fd_size.
    Buffer(void* va, uint32_t size, uint32_t offset, uint32_t fd_size, int fd,
           native_handle_t* handle);
    virtual ~Buffer();

    // "va(0x..), base_va(0x..), size(N), offset(N), fd(N)"
    std::string to_string();
};

// User-visible view of a pooled buffer: va already includes the offset.
struct ZelBuffer {
    void* va;
    uint32_t size;
    uint32_t offset;
};

}  // namespace memory
}  // namespace zel
