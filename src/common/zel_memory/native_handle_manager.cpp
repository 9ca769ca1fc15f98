#include "src/common/zel_memory/native_handle_manager.h"

#include "debug/zel_debug.h"
#include "src/common/zel_memory/talorn_nn_exception.h"

namespace zel {
namespace memory {

using debug::ZONE_MEM;

void NativeHandleManager::CreateNativeHandle(native_handle_t** handle, int32_t fd) {
    if (handle == nullptr) {
        // Nowhere to put the handle: make none, and the descriptor stays the caller's.
        ZEL_LOG(debug::ZONE_ERR, debug::PRINT_ALWAYS, "* Handle slot is null: fd(%d)\n", fd);
        return;
    }
    native_handle_t* created = native_handle_create(1, 0);
    *handle = created;
    if (created == nullptr) {
        // Out of memory: the caller sees a null handle and keeps its descriptor.
        ZEL_LOG(debug::ZONE_ERR, debug::PRINT_ALWAYS, "* Handle creation failed: fd(%d)\n", fd);
        return;
    }
    created->numFds = 1;
    created->data[0] = fd;
    ZEL_MSG(ZONE_MEM) << "Handle is created: " << fd << std::endl;
}

int NativeHandleManager::CloneNativeHandle(native_handle_t** handle, int32_t fd) {
    ZEL_MSG(ZONE_MEM) << "fd :" << fd << " will be cloned" << std::endl;
    native_handle_t* original = native_handle_create(1, 0);
    if (original != nullptr) original->data[0] = fd;
    ZEL_MSG(ZONE_MEM) << "handle created: " << static_cast<void*>(original) << std::endl;
    int cloned_fd;
    try {
        cloned_fd = CloneNativeHandle(handle, original);
    } catch (...) {
        // The temporary handle only borrows the caller's descriptor: free it, keep the fd.
        if (original != nullptr) native_handle_delete(original);
        throw;
    }
    ZEL_MSG(ZONE_MEM) << "clone completed" << std::endl;
    native_handle_delete(original);
    ZEL_MSG(ZONE_MEM) << "original handle deleted completed" << std::endl;
    return cloned_fd;
}

int NativeHandleManager::CloneNativeHandle(native_handle_t** handle,
                                           const native_handle_t* source) {
    if (source == nullptr || source->numFds <= 0) {
        throw TalornNnException("src/common/zel_memory/native_handle_manager", 61)
                << "Invalid handle!";
    }
    if (handle == nullptr) {
        ZEL_LOG(debug::ZONE_ERR, debug::PRINT_ALWAYS, "* Handle slot is null: fd(%d)\n",
                source->data[0]);
        return -1;
    }
    native_handle_t* clone = native_handle_clone(source);
    *handle = clone;
    if (clone == nullptr) {
        // The descriptor could not be duplicated (descriptor table full): no handle, no fd.
        ZEL_LOG(debug::ZONE_ERR, debug::PRINT_ALWAYS, "* Handle clone failed: fd(%d)\n",
                source->data[0]);
        return -1;
    }
    ZEL_MSG(ZONE_MEM) << "Handle is cloned: " << source->data[0] << " -> " << clone->data[0]
                      << std::endl;
    return clone->data[0];
}

void NativeHandleManager::RemoveNativeHandle(native_handle_t** handle) {
    native_handle_t* target = handle != nullptr ? *handle : nullptr;
    if (target == nullptr) {
        ZEL_LOG(debug::ZONE_ERR, debug::PRINT_ALWAYS, "* Handle is null: nothing to remove\n");
        return;
    }
    if (target->numFds > 0) {
        ZEL_MSG(ZONE_MEM) << "Handle is removed: " << target->data[0] << std::endl;
    } else {
        ZEL_LOG(debug::ZONE_ERR, debug::PRINT_ALWAYS,
                "* Handle is removed: it holds no descriptor\n");
    }
    native_handle_close(target);
    native_handle_delete(target);
}

}  // namespace memory
}  // namespace zel
