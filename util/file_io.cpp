/*
 * Loading files, or slices of them, into memory and writing memory blocks to files.
 */
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "util/zel_utils.h"

namespace zel {
namespace util {

using namespace zel::debug;

namespace {

// Checks a load of `size` bytes at `offset` against the file and gives the length to load. The
// sum wraps in 32 bits, so a wrapped range passes and fails later, in the read.
ZelReturn check_load_range(uint32_t file_size, uint32_t size, uint32_t offset, uint32_t* length) {
    if (static_cast<uint32_t>(offset + size) > file_size) {
        ZEL_LOG(ZONE_ERR, PRINT_IF_ON, "  Size(%d), Offset(%d) is bigger than file size(%d)\n",
                static_cast<int>(size), static_cast<int>(offset), static_cast<int>(file_size));
        return 1;
    }
    if (size == 0 && offset != 0) {
        ZEL_LOG(ZONE_ERR, PRINT_IF_ON, "  Offset should be zero if size is full(default)\n");
        return 1;
    }
    *length = size != 0 ? size : file_size;
    return 0;
}

// An image block is length + 1 bytes with the length read as a signed 32-bit number: from 2^31
// on the size is negative and no allocation can succeed, and at 0xFFFFFFFF it wraps to 0.
int64_t image_block_size(uint32_t length) {
    return static_cast<int64_t>(static_cast<int32_t>(length)) + 1;
}

// The owning overload refuses a length whose block cannot hold it up front.
bool allocatable(uint32_t length) {
    if (image_block_size(length) > 0) return true;
    ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Size(%u) does not fit a file image\n", length);
    return false;
}

}  // namespace

ZelReturn get_file_size(const char* filename, uint32_t* size) {
    if (size == nullptr) {
        ZEL_LOG(ZONE_ERR, PRINT_IF_ON, "  2nd parameter is nullptr\n");
        return 3;
    }
    if (filename == nullptr) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* File name is nullptr\n");
        return 3;
    }
    uint32_t file_size = 0;
    {
        FileBufferReader reader(filename);
        file_size = reader.size;
    }
    if (file_size == 0) {
        ZEL_LOG(ZONE_ERR, PRINT_IF_ON, "  File Loading Error\n");
        return 3;
    }
    *size = file_size;
    return 0;
}

ZelReturn import_file_to_mem(const char* filename, char** result, uint32_t* loaded_size,
                             uint32_t size, uint32_t offset) {
    if (result == nullptr) {
        ZEL_LOG(ZONE_ERR, PRINT_IF_ON, "  2nd parameter is nullptr\n");
        return 3;
    }
    ZEL_LOG(ZONE_INF, PRINT_TRACE, "  Get filename(%s), result(%p), size(%u), offset(%u)\n",
            filename, static_cast<void*>(*result), size, offset);
    uint32_t file_size = 0;
    const ZelReturn sized = get_file_size(filename, &file_size);
    if (sized != 0) {
        ZEL_LOG(ZONE_ERR, PRINT_IF_ON, "  File open error: %s\n", filename);
        return sized;
    }
    uint32_t length = 0;
    if (check_load_range(file_size, size, offset, &length) != 0) return 1;

    bool allocated = false;
    if (*result == nullptr) {
        ZEL_MSG(ZONE_WAR) << "*Result is nullptr, please use import_file_to_mem with smart pointer"
                          << std::endl;
        // A negative size is one malloc can never serve: the block stays null and the read
        // refuses it.
        const int64_t block = image_block_size(length);
        *result =
                block >= 0 ? static_cast<char*>(std::malloc(static_cast<size_t>(block))) : nullptr;
        allocated = true;
    }
    if (loaded_size != nullptr) *loaded_size = length;
    if (allocated && image_block_size(length) == 0) {
        // The block is empty: the read would write the whole file past its end.
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Size(%u) does not fit a file image\n", length);
        return 3;
    }
    FileBufferReader reader(filename);
    return reader.copy_buffer(*result, length, offset);
}

std::unique_ptr<char[]> import_file_to_mem(const char* filename, uint32_t* file_size, uint32_t size,
                                           uint32_t offset) {
    uint32_t whole = 0;
    const ZelReturn sized = get_file_size(filename, &whole);
    ZEL_LOG(ZONE_INF, PRINT_TRACE, "  Get filename(%s), size(%u), offset(%u)\n", filename, size,
            offset);
    if (sized != 0) {
        ZEL_LOG(ZONE_ERR, PRINT_IF_ON, "  File open error: %s\n", filename);
        return nullptr;
    }
    uint32_t length = 0;
    if (check_load_range(whole, size, offset, &length) != 0) return nullptr;
    if (file_size != nullptr) *file_size = whole;
    if (!allocatable(length)) return nullptr;

    // Not value-initialised: the read overwrites it, and zeroing a model image costs as much as
    // a second copy.
    std::unique_ptr<char[]> image(new (std::nothrow) char[static_cast<size_t>(length) + 1]);
    if (!image) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* Fail to allocate %u bytes for %s\n", length + 1,
                filename);
        return nullptr;
    }
    // The read's result is not reported: the caller gets the image either way.
    FileBufferReader reader(filename);
    reader.copy_buffer(image.get(), length, offset);
    return image;
}

ZelReturn export_mem_to_file(const char* filename, const void* va, uint32_t size) {
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  DEBUG:: Export memory to file: name(%s) va(%p), size(%d)\n",
            filename, va, static_cast<int>(size));
    if (filename == nullptr) {
        ZEL_LOG(ZONE_ERR, PRINT_IF_ON, "  Null Filename!\n");
        return 3;
    }
    if (va == nullptr) {
        ZEL_LOG(ZONE_ERR, PRINT_IF_ON, "  Null address!\n");
        return 3;
    }
    if (size == 0) {
        ZEL_LOG(ZONE_ERR, PRINT_IF_ON, "  Size is incorrect(%d)!\n", static_cast<int>(size));
        return 3;
    }
    std::FILE* file = std::fopen(filename, "wb");
    if (file == nullptr) {
        ZEL_LOG(ZONE_ERR, PRINT_IF_ON, "  File Open Failed(%s)!!\n", filename);
        return 3;
    }
    if (std::fwrite(va, size, 1, file) != 1) {
        ZEL_LOG(ZONE_ERR, PRINT_IF_ON, "  FileWrite Failed!!(%zu)\n", static_cast<size_t>(0));
        std::fclose(file);
        return 3;
    }
    ZEL_LOG(ZONE_DBG, PRINT_TRACE, "  DEBUG:: File Save Completed.\n");
    std::fclose(file);
    return 0;
}

bool is_dump_available() {
    return DbgPrintManager::GetInstance()->dump_available;
}

ZelReturn memory_compare(const char* a, const char* b, size_t length) {
    if (length == 0) return 0;  // no byte to differ, whatever the addresses
    if (a == nullptr || b == nullptr) {
        ZEL_LOG(ZONE_ERR, PRINT_ALWAYS, "* memory_compare(), null address: a(%p), b(%p)\n",
                static_cast<const void*>(a), static_cast<const void*>(b));
        return 1;
    }
    return std::memcmp(a, b, length) != 0 ? 1 : 0;
}

void show_raw_memory_to_hex(unsigned char*, uint32_t, uint32_t, uint32_t) {}

}  // namespace util
}  // namespace zel
