#ifndef HOSTDEVICE_NATIVEBASE_H
#define HOSTDEVICE_NATIVEBASE_H

/// @file
/// The record that graphic buffers are built on.

#include <cutils/native_handle.h>

#include <cstdint>

/// The plain record inside a graphic buffer: the platform's fields as far as this device has them.
struct ANativeWindowBuffer {
    int width = 0;             ///< Pixels in a row, as asked for.
    int height = 0;            ///< Rows.
    int stride = 0;            ///< Pixels from one row to the next.
    int format = 0;            ///< As asked for; it changes nothing here.
    uintptr_t layerCount = 0;  ///< Images of that size in the memory, one behind the other.
    /// Null when the allocation failed. The buffer's own, and so are its descriptors.
    buffer_handle_t handle = nullptr;
    uint64_t usage = 0;  ///< As asked for; it changes nothing here.
};

#endif  // HOSTDEVICE_NATIVEBASE_H
