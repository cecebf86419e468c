#ifndef HOSTDEVICE_CUTILS_TRACE_H
#define HOSTDEVICE_CUTILS_TRACE_H

/// @file
/// The platform's tracing. HOSTDEVICE_TRACE=FILE in the environment writes all events of the process to a file.

#include <stdbool.h>
#include <stdint.h>

#include "hostdevice/export.h"

/// @{

/// Tags, which a client may combine. Events with ATRACE_TAG_NEVER are dropped.
#define ATRACE_TAG_NEVER 0
#define ATRACE_TAG_ALWAYS (1 << 0)
#define ATRACE_TAG_GRAPHICS (1 << 1)
#define ATRACE_TAG_VIDEO (1 << 9)
#define ATRACE_TAG_CAMERA (1 << 10)
#define ATRACE_TAG_HAL (1 << 11)
#define ATRACE_TAG_APP (1 << 12)

/// @}

/// Tag of the macros below. Defined by a client before it includes this header.
#ifndef ATRACE_TAG
#define ATRACE_TAG ATRACE_TAG_NEVER
#endif

#ifdef __cplusplus
extern "C" {
#endif

/// True when events are written to a file. Set at load.
extern HOSTDEVICE_EXPORT bool hostdevice_is_tracing;

/// Writes an event of a phase of the trace event format; the value is a counter's or a cookie. Thread-safe.
HOSTDEVICE_EXPORT void hostdevice_trace(char phase, const char* name, int64_t value);

/// Returns nonzero when events with one of the tags are written.
static inline uint64_t atrace_is_tag_enabled(uint64_t tag) { return hostdevice_is_tracing ? tag : 0; }

/// Begins a slice of this thread. Slices nest.
static inline void atrace_begin(uint64_t tag, const char* name) {
    if (atrace_is_tag_enabled(tag)) hostdevice_trace('B', name, 0);
}
/// Ends this thread's innermost slice.
static inline void atrace_end(uint64_t tag) {
    if (atrace_is_tag_enabled(tag)) hostdevice_trace('E', "", 0);
}
/// Begins what any thread may end. Name and cookie identify it.
static inline void atrace_async_begin(uint64_t tag, const char* name, int32_t cookie) {
    if (atrace_is_tag_enabled(tag)) hostdevice_trace('b', name, cookie);
}
/// Ends what atrace_async_begin began with the same name and cookie.
static inline void atrace_async_end(uint64_t tag, const char* name, int32_t cookie) {
    if (atrace_is_tag_enabled(tag)) hostdevice_trace('e', name, cookie);
}
/// Sets a counter.
static inline void atrace_int64(uint64_t tag, const char* name, int64_t value) {
    if (atrace_is_tag_enabled(tag)) hostdevice_trace('C', name, value);
}
/// Sets a counter.
static inline void atrace_int(uint64_t tag, const char* name, int32_t value) { atrace_int64(tag, name, value); }

#ifdef __cplusplus
}
#endif

/// @{

/// The functions above, with the tag ATRACE_TAG.
#define ATRACE_ENABLED() atrace_is_tag_enabled(ATRACE_TAG)
#define ATRACE_BEGIN(name) atrace_begin(ATRACE_TAG, name)
#define ATRACE_END() atrace_end(ATRACE_TAG)
#define ATRACE_ASYNC_BEGIN(name, cookie) atrace_async_begin(ATRACE_TAG, name, cookie)
#define ATRACE_ASYNC_END(name, cookie) atrace_async_end(ATRACE_TAG, name, cookie)
#define ATRACE_INT(name, value) atrace_int(ATRACE_TAG, name, value)
#define ATRACE_INT64(name, value) atrace_int64(ATRACE_TAG, name, value)

/// @}

#endif  // HOSTDEVICE_CUTILS_TRACE_H
