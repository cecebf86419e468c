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

#ifdef __cplusplus
extern "C" {
#endif

/// Copies the property's value, cut to 91 characters, into `value`, which has room for PROPERTY_VALUE_MAX; the default
/// (may be null: the empty string) when the property is unset or empty. Returns the length. Safe from any thread.
HOSTDEVICE_EXPORT int property_get(const char* key, char* value, const char* default_value);

/// Reads a property as strtoimax does with base 0: leading blanks, a sign, 0x and 0 prefixes, and anything after the
/// digits are accepted. The default when it is unset, has no digits, or does not fit 32 bits. Safe from any thread.
HOSTDEVICE_EXPORT int32_t property_get_int32(const char* key, int32_t default_value);

/// Sets a property for this process; a null value unsets it. Returns 0, or -1 for a null or empty key and for a value
/// of more than 91 characters. Safe from any thread.
HOSTDEVICE_EXPORT int property_set(const char* key, const char* value);

#ifdef __cplusplus
}
#endif

#endif  // HOSTDEVICE_CUTILS_PROPERTIES_H
