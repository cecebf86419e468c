#ifndef HOSTDEVICE_LOG_LOG_H
#define HOSTDEVICE_LOG_LOG_H

/// @file
/// The platform's log macros: printf formats, with the tag LOG_TAG.

// __VA_OPT__ is an extension before C++20.
#pragma GCC system_header

#include <android/log.h>
#include <stddef.h>

/// Tag of the macros. Defined by a client before it includes this header.
#ifndef LOG_TAG
#define LOG_TAG NULL
#endif

/// 0 compiles ALOGV and ALOG_ASSERT in. 1 by default, because device builds define NDEBUG.
#ifndef LOG_NDEBUG
#define LOG_NDEBUG 1
#endif

/// @{

/// Writes a line of one priority.
#define ALOG(priority, tag, ...) __android_log_print(ANDROID_##priority, tag, __VA_ARGS__)
#define ALOGV(...) ((void)(LOG_NDEBUG || ALOG(LOG_VERBOSE, LOG_TAG, __VA_ARGS__)))
#define ALOGD(...) ((void)ALOG(LOG_DEBUG, LOG_TAG, __VA_ARGS__))
#define ALOGI(...) ((void)ALOG(LOG_INFO, LOG_TAG, __VA_ARGS__))
#define ALOGW(...) ((void)ALOG(LOG_WARN, LOG_TAG, __VA_ARGS__))
#define ALOGE(...) ((void)ALOG(LOG_ERROR, LOG_TAG, __VA_ARGS__))

/// @}

/// @{

/// Writes a line when the condition holds.
#define ALOGV_IF(condition, ...) ((void)(LOG_NDEBUG || !(condition) || ALOG(LOG_VERBOSE, LOG_TAG, __VA_ARGS__)))
#define ALOGD_IF(condition, ...) ((condition) ? ALOGD(__VA_ARGS__) : (void)0)
#define ALOGI_IF(condition, ...) ((condition) ? ALOGI(__VA_ARGS__) : (void)0)
#define ALOGW_IF(condition, ...) ((condition) ? ALOGW(__VA_ARGS__) : (void)0)
#define ALOGE_IF(condition, ...) ((condition) ? ALOGE(__VA_ARGS__) : (void)0)

/// @}

/// @{

/// Logs the format and its arguments, if any, as fatal and ends the process: always, when the condition holds, or when
/// an assertion fails in a build with LOG_NDEBUG 0.
#define LOG_ALWAYS_FATAL(...) HOSTDEVICE_FATAL(NULL, __VA_ARGS__)
#define LOG_ALWAYS_FATAL_IF(condition, ...) ((condition) ? HOSTDEVICE_FATAL(#condition, __VA_ARGS__) : (void)0)
#define ALOG_ASSERT(condition, ...) \
    ((LOG_NDEBUG || (condition)) ? (void)0 : HOSTDEVICE_FATAL("!(" #condition ")", __VA_ARGS__))

/// @}

/// @cond
// The format, or NULL without arguments, then the arguments behind the format.
#define HOSTDEVICE_FATAL(condition, ...)     \
    __android_log_assert(condition, LOG_TAG, \
                         HOSTDEVICE_FIRST(__VA_ARGS__ __VA_OPT__(, ) NULL, ) HOSTDEVICE_REST(__VA_ARGS__))
#define HOSTDEVICE_FIRST(first, ...) first
#define HOSTDEVICE_REST(first, ...) __VA_OPT__(, ) __VA_ARGS__
/// @endcond

#endif  // HOSTDEVICE_LOG_LOG_H
