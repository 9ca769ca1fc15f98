/*
 * Host implementation of libdmabufheap's BufferAllocator.
 *
 * Same interface and semantics as the platform library for the calls this project uses: Alloc()
 * returns a new dmabuf descriptor (or a negative errno). On a host kernel that exposes
 * /dev/dma_heap/<heap_name> the buffer comes from that heap; otherwise it is a sealed-size memfd
 * of the page-rounded length, so every buffer is still a real descriptor that can be mapped,
 * passed to another process over SCM_RIGHTS and closed.
 */
#pragma once

#include <cstddef>
#include <string>
#include <unordered_map>
#include <unordered_set>

enum SyncType {
    kSyncRead = 1,
    kSyncWrite = 2,
    kSyncReadWrite = 3,
};

class BufferAllocator {
  public:
    BufferAllocator();
    ~BufferAllocator() = default;

    BufferAllocator(const BufferAllocator&) = delete;
    BufferAllocator& operator=(const BufferAllocator&) = delete;

    // Records the legacy ion heap to fall back to for heap_name. Hosts have no ion, so the
    // mapping is only remembered. Returns 0.
    int MapNameToIonHeap(const std::string& heap_name, const std::string& ion_heap_name,
                         unsigned int ion_heap_flags = 0, unsigned int legacy_ion_heap_mask = 0,
                         unsigned int legacy_ion_heap_flags = 0);

    // Allocates len bytes (rounded up to whole pages, as the kernel does) from heap_name and
    // returns the buffer's descriptor, or -errno. A zero length is refused with -EINVAL.
    int Alloc(const std::string& heap_name, size_t len, unsigned int heap_flags = 0,
              size_t legacy_align = 0);

    // Allocates from "system" when cpu_access_needed, else from "system-uncached".
    int AllocSystem(bool cpu_access_needed, size_t len, unsigned int heap_flags = 0,
                    size_t legacy_align = 0);

    // Brackets CPU access to a buffer (DMA_BUF_IOCTL_SYNC on a real dmabuf; nothing on a memfd).
    int CpuSyncStart(unsigned int dmabuf_fd, SyncType sync_type = kSyncReadWrite);
    int CpuSyncEnd(unsigned int dmabuf_fd, SyncType sync_type = kSyncReadWrite);

    // Names of the heaps under /dev/dma_heap (empty on a host without dmabuf heaps).
    static std::unordered_set<std::string> GetDmabufHeapList();
    // Hosts never have ion.
    static bool CheckIonSupport();

  private:
    int AllocFromHeapNode(const std::string& heap_name, size_t len, unsigned int heap_flags);

    std::unordered_map<std::string, std::string> ion_heap_names_;
};
