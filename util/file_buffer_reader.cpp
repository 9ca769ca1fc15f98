/*
 * File reader with up to eight handles on the same file, so that a large read is split over
 * worker threads that each seek and read their own handle.
 */
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <system_error>
#include <thread>
#include <vector>

#include "util/zel_utils.h"

namespace zel {
namespace util {

using namespace zel::debug;

namespace {

#ifndef MADV_POPULATE_WRITE
#define MADV_POPULATE_WRITE 23  // Linux 5.14; older kernels answer EINVAL
#endif

// A fresh model image is untouched memory: reading into it takes one page fault per page inside
// the kernel's copy. Faulting the whole piece in with one call first costs a fraction of that.
// A piece whose first page is already resident is taken for a reused block and left alone, since
// walking present pages is not free either. Only pages wholly inside the piece are asked for: the
// bytes around it need not be the caller's. Any failure (an old kernel, a device or read-only
// mapping) leaves the read itself to fault or fail as it would have.
void prefault(char* out, uint32_t size) {
    static const uintptr_t page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    const uintptr_t begin = (reinterpret_cast<uintptr_t>(out) + page - 1) & ~(page - 1);
    const uintptr_t end = (reinterpret_cast<uintptr_t>(out) + size) & ~(page - 1);
    if (end <= begin) return;
    unsigned char resident = 0;
    if (mincore(reinterpret_cast<void*>(begin), page, &resident) == 0 && (resident & 1) != 0)
        return;
    madvise(reinterpret_cast<void*>(begin), end - begin, MADV_POPULATE_WRITE);
}

}  // namespace

FileBufferReader::FileBufferReader(std::string name)
    : file_name(std::move(name)), handles{}, handle_count(kMaxHandles), read_status(true) {
    for (uint32_t slot = 0; slot < kMaxHandles; ++slot) {
        handles[slot] = std::fopen(file_name.c_str(), "rb");
        ZEL_MSG(ZONE_INF) << "File " << file_name
                          << " loaded. (fd: " << static_cast<const void*>(handles[slot]) << ")"
                          << std::endl;
        // Out of descriptors or not readable at all: read with the handles opened so far.
        if (handles[slot] == nullptr) {
            handle_count = slot;
            break;
        }
    }
    size = get_file_size();
    ZEL_MSG(ZONE_INF) << "File " << file_name << "(size: " << size << ")" << std::endl;
}

FileBufferReader::~FileBufferReader() {
    for (uint32_t slot = 0; slot < handle_count; ++slot)
        std::fclose(handles[slot]);
}

bool FileBufferReader::is_valid() {
    return handles[0] != nullptr;
}

uint32_t FileBufferReader::get_file_size() {
    if (handles[0] == nullptr) {
        ZEL_LOG(ZONE_ERR, PRINT_IF_ON, "  File open error\n");
        return 0;
    }
    if (size != 0) return size;
    if (std::fseek(handles[0], 0, SEEK_END) != 0) {
        ZEL_LOG(ZONE_ERR, PRINT_IF_ON, "  File Seek Error\n");
        return 0;
    }
    // Sizes are 32-bit throughout; a file of 2 GiB or more reads as not positive here.
    const int32_t end = static_cast<int32_t>(std::ftell(handles[0]));
    if (end > 0) return static_cast<uint32_t>(end);
    ZEL_LOG(ZONE_ERR, PRINT_IF_ON, "  File size is not correct(%d)\n", end);
    return 0;
}

ZelReturn FileBufferReader::thread_copy_buffer(int index, uint32_t size, std::FILE* file,
                                               int offset, char* out) {
    ZEL_MSG(ZONE_INF) << "Thread:" << index << " reading size " << size << std::endl;
    if (std::fseek(file, offset, SEEK_SET) != 0) {
        ZEL_LOG(ZONE_ERR, PRINT_IF_ON, "  File Seek Error\n");
        read_status = false;
        return 2;
    }
    prefault(out, size);
    // A short read is reported through read_status only; the caller checks it after the joins.
    if (std::fread(out, 1, size, file) != size) read_status = false;
    return 0;
}

ZelReturn FileBufferReader::copy_buffer(char* out, uint32_t size, uint32_t offset) {
    if (handle_count == 0) {
        ZEL_LOG(ZONE_ERR, PRINT_IF_ON, "  File Open Error\n");
        return 2;
    }
    if (BufferReader::copy_buffer(out, size, offset) != 0) return 3;
    const uint32_t length = size != 0 ? size : this->size;

    // Small reads are not worth a thread start.
    if (length < kSingleReadLimit) {
        if (std::fseek(handles[0], static_cast<long>(offset), SEEK_SET) != 0) {
            ZEL_LOG(ZONE_ERR, PRINT_IF_ON, "  File Seek Error\n");
            return 2;
        }
        if (std::fread(out, 1, length, handles[0]) != length) {
            ZEL_LOG(ZONE_ERR, PRINT_IF_ON, "  File Read Error\n");
            return 2;
        }
        return 0;
    }

    // One piece per open handle; the calling thread reads the last one, which also carries the
    // remainder of the division.
    const uint32_t count = handle_count;
    const uint32_t chunk = length / count;
    read_status = true;
    std::vector<std::thread> workers;
    workers.reserve(count - 1);
    for (uint32_t i = 0; i + 1 < count; ++i) {
        const int piece_offset = static_cast<int>(offset + i * chunk);
        char* piece_out = out + static_cast<size_t>(i) * chunk;
        try {
            workers.emplace_back(&FileBufferReader::thread_copy_buffer, this, static_cast<int>(i),
                                 chunk, handles[i], piece_offset, piece_out);
        } catch (const std::system_error&) {
            // No thread to spare: read this piece here rather than lose it.
            thread_copy_buffer(static_cast<int>(i), chunk, handles[i], piece_offset, piece_out);
        }
    }
    const uint32_t last = count - 1;
    thread_copy_buffer(static_cast<int>(last), length - chunk * count + chunk, handles[last],
                       static_cast<int>(offset + last * chunk),
                       out + static_cast<size_t>(last) * chunk);
    for (std::thread& worker : workers)
        worker.join();

    if (!read_status) {
        ZEL_LOG(ZONE_ERR, PRINT_IF_ON, "  File Read Error\n");
        return 2;
    }
    return 0;
}

ZelReturn FileBufferReader::dump_model_file() {
    char* block = static_cast<char*>(std::malloc(size));
    if (block == nullptr) return 5;
    const std::string name = std::string(kZelDumpDir) + "DUMP_NNC_" +
                             std::to_string(static_cast<long long>(std::time(nullptr))) + ".nnc";
    // A failed read or write leaves no dump (or a partial one); the caller's run goes on.
    copy_buffer(block, 0, 0);
    export_mem_to_file(name.c_str(), block, size);
    std::free(block);
    return 0;
}

}  // namespace util
}  // namespace zel
