#ifndef ZYT_NODEKIT_WITHMEMORY_H
#define ZYT_NODEKIT_WITHMEMORY_H

/// @file
/// For the kit's own headers.

#include <new>

namespace zyt::detail {

/// Calls step and returns true, or false when it ran out of memory. Without exceptions that ends the process, as every
/// failed `operator new` does there.
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

}  // namespace zyt::detail

#endif  // ZYT_NODEKIT_WITHMEMORY_H
