/*
 * Host BufferAllocator: a dmabuf heap when the kernel has one, else a memfd.
 */
#include <BufferAllocator/BufferAllocator.h>

#include <dirent.h>
#include <fcntl.h>
#include <linux/dma-buf.h>
#include <linux/dma-heap.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>

namespace {

constexpr const char kDmaHeapRoot[] = "/dev/dma_heap/";

size_t PageRound(size_t len) {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    return (len + page - 1) / page * page;
}

int MemfdAlloc(const std::string& heap_name, size_t len) {
    const std::string name = "dmabuf:" + heap_name;
    int fd = memfd_create(name.c_str(), MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (fd < 0) return -errno;
    if (ftruncate(fd, static_cast<off_t>(len)) != 0) {
        int err = errno;
        close(fd);
        return -err;
    }
    // A dmabuf has a fixed size; seal the memfd so no holder of the descriptor can change it.
    fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL);
    return fd;
}

// The fallback buffers are memfds, which carry seals; a dmabuf has none.
bool IsMemfd(int fd) {
    return fcntl(fd, F_GET_SEALS) >= 0;
}

int SyncIoctl(unsigned int fd, uint64_t flags) {
    // A memfd is plain page-cache memory: there are no device caches to maintain.
    if (IsMemfd(static_cast<int>(fd))) return 0;
    struct dma_buf_sync sync = {flags};
    return ioctl(static_cast<int>(fd), DMA_BUF_IOCTL_SYNC, &sync) == 0 ? 0 : -errno;
}

uint64_t SyncFlags(SyncType type) {
    uint64_t flags = 0;
    if (type & kSyncRead) flags |= DMA_BUF_SYNC_READ;
    if (type & kSyncWrite) flags |= DMA_BUF_SYNC_WRITE;
    return flags;
}

}  // namespace

BufferAllocator::BufferAllocator() = default;

int BufferAllocator::MapNameToIonHeap(const std::string& heap_name,
                                      const std::string& ion_heap_name,
                                      unsigned int /*ion_heap_flags*/,
                                      unsigned int /*legacy_ion_heap_mask*/,
                                      unsigned int /*legacy_ion_heap_flags*/) {
    ion_heap_names_[heap_name] = ion_heap_name;
    return 0;
}

int BufferAllocator::AllocFromHeapNode(const std::string& heap_name, size_t len,
                                       unsigned int heap_flags) {
    const std::string path = kDmaHeapRoot + heap_name;
    int heap_fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (heap_fd < 0) return -errno;
    struct dma_heap_allocation_data data = {};
    data.len = len;
    data.fd_flags = O_RDWR | O_CLOEXEC;
    data.heap_flags = heap_flags;
    int ret = ioctl(heap_fd, DMA_HEAP_IOCTL_ALLOC, &data);
    int err = errno;
    close(heap_fd);
    if (ret < 0) return -err;
    return static_cast<int>(data.fd);
}

int BufferAllocator::Alloc(const std::string& heap_name, size_t len, unsigned int heap_flags,
                           size_t /*legacy_align*/) {
    len = PageRound(len);
    if (len == 0) return -EINVAL;
    int fd = AllocFromHeapNode(heap_name, len, heap_flags);
    if (fd != -ENOENT) return fd;
    return MemfdAlloc(heap_name, len);
}

int BufferAllocator::AllocSystem(bool cpu_access_needed, size_t len, unsigned int heap_flags,
                                 size_t legacy_align) {
    return Alloc(cpu_access_needed ? "system" : "system-uncached", len, heap_flags, legacy_align);
}

int BufferAllocator::CpuSyncStart(unsigned int dmabuf_fd, SyncType sync_type) {
    return SyncIoctl(dmabuf_fd, DMA_BUF_SYNC_START | SyncFlags(sync_type));
}

int BufferAllocator::CpuSyncEnd(unsigned int dmabuf_fd, SyncType sync_type) {
    return SyncIoctl(dmabuf_fd, DMA_BUF_SYNC_END | SyncFlags(sync_type));
}

std::unordered_set<std::string> BufferAllocator::GetDmabufHeapList() {
    std::unordered_set<std::string> heaps;
    DIR* dir = opendir(kDmaHeapRoot);
    if (dir == nullptr) return heaps;
    while (struct dirent* entry = readdir(dir)) {
        if (entry->d_name[0] != '.') heaps.insert(entry->d_name);
    }
    closedir(dir);
    return heaps;
}

bool BufferAllocator::CheckIonSupport() {
    return false;
}
