#ifndef ZYT_LOG_UTIL_H
#define ZYT_LOG_UTIL_H

/// @file
/// The platform log, by level.

#include <android/log.h>

#include <cstdarg>
#include <cstdio>

#include "base/zytexport.h"

/// Default level, used at load when "persist.vendor.camera.zytloglevel" is unset or not a number. It starts at 1;
/// writing it after the library was loaded changes nothing.
extern ZYT_EXPORT int ZYTNodeLogLevel;

/// Levelled logging to the platform log under the tag "ZYT".
///
/// Levels run E (1), W (2), D (3), I (4), V (5): a message is written when m_level is at least its number. Debug comes
/// before Info, against the platform's own order; devices are configured by these numbers. 0 or less silences all.
///
/// Each function formats into 1024 bytes on the caller's stack (a longer message is cut to 1023 characters), appends
/// nothing, takes no lock, allocates nothing and may be called from any thread. A message that is filtered out is not
/// formatted.
class ZYTLogUtil {
public:
    /// The level all log functions compare against. Writing it takes effect on the next call; while other threads log,
    /// write it atomically.
    ZYT_EXPORT static int m_level;
    /// A level for callers' own preview paths, read from the same property; the library does not use it.
    ZYT_EXPORT static int m_previewLevel;
    /// A level for callers' own capture paths, as m_previewLevel.
    ZYT_EXPORT static int m_captureLevel;

#define ZYT_PLATFORM_LOG_FUNCTION(letter, threshold, priority)                                                \
    /** Tells a log site whether a message of level letter would be written: m_level is threshold or more. */ \
    inline static bool Is##letter##On() { return Level() >= (threshold); }                                    \
    /** Writes a message of level letter if m_level is threshold or more; formatted as by printf. */          \
    __attribute__((format(printf, 1, 2))) inline static void Log##letter(const char* format, ...) {           \
        if (!Is##letter##On()) return;                                                                        \
        va_list args;                                                                                         \
        va_start(args, format);                                                                               \
        Write(priority, format, args);                                                                        \
        va_end(args);                                                                                         \
    }

    ZYT_PLATFORM_LOG_FUNCTION(E, 1, ANDROID_LOG_ERROR)
    ZYT_PLATFORM_LOG_FUNCTION(W, 2, ANDROID_LOG_WARN)
    ZYT_PLATFORM_LOG_FUNCTION(D, 3, ANDROID_LOG_DEBUG)
    ZYT_PLATFORM_LOG_FUNCTION(I, 4, ANDROID_LOG_INFO)
    ZYT_PLATFORM_LOG_FUNCTION(V, 5, ANDROID_LOG_VERBOSE)

#undef ZYT_PLATFORM_LOG_FUNCTION

private:
    // The same instruction as a plain load, but defined when another thread changes the level meanwhile.
    static int Level() { return __atomic_load_n(&m_level, __ATOMIC_RELAXED); }

    __attribute__((format(printf, 2, 0))) static void Write(int priority, const char* format, va_list args) {
        char message[1024] = {};
        std::vsnprintf(message, sizeof(message), format, args);
        __android_log_write(priority, "ZYT", message);
    }
};

#endif  // ZYT_LOG_UTIL_H
