// Memory: buffers by memory type, the user's ZelBuffer view, importing a descriptor, failures.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "debug/zel_debug.h"
#include "src/common/zel_memory/memory_manager.h"

using zel::memory::Buffer;
using zel::memory::MemoryManager;
using zel::memory::ZelBuffer;

// Stops the program with status 1 when a result is not the one the page promises.
static void Require(bool ok, const char* what) {
    if (ok) return;
    fprintf(stderr, "unexpected: %s\n", what);
    exit(1);
}

int main() {
    // Errors and warnings only; zone MEM (0x20) would trace every buffer made and released.
    zel::debug::DbgPrintManager::GetInstance()->set_mask(0x3);

    MemoryManager memory;  // opens both dmabuf heaps

    // Heap memory: page-aligned, no descriptor.
    Buffer::sptr heap = memory.create_memory(zel::memory::ZEL_MM_HEAP, 1000, 0);
    Require(heap != nullptr && heap->size == 1000 && heap->fd == -1, "heap buffer");
    memset(heap->va, 0x5a, heap->size);

    // The pooled record the user sees, and the way back from it.
    ZelBuffer* record = memory.get_user_raw_buffer(heap);
    Require(record->va == heap->va && record->size == 1000 && record->offset == 0, "record");
    Require(memory.get_buffer(record) == heap, "buffer found from its record");

    // Device memory: a cached dmabuf buffer (flag 1; flag 0 is uncached) whose descriptor can
    // be passed to another process.
    Buffer::sptr shared = memory.create_memory(zel::memory::ZEL_MM_DEVICE_BUFFER, 8192, 1);
    Require(shared != nullptr && shared->fd >= 0, "device buffer");
    strcpy(static_cast<char*>(shared->va), "tensor data");
    Require(memory.get_fd(memory.get_user_raw_buffer(shared)) == shared->fd, "its descriptor");

    // What the receiving process does with such a descriptor: import the first 64 bytes. The
    // descriptor is duplicated, so the sender keeps its own.
    Buffer::sptr view = memory.import_memory(shared->fd, 8192, 64, 0);
    Require(view->fd != shared->fd && view->size == 64, "imported view");
    Require(strcmp(static_cast<char*>(view->va), "tensor data") == 0, "same pages");

    // Failures come back as null, 5 or -1, logged as "Exception: ..." lines ...
    Require(memory.create_memory(static_cast<zel::memory::ZelMmType>(2), 4096, 0) == nullptr,
            "type 2 is refused");
    ZelBuffer stranger = {heap->va, 999, 0};
    Require(memory.get_fd(&stranger) == -1, "unknown record");
    // ... except a failed import, which throws.
    try {
        memory.import_memory(shared->fd, 8192, 8192, 1);
        Require(false, "an import past the end throws");
    } catch (const zel::TalornNnException& error) {
        printf("import refused: %s\n", error.what());
    }

    // Release through the manager, by record or by buffer. The pool holds one reference; the
    // memory goes with the last one.
    ZelBuffer copy = *record;  // a record is matched by its values, so a copy works too
    Require(memory.delete_memory(record) == 0, "deleted by record");  // `record` dangles now
    Require(memory.delete_memory(&copy) == 5, "a buffer is deleted once");
    heap.reset();  // freed here
    Require(memory.delete_memory(view) == 0, "deleted by buffer");
    view.reset();  // unmapped, duplicate descriptor closed
    return 0;      // `shared` is still pooled: the manager releases it when destroyed
}
