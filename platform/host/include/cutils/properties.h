#ifndef HOSTDEVICE_CUTILS_PROPERTIES_H
#define HOSTDEVICE_CUTILS_PROPERTIES_H

/// @file
/// The platform's system properties.

#include <stdint.h>

#include "hostdevice/export.h"

/// Size of a key with its terminating NUL, as it was limited once; keys have been free of it for long.
#define PROPERTY_KEY_MAX 32
/// Size of the longest value with its terminating NUL.
#define PROPERTY_VALUE_MAX 92

// As the platform's C library has it, with the platform's compiler.
#ifdef __clang__
#define HOSTDEVICE_ROOM_FOR_VALUE(value) \
    __attribute__((diagnose_if(__builtin_object_size(value, 1) < PROPERTY_VALUE_MAX, "value is too small", "error")))
#else
#define HOSTDEVICE_ROOM_FOR_VALUE(value)
#endif

#ifdef __cplusplus
extern "C" {
#endif

/// Copies the property's value, cut to 91 characters, into `value`, which has room for PROPERTY_VALUE_MAX; the default
/// (may be null: the empty string) when the property is unset or empty. Returns the length. A null key ends the
/// process. Safe from any thread.
HOSTDEVICE_EXPORT int property_get(const char* key, char* value, const char* default_value)
    HOSTDEVICE_ROOM_FOR_VALUE(value);

/// Reads a property as strtoimax does with base 0: leading blanks, a sign, 0x, 0b (platform 14 and later) and 0
/// prefixes, and anything after the digits are accepted. The default when the key is null or the property unset, has no
/// digits, or does not fit 32 bits. Safe from any thread.
HOSTDEVICE_EXPORT int32_t property_get_int32(const char* key, int32_t default_value);

/// The same with 64 bits.
HOSTDEVICE_EXPORT int64_t property_get_int64(const char* key, int64_t default_value);

/// Nonzero for a property that is 1, y, yes, on or true, 0 for 0, n, no, off and false, the default for all else and a
/// null key. Safe from any thread.
HOSTDEVICE_EXPORT int8_t property_get_bool(const char* key, int8_t default_value);

/// Sets a property for this process; a null value unsets it. Returns 0, or -1 for a null or empty key, for a value of
/// more than 91 characters and for a "ro." property that has a value. Safe from any thread.
HOSTDEVICE_EXPORT int property_set(const char* key, const char* value);

#ifdef __cplusplus
}
#endif

#endif  // HOSTDEVICE_CUTILS_PROPERTIES_H
