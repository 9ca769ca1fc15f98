/*
 * Importers.
 *
 * FdImporter maps a descriptor the caller hands over (typically a dmabuf from another process).
 * It duplicates the descriptor first, so the buffer owns its own copy and the caller may close
 * theirs at once. Imported buffers call back into the importer when released, so it must outlive
 * them.
 *
 * DummyImporter wraps an address the caller has mapped already; it takes no ownership of the
 * memory or the descriptor.
 */
#pragma once

#include <cstdint>
#include <mutex>

#include "src/common/zel_memory/importer/i_importer.h"

namespace zel {
namespace memory {

class FdImporter : public iImporter {
  public:
    std::mutex mutex;  // serialises imports and releases of imported buffers

    // Maps the whole fd_size bytes of a duplicate of `fd` from file offset 0; the buffer starts
    // `offset` bytes in (need not be page-aligned). `va` is ignored.
    Buffer::sptr import(int fd, uint32_t fd_size, uint32_t size, uint32_t offset,
                        void* va) override;

    // Deleter of imported buffers: closes the duplicate and unmaps.
    void release(Buffer* buffer);
};

class DummyImporter : public iImporter {
  public:
    std::mutex mutex;  // same layout as FdImporter; never locked

    // Buffer(va, size, offset, fd_size, fd, null): the memory and fd stay the caller's.
    Buffer::sptr import(int fd, uint32_t fd_size, uint32_t size, uint32_t offset,
                        void* va) override;

    // Frees the Buffer object only.
    static void DummyImporterDeleter(Buffer* buffer);
};

}  // namespace memory
}  // namespace zel
