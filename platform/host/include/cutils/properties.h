#ifndef HOSTDEVICE_CUTILS_PROPERTIES_H
#define HOSTDEVICE_CUTILS_PROPERTIES_H

/// @file
/// The platform's system properties. All functions are thread-safe.

#include <stdint.h>

#include "hostdevice/export.h"

/// Former limit for the size of a key, with its terminating NUL. Keys may be longer today.
#define PROPERTY_KEY_MAX 32
/// Largest size of a value, with its terminating NUL.
#define PROPERTY_VALUE_MAX 92

// The same check as in the platform's C library; it needs Clang.
#ifdef __clang__
#define HOSTDEVICE_ROOM_FOR_VALUE(value) \
    __attribute__((diagnose_if(__builtin_object_size(value, 1) < PROPERTY_VALUE_MAX, "value is too small", "error")))
#else
#define HOSTDEVICE_ROOM_FOR_VALUE(value)
#endif

#ifdef __cplusplus
extern "C" {
#endif

/// Copies the property's value, or the default when it is unset or empty, into `value`, which holds PROPERTY_VALUE_MAX
/// bytes: at most 91 characters. A null default is the empty string. Returns the length. A null key ends the process.
HOSTDEVICE_EXPORT int property_get(const char* key, char* value, const char* default_value)
    HOSTDEVICE_ROOM_FOR_VALUE(value);

/// Returns a property parsed like strtoimax with base 0: leading blanks, a sign, the prefixes 0x, 0b (platform 14 and
/// later) and 0, and any text after the digits are accepted. Returns the default when the key is null, or when the
/// property is unset, has no digits or does not fit in 32 bits.
HOSTDEVICE_EXPORT int32_t property_get_int32(const char* key, int32_t default_value);

/// Like property_get_int32, for 64 bits.
HOSTDEVICE_EXPORT int64_t property_get_int64(const char* key, int64_t default_value);

/// Returns nonzero for 1, y, yes, on and true, 0 for 0, n, no, off and false, otherwise (or without a key) the default.
HOSTDEVICE_EXPORT int8_t property_get_bool(const char* key, int8_t default_value);

/// Sets a property for this process; a null value unsets it. Returns 0, or -1 for a null or empty key, for a "ro."
/// property, of any length, that is set already, and for more than 91 characters in any other.
HOSTDEVICE_EXPORT int property_set(const char* key, const char* value);

#ifdef __cplusplus
}
#endif

#endif  // HOSTDEVICE_CUTILS_PROPERTIES_H
