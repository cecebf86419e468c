#ifndef HOSTDEVICE_ANDROID_LOG_H
#define HOSTDEVICE_ANDROID_LOG_H

#include "hostdevice/export.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef enum android_LogPriority {
    ANDROID_LOG_UNKNOWN = 0,
    ANDROID_LOG_DEFAULT,
    ANDROID_LOG_VERBOSE,
    ANDROID_LOG_DEBUG,
    ANDROID_LOG_INFO,
    ANDROID_LOG_WARN,
    ANDROID_LOG_ERROR,
    ANDROID_LOG_FATAL,
    ANDROID_LOG_SILENT,
} android_LogPriority;

/// Writes a message to the device's log: to stderr in logcat's threadtime format, or to the sink set with
/// hostdevice::SetLogSink. A null tag stands for the program's name. Returns 1. Safe from any thread.
HOSTDEVICE_EXPORT int __android_log_write(int prio, const char* tag, const char* text);

#ifdef __cplusplus
}
#endif

#endif  // HOSTDEVICE_ANDROID_LOG_H
