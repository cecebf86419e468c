#ifndef HOSTDEVICE_CUTILS_NATIVE_HANDLE_H
#define HOSTDEVICE_CUTILS_NATIVE_HANDLE_H

/// @file
/// Native handles of graphic buffers.

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic"

/// The descriptors of a graphic buffer, in the platform's layout.
typedef struct native_handle {
    int version;  ///< sizeof(native_handle_t)
    int numFds;   ///< Descriptors at &data[0].
    int numInts;  ///< Integers at &data[numFds].
    int data[0];  ///< The descriptors, then the integers.
} native_handle_t;

#pragma GCC diagnostic pop

typedef const native_handle_t* buffer_handle_t;  ///< A handle that its holder does not own.

#endif  // HOSTDEVICE_CUTILS_NATIVE_HANDLE_H
