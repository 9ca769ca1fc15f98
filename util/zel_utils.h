/*
 * File, system and platform utilities: loading files into memory (large files with several
 * threads), dumping memory to files, thread affinity and priority, checks on shared-buffer
 * descriptors, and SoC identification.
 *
 * File sizes and offsets are unsigned 32-bit and their sums wrap in 32 bits; a range is checked
 * as that wrapped sum against the file size. Failures are logged (error zone, printed when the
 * zone is on) and returned as ZelReturn values.
 */
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>

#include "debug/zel_debug.h"
#include "util/zel_buffer_reader.h"
#include "util/zel_soc_info.h"

namespace zel {
namespace util {

// File import and export. get_environment_variable_u64 (debug/zel_debug.h) belongs here too.

// Stores the size of `filename` in *size: 0, or 3 for a null `size` or a file that is missing,
// unreadable, empty or 2 GiB or larger.
ZelReturn get_file_size(const char* filename, uint32_t* size);

// Loads `size` bytes at `offset` of `filename` (size 0: the whole file, offset must then be 0)
// into *result. When *result is null a block of length + 1 bytes is allocated with malloc and
// stored there (the caller frees it; the extra byte is not written), with a warning that the
// owning overload is preferred. *loaded_size, if given, receives the length. Returns 0, 1 when
// the range does not fit the file, 3 for a null `result` or a file that cannot be sized, or the
// reader's failure (2 for a failed read).
ZelReturn import_file_to_mem(const char* filename, char** result, uint32_t* loaded_size,
                             uint32_t size = 0, uint32_t offset = 0);

// Same load into a new array of length + 1 characters; null on any failure except the read
// itself, whose failure is not reported. *file_size, if given, receives the whole file's size
// (not the loaded length).
std::unique_ptr<char[]> import_file_to_mem(const char* filename, uint32_t* file_size,
                                           uint32_t size = 0, uint32_t offset = 0);

// Writes `size` bytes at `va` to `filename` (created or truncated): 0, or 3 for a null name or
// address, a size of 0 (no file is created), a file that cannot be opened or a failed write.
ZelReturn export_mem_to_file(const char* filename, const void* va, uint32_t size);

// Whether the dump directory is available (the dump zone is on and the directory exists).
bool is_dump_available();

// 0 when the `length` bytes at a and b are equal, 1 otherwise.
ZelReturn memory_compare(const char* a, const char* b, size_t length);

// Reserved entry point for a hex view of memory; prints nothing in this version.
void show_raw_memory_to_hex(unsigned char* va, uint32_t size, uint32_t, uint32_t);

// Threads, affinity and priority.

pid_t get_tid();
pid_t get_pid();
// Pins the calling thread to the CPUs of `mask` (bit n = CPU n, CPUs 0..63): 0, or 1.
ZelReturn sys_util_set_sched_affinity(unsigned long mask);
// Stores the calling thread's CPU set in *mask (0 after a failure): 0, or 1.
ZelReturn sys_util_get_sched_affinity(unsigned long* mask);
// Raises the calling thread to the most urgent nice value (-20) unless it already has it: 0, or
// 1 when the priority cannot be read or set.
ZelReturn ofi_adjust_thread_priority_urgent();

// Shared-buffer descriptors (dma-buf or ion).

// True when `size` bytes of `fd` at `offset` can be mapped shared, read-write, and the first
// mapped byte equals the first byte at `addr` (only that byte is compared).
bool is_valid_ion_buffer(int fd, size_t size, const void* addr, int offset);
// The size of `fd` (lseek to its end, which leaves the file offset there), cut to 32 bits; 0 for
// a negative descriptor.
uint32_t get_size_from_fd(int fd);
// Inverted on purpose: false when `size` bytes of `fd` can be mapped and unmapped, true when the
// buffer is NOT valid. Callers test for false.
bool validate_buffer(int fd, uint32_t size);

}  // namespace util
}  // namespace zel
