/*
 * Operations on Android native handles that carry exactly one descriptor and no integers.
 */
#pragma once

#include <cutils/native_handle.h>

#include <cstdint>

namespace zel {
namespace memory {

class NativeHandleManager {
  public:
    // Wraps `fd` as it is: the new handle owns the descriptor. Every operation here refuses a
    // null `handle` slot with a "* " line (the clones return -1) and leaves descriptors alone.
    static void CreateNativeHandle(native_handle_t** handle, int32_t fd);
    // Stores in *handle a handle owning a duplicate of `fd` and returns the duplicate; the
    // caller's descriptor stays open.
    static int CloneNativeHandle(native_handle_t** handle, int32_t fd);
    // Stores in *handle a clone of `source` (descriptors duplicated) and returns its first
    // descriptor. Throws "Invalid handle!" for a null source or one without descriptors.
    static int CloneNativeHandle(native_handle_t** handle, const native_handle_t* source);
    // Closes the handle's descriptor and frees the handle.
    static void RemoveNativeHandle(native_handle_t** handle);
};

}  // namespace memory
}  // namespace zel
