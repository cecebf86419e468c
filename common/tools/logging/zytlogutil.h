#ifndef ZYT_LOG_UTIL_H
#define ZYT_LOG_UTIL_H

/// @file
/// Levelled logging to the platform log.

#include <android/log.h>

#include <cstdarg>
#include <cstdio>

#include "base/zytexport.h"

/// Default level, used at load when "persist.vendor.camera.zytloglevel" is unset or not a number. It is 1; writing it
/// after the library was loaded has no effect.
extern ZYT_EXPORT int ZYTNodeLogLevel;

/// Levelled logging to the platform log under the tag "ZYT".
///
/// Levels run E (1), W (2), D (3), I (4), V (5): a message is written when m_level is at least its number. Debug comes
/// before information, the reverse of the platform's order; devices are configured by these numbers. A level of 0 or
/// less silences all.
///
/// Each log function formats into 1024 bytes on the caller's stack, cuts a longer message to 1023 characters, appends
/// nothing, takes no lock and allocates nothing. A message that is filtered out is not formatted. Thread-safe.
class ZYTLogUtil {
public:
    /// The level that all log functions compare against. A new value takes effect on the next call; write it atomically
    /// while other threads log.
    ZYT_EXPORT static int m_level;
    /// A level for callers' preview paths, read from the same property. The library does not use it.
    ZYT_EXPORT static int m_previewLevel;
    /// A level for callers' capture paths, read from the same property. The library does not use it.
    ZYT_EXPORT static int m_captureLevel;

    static bool IsEOn() { return Level() >= 1; }  ///< Returns whether LogE writes.
    static bool IsWOn() { return Level() >= 2; }  ///< Returns whether LogW writes.
    static bool IsDOn() { return Level() >= 3; }  ///< Returns whether LogD writes.
    static bool IsIOn() { return Level() >= 4; }  ///< Returns whether LogI writes.
    static bool IsVOn() { return Level() >= 5; }  ///< Returns whether LogV writes.

    /// Writes an error, formatted as by printf, when m_level is 1 or more.
    __attribute__((format(printf, 1, 2))) inline static void LogE(const char* format, ...) {
        if (!IsEOn()) return;
        va_list args;
        va_start(args, format);
        Write(ANDROID_LOG_ERROR, format, args);
        va_end(args);
    }

    /// Writes a warning, formatted as by printf, when m_level is 2 or more.
    __attribute__((format(printf, 1, 2))) inline static void LogW(const char* format, ...) {
        if (!IsWOn()) return;
        va_list args;
        va_start(args, format);
        Write(ANDROID_LOG_WARN, format, args);
        va_end(args);
    }

    /// Writes a debug message, formatted as by printf, when m_level is 3 or more.
    __attribute__((format(printf, 1, 2))) inline static void LogD(const char* format, ...) {
        if (!IsDOn()) return;
        va_list args;
        va_start(args, format);
        Write(ANDROID_LOG_DEBUG, format, args);
        va_end(args);
    }

    /// Writes an information message, formatted as by printf, when m_level is 4 or more.
    __attribute__((format(printf, 1, 2))) inline static void LogI(const char* format, ...) {
        if (!IsIOn()) return;
        va_list args;
        va_start(args, format);
        Write(ANDROID_LOG_INFO, format, args);
        va_end(args);
    }

    /// Writes a verbose message, formatted as by printf, when m_level is 5 or more.
    __attribute__((format(printf, 1, 2))) inline static void LogV(const char* format, ...) {
        if (!IsVOn()) return;
        va_list args;
        va_start(args, format);
        Write(ANDROID_LOG_VERBOSE, format, args);
        va_end(args);
    }

private:
    // The instruction of a plain load, but defined when another thread writes the level at the same time.
    static int Level() { return __atomic_load_n(&m_level, __ATOMIC_RELAXED); }

    __attribute__((format(printf, 2, 0))) static void Write(int priority, const char* format, va_list args) {
        char message[1024] = {};
        std::vsnprintf(message, sizeof(message), format, args);
        __android_log_write(priority, "ZYT", message);
    }
};

#endif  // ZYT_LOG_UTIL_H
