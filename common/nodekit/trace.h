#ifndef ZYT_NODEKIT_TRACE_H
#define ZYT_NODEKIT_TRACE_H

/// @file
/// Sections in the platform's trace: beside the camera's own in Perfetto on a phone, in the file that HOSTDEVICE_TRACE
/// names at a desk.
///
/// @code
/// void Merge(const zyt::Image& frame) {
///     zyt::ScopedTrace section("Merge");  // until the end of the scope
///     ...
/// }
/// @endcode

#if defined(ATRACE_TAG)
#include <cutils/trace.h>
#else
#include <cutils/trace.h>
#undef ATRACE_TAG  // the platform's header gives it a value; whoever includes this one still chooses
#endif

namespace zyt {

/// A section, on this thread's track, from construction to destruction, under the camera's tag. Sections of a thread
/// nest. Costs a load when nobody traces.
class ScopedTrace {
public:
    /// `name` is copied.
    explicit ScopedTrace(const char* name) { atrace_begin(ATRACE_TAG_CAMERA, name); }
    ~ScopedTrace() { atrace_end(ATRACE_TAG_CAMERA); }
    ScopedTrace(const ScopedTrace&) = delete;
    ScopedTrace& operator=(const ScopedTrace&) = delete;
};

}  // namespace zyt

#endif  // ZYT_NODEKIT_TRACE_H
