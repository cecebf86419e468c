#ifndef ZYT_NODEKIT_DETAIL_H
#define ZYT_NODEKIT_DETAIL_H

/// @file
/// What the kit's own headers share.

#include <new>
#include <utility>

namespace zyt::detail {

/// Calls step and returns true, or false when memory ran out. Without exceptions a failed `operator new` ends the
/// process here as everywhere.
template <typename Step>
bool WithMemory(const Step& step) {
#if defined(__cpp_exceptions)
    try {
        step();
    } catch (const std::bad_alloc&) {
        return false;
    }
#else
    step();
#endif
    return true;
}

/// A callable without arguments, which may be move-only.
struct Job {
    virtual ~Job() = default;
    virtual void Run() = 0;
};

template <typename Function>
struct JobOf final : Job {
    template <typename From>
    explicit JobOf(From&& from) : function(std::forward<From>(from)) {}
    void Run() override { function(); }
    Function function;
};

}  // namespace zyt::detail

#endif  // ZYT_NODEKIT_DETAIL_H
