#ifndef HOSTDEVICE_ANDROID_LOG_H
#define HOSTDEVICE_ANDROID_LOG_H

/// @file
/// The platform's log.

#include <stdarg.h>

#include "hostdevice/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/// Priorities and their printed letters. Any other value is printed as unknown.
typedef enum android_LogPriority {
    ANDROID_LOG_UNKNOWN = 0,  ///< "?".
    ANDROID_LOG_DEFAULT,      ///< "?".
    ANDROID_LOG_VERBOSE,      ///< "V".
    ANDROID_LOG_DEBUG,        ///< "D".
    ANDROID_LOG_INFO,         ///< "I".
    ANDROID_LOG_WARN,         ///< "W".
    ANDROID_LOG_ERROR,        ///< "E".
    ANDROID_LOG_FATAL,        ///< "F".
    ANDROID_LOG_SILENT,       ///< "S"; meant for filters, but printed like the others.
} android_LogPriority;

/// Writes a message to the device's log: to stderr in logcat's threadtime format, or to the sink set with
/// hostdevice::SetLogSink. A null tag stands for the program's name; a null text ends the process. Returns 1, or -EPERM
/// when log.tag.TAG or log.tag, or one of these after persist., is a higher level: V to F, or S for none. Thread-safe.
HOSTDEVICE_EXPORT int __android_log_write(int prio, const char* tag, const char* text);

/// Like __android_log_write, with a printf format. The text is cut to 1023 bytes.
HOSTDEVICE_EXPORT int __android_log_print(int prio, const char* tag, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));

/// Like __android_log_print, with its arguments in a list.
HOSTDEVICE_EXPORT int __android_log_vprint(int prio, const char* tag, const char* fmt, va_list ap)
    __attribute__((format(printf, 3, 0)));

/// The platform's logs.
typedef enum log_id {
    LOG_ID_MAIN = 0,    ///< The log of the other functions.
    LOG_ID_RADIO = 1,   ///< The telephone's.
    LOG_ID_EVENTS = 2,  ///< Binary events.
    LOG_ID_SYSTEM = 3,  ///< The platform's own.
    LOG_ID_CRASH = 4,   ///< Crashes.
} log_id_t;

/// Like __android_log_write. `bufID` is a log_id_t value; this device has a single log.
HOSTDEVICE_EXPORT int __android_log_buf_write(int bufID, int prio, const char* tag, const char* text);

/// Returns 1 when the log properties, or without one `default_prio`, let a message of that priority through, or 0.
HOSTDEVICE_EXPORT int __android_log_is_loggable(int prio, const char* tag, int default_prio);

/// Logs the text, or the condition when there is no text, as fatal and ends the process.
HOSTDEVICE_EXPORT void __android_log_assert(const char* cond, const char* tag, const char* fmt, ...)
    __attribute__((noreturn, format(printf, 3, 4)));

#ifdef __cplusplus
}
#endif

#endif  // HOSTDEVICE_ANDROID_LOG_H
