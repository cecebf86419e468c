#ifndef HOSTDEVICE_NATIVEBASE_H
#define HOSTDEVICE_NATIVEBASE_H

#include <cutils/native_handle.h>

#include <cstdint>

/// The plain record inside a graphic buffer: the platform's fields as far as this device has them. Sizes in pixels.
struct ANativeWindowBuffer {
    int width = 0;
    int height = 0;
    int stride = 0;
    int format = 0;
    uintptr_t layerCount = 0;
    buffer_handle_t handle =
        nullptr;  ///< Null when the allocation failed. The buffer's own, and so are its descriptors.
    uint64_t usage = 0;
};

#endif  // HOSTDEVICE_NATIVEBASE_H
