#ifndef HOSTDEVICE_UTILS_TRACE_H
#define HOSTDEVICE_UTILS_TRACE_H

/// @file
/// Slices that end with their scope.

#include <cutils/trace.h>

/// Traces a slice from here to the end of the scope.
#define ATRACE_NAME(name) ::android::ScopedTrace HOSTDEVICE_AT_LINE(scopedTrace, __LINE__)(ATRACE_TAG, name)
/// Traces a slice with the function's name from here to the end of the scope.
#define ATRACE_CALL() ATRACE_NAME(__FUNCTION__)

/// @cond
#define HOSTDEVICE_AT_LINE(name, line) HOSTDEVICE_AT_LINE_2(name, line)
#define HOSTDEVICE_AT_LINE_2(name, line) name##line
/// @endcond

namespace android {

/// A slice that lasts as long as this object.
class ScopedTrace {
public:
    /// Begins the slice.
    ScopedTrace(uint64_t tag, const char* name) : mTag(tag) { atrace_begin(tag, name); }
    /// Ends it.
    ~ScopedTrace() { atrace_end(mTag); }

private:
    uint64_t mTag;
};

}  // namespace android

#endif  // HOSTDEVICE_UTILS_TRACE_H
