#ifndef HOSTDEVICE_NATIVEBASE_H
#define HOSTDEVICE_NATIVEBASE_H

/// @file
/// The base record of graphic buffers.

#include <cutils/native_handle.h>

#include <cstdint>

/// The plain record inside a graphic buffer, with those of the platform's fields that this device has.
struct ANativeWindowBuffer {
    int width = 0;             ///< Pixels in a row, as requested.
    int height = 0;            ///< Rows.
    int stride = 0;            ///< Pixels from one row to the next.
    int format = 0;            ///< As requested; has no effect on this device.
    uintptr_t layerCount = 0;  ///< Consecutive images of that size in the memory.
    /// Null when the allocation failed. The buffer owns it and its descriptors.
    buffer_handle_t handle = nullptr;
    uint64_t usage = 0;  ///< As requested; has no effect on this device.
};

#endif  // HOSTDEVICE_NATIVEBASE_H
