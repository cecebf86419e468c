#ifndef HOSTDEVICE_CUTILS_PROPERTIES_H
#define HOSTDEVICE_CUTILS_PROPERTIES_H

/// @file
/// The platform's system properties.

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

/// Copies the property's value, cut to 91 characters, into `value`, which holds PROPERTY_VALUE_MAX bytes. Copies the
/// default instead when the property is unset or empty; a null default is the empty string. Returns the length. A null
/// key ends the process. Thread-safe.
HOSTDEVICE_EXPORT int property_get(const char* key, char* value, const char* default_value)
    HOSTDEVICE_ROOM_FOR_VALUE(value);

/// Returns a property parsed like strtoimax with base 0: leading blanks, a sign, the prefixes 0x, 0b (platform 14 and
/// later) and 0, and any text after the digits are accepted. Returns the default when the key is null, or when the
/// property is unset, has no digits or does not fit in 32 bits. Thread-safe.
HOSTDEVICE_EXPORT int32_t property_get_int32(const char* key, int32_t default_value);

/// Like property_get_int32, for 64 bits.
HOSTDEVICE_EXPORT int64_t property_get_int64(const char* key, int64_t default_value);

/// Returns nonzero for 1, y, yes, on and true, 0 for 0, n, no, off and false, and the default for any other value and
/// for a null key. Thread-safe.
HOSTDEVICE_EXPORT int8_t property_get_bool(const char* key, int8_t default_value);

/// Sets a property for this process; a null value unsets it. Returns 0, or -1 for a null or empty key. A "ro." property
/// takes a value of any length, once, and -1 is returned when it is set already. For any other, -1 is returned for more
/// than 91 characters. Thread-safe.
HOSTDEVICE_EXPORT int property_set(const char* key, const char* value);

#ifdef __cplusplus
}
#endif

#endif  // HOSTDEVICE_CUTILS_PROPERTIES_H
