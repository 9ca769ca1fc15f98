/*
 * Every buffer the memory manager has handed out, paired with the ZelBuffer record its user sees.
 * The pool holds the internal reference: erasing an entry releases the memory unless someone
 * else still holds the Buffer::sptr. Not locked: the memory manager serialises every call.
 */
#pragma once

#include <map>
#include <memory>
#include <string>

#include "src/common/zel_memory/buffer.h"

namespace zel {
namespace memory {

typedef std::shared_ptr<ZelBuffer> UserBufferSptr;

class BufferPool {
  public:
    std::map<Buffer::sptr, UserBufferSptr> buffer_map;  // ordered by Buffer address

    // Adds `buffer` with a new record copied from it; a buffer already present keeps (and
    // returns) its record. Throws for null.
    UserBufferSptr add_buffer(Buffer::sptr buffer);

    // Erases the first entry (in Buffer address order) whose va, size and offset equal the
    // record's; a copy of a record matches as well. Throws when null or nothing matches.
    void delete_buffer(ZelBuffer* user_buffer);
    // Erases `buffer`; an unknown buffer is only logged. Throws for null.
    void delete_buffer(Buffer::sptr buffer);

    // The record of `buffer`; throws when it is not pooled.
    ZelBuffer* get_buffer(Buffer::sptr buffer);
    // The first buffer (in address order) matching the record's va, offset and size; throws
    // when null or nothing matches.
    Buffer::sptr get_buffer(ZelBuffer* user_buffer);

    // One "BUFFER_MAP: <buffer>\n" line per entry.
    std::string to_string();
};

}  // namespace memory
}  // namespace zel
