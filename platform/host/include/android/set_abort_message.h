#ifndef HOSTDEVICE_ANDROID_SET_ABORT_MESSAGE_H
#define HOSTDEVICE_ANDROID_SET_ABORT_MESSAGE_H

/// @file
/// The platform's abort message.

#include "hostdevice/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/// Sets the reason for the abort that follows. A phone keeps the text for the tombstone; this device writes it to
/// stderr as one line, in one write. Null is ignored. Thread-safe.
HOSTDEVICE_EXPORT void android_set_abort_message(const char* msg);

#ifdef __cplusplus
}
#endif

#endif  // HOSTDEVICE_ANDROID_SET_ABORT_MESSAGE_H
