/*
 * Readers over a source of known size with a read cursor. FileBufferReader opens the same file
 * up to eight times so that a large read can be split across threads, each with its own handle
 * and therefore its own file position.
 */
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <string>

#include "debug/zel_debug.h"

namespace zel {
namespace util {

// A source of `size` bytes and a read cursor. Results are ZelReturn values: 0, or 3 for a range
// or argument that does not fit (2 for the implementation's I/O failures).
class BufferReader {
  public:
    uint32_t size;    // size of the source in bytes ("original" size in messages)
    uint32_t cursor;  // read position, 0 at construction

    BufferReader() : size(0), cursor(0) {}

    virtual bool is_valid() = 0;
    // Validates a read of `size` bytes at `offset` (size 0: the whole source, offset must be 0).
    // The sum is taken in 32 bits. Implementations call this first, then read.
    virtual ZelReturn copy_buffer(char* out, uint32_t size, uint32_t offset);
    // Reads `size` bytes at the cursor and advances it; on any failure returns 3 and leaves the
    // cursor where it was.
    virtual ZelReturn copy_buffer_with_cursor(char* out, uint32_t size);
    // Any position up to and including the end.
    virtual ZelReturn set_cursor(uint32_t position);
    virtual uint32_t get_cursor();
    // Moves the cursor forward; the new position is taken in 32 bits and must not pass the end.
    virtual ZelReturn move_cursor(uint32_t distance);
    virtual ~BufferReader() = default;
    // Copies the whole source into the dump directory.
    virtual ZelReturn dump_model_file() = 0;
};

// A file opened kMaxHandles times in mode "rb". A file that cannot be opened leaves a usable
// reader that is not valid: size 0, handle_count 0, and every read returns 2.
class FileBufferReader : public BufferReader {
  public:
    static constexpr uint32_t kMaxHandles = 8;
    // Reads of this many bytes or more are split over the open handles.
    static constexpr uint32_t kSingleReadLimit = 0x100000;

    std::string file_name;
    std::FILE* handles[kMaxHandles];
    uint32_t handle_count;          // leading slots of `handles` that are open
    std::atomic<bool> read_status;  // cleared by any piece of a split read that fails

    explicit FileBufferReader(std::string file_name);
    FileBufferReader(const FileBufferReader&) = delete;
    FileBufferReader& operator=(const FileBufferReader&) = delete;

    // True when the file could be opened at least once.
    bool is_valid() override;
    // Reads `size` bytes at `offset` into `out` (size 0: the whole file). Below 1 MiB one read on
    // the first handle; otherwise one piece per open handle, all but the last on worker threads
    // and the last, which carries the remainder, on the calling thread. Returns 0, 2 when the file
    // is not open or a seek or read fails (also a short read in any piece), or 3 when the range
    // does not fit. A reader must not run two reads at once.
    ZelReturn copy_buffer(char* out, uint32_t size, uint32_t offset) override;
    ~FileBufferReader() override;
    // Copies the file byte for byte to "/data/vendor/zel/dump/DUMP_NNC_<seconds>.nnc". Returns 0,
    // or 5 when the copy cannot be allocated; the read and the write are not checked.
    ZelReturn dump_model_file() override;

    // The file's size, measured once; 0 when the file is not open or is 2 GiB or larger (its
    // size read as a signed 32-bit number is not positive).
    uint32_t get_file_size();
    // One piece of a split read: seeks `file` to `offset` and reads `size` bytes into `out`.
    // Returns 2 on a failed seek, 0 otherwise; both failures clear read_status.
    ZelReturn thread_copy_buffer(int index, uint32_t size, std::FILE* file, int offset, char* out);
};

}  // namespace util
}  // namespace zel
