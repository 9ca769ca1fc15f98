#include "src/common/zel_memory/buffer.h"

#include <cstdint>
#include <sstream>

namespace zel {
namespace memory {

namespace {
constexpr const char kPath[] = "src/common/zel_memory/buffer";
}  // namespace

Buffer::Buffer(void* va, uint32_t size, uint32_t offset, uint32_t fd_size, int fd,
               native_handle_t* handle)
    : base_va(va),
      size(size),
      offset(offset),
      fd_size(fd_size),
      fd(fd),
      native_handle(handle),
      va(nullptr) {
    // Sizes are 32-bit on the wire to devices; the sum wraps like theirs.
    const uint32_t end = size + offset;
    if (this->fd_size == 0) {
        this->fd_size = end;
    } else if (end > this->fd_size) {
        throw TalornNnException(kPath, 49) << "Offset is bigger or equal than size";
    }
    // Integer arithmetic: a dummy buffer may wrap a null or arbitrary address.
    this->va = reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(base_va) + offset);
}

Buffer::~Buffer() = default;

std::string Buffer::to_string() {
    std::ostringstream text;
    text << "va(" << va << "), base_va(" << base_va << "), size(" << size << "), offset(" << offset
         << "), fd(" << fd << ")";
    return text.str();
}

}  // namespace memory
}  // namespace zel
