#ifndef ZYT_NODEKIT_DETAIL_H
#define ZYT_NODEKIT_DETAIL_H

/// @file
/// What the kit's own headers share.

#include <memory>
#include <new>
#include <type_traits>
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

/// A callable that may be move-only, unlike that of a std::function.
template <typename... Arguments>
struct Callable {
    virtual ~Callable() = default;
    virtual void operator()(Arguments... arguments) = 0;
};

template <typename... Arguments, typename Function>
std::unique_ptr<Callable<Arguments...>> MakeCallable(Function&& function) {
    struct Holder final : Callable<Arguments...> {
        explicit Holder(Function&& from) : held(std::forward<Function>(from)) {}
        void operator()(Arguments... arguments) override { held(arguments...); }
        std::decay_t<Function> held;
    };
    return std::make_unique<Holder>(std::forward<Function>(function));
}

}  // namespace zyt::detail

#endif  // ZYT_NODEKIT_DETAIL_H
