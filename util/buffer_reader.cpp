/*
 * Range validation and cursor operations shared by every reader.
 */
#include "util/zel_buffer_reader.h"

namespace zel {
namespace util {

using namespace zel::debug;

ZelReturn BufferReader::copy_buffer(char* out, uint32_t size, uint32_t offset) {
    if (static_cast<uint32_t>(offset + size) > this->size) {
        ZEL_LOG(ZONE_ERR, PRINT_IF_ON, "  size(%d) + offset(%d) is bigger than original(%d)\n",
                static_cast<int>(size), static_cast<int>(offset), static_cast<int>(this->size));
        return 3;
    }
    if (out == nullptr) {
        ZEL_LOG(ZONE_ERR, PRINT_IF_ON, "  output addr is null\n");
        return 3;
    }
    if (size == 0 && offset != 0) {
        ZEL_LOG(ZONE_ERR, PRINT_IF_ON, "  Offset(%d) should be zero if size = 0\n",
                static_cast<int>(offset));
        return 3;
    }
    return 0;
}

ZelReturn BufferReader::copy_buffer_with_cursor(char* out, uint32_t size) {
    if (static_cast<uint32_t>(cursor + size) > this->size) {
        ZEL_LOG(ZONE_ERR, PRINT_IF_ON, "  move(%d), current(%d) > size(%d)\n",
                static_cast<int>(size), static_cast<int>(cursor), static_cast<int>(this->size));
        return 3;
    }
    if (copy_buffer(out, size, cursor) != 0) return 3;
    cursor += size;
    return 0;
}

ZelReturn BufferReader::set_cursor(uint32_t position) {
    if (position > size) {
        ZEL_LOG(ZONE_ERR, PRINT_IF_ON, "  parameter(%d) is too big\n", static_cast<int>(position));
        return 3;
    }
    cursor = position;
    return 0;
}

uint32_t BufferReader::get_cursor() {
    return cursor;
}

ZelReturn BufferReader::move_cursor(uint32_t distance) {
    const uint32_t moved = cursor + distance;
    if (moved > size) {
        ZEL_LOG(ZONE_ERR, PRINT_IF_ON, "  parameter(%d) is too big\n", static_cast<int>(distance));
        return 3;
    }
    cursor = moved;
    return 0;
}

}  // namespace util
}  // namespace zel
