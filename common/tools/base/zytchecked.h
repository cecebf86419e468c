#ifndef ZYT_CHECKED_H
#define ZYT_CHECKED_H

#include <cstdint>
#include <limits>

#include "base/zytfatal.h"

/// Guarded arithmetic on sizes, counts and coordinates.
///
/// A buffer that is smaller than its caller believes corrupts memory far from the mistake. A result that does not fit
/// therefore ends the process here, with abort(), before anything wraps; nothing can catch it. `what` names the result
/// in the message. All functions are thread-safe.
namespace zyt {

/// Returns a + b in unsigned 32-bit. Aborts on overflow.
[[nodiscard]] inline uint32_t CheckedAdd(uint32_t a, uint32_t b, const char* what) {
    uint32_t sum = 0;
    if (__builtin_add_overflow(a, b, &sum)) Fatal("zyttools: %s: %u + %u does not fit in 32 bits", what, a, b);
    return sum;
}

/// Returns a - b in unsigned 32-bit. Aborts on underflow.
[[nodiscard]] inline uint32_t CheckedSub(uint32_t a, uint32_t b, const char* what) {
    if (b > a) Fatal("zyttools: %s: %u - %u is below 0", what, a, b);
    return a - b;
}

/// Returns a * b in unsigned 32-bit. Aborts on overflow.
[[nodiscard]] inline uint32_t CheckedMul(uint32_t a, uint32_t b, const char* what) {
    uint32_t product = 0;
    if (__builtin_mul_overflow(a, b, &product)) Fatal("zyttools: %s: %u * %u does not fit in 32 bits", what, a, b);
    return product;
}

/// Returns the value as a signed 32-bit number. Aborts above 2^31 - 1.
[[nodiscard]] inline int32_t CheckedInt(uint32_t value, const char* what) {
    if (value > static_cast<uint32_t>(std::numeric_limits<int32_t>::max())) {
        Fatal("zyttools: %s: %u does not fit in 31 bits", what, value);
    }
    return static_cast<int32_t>(value);
}

/// Returns a - b, or 0 where b is larger. For edges that are clipped instead of refused.
[[nodiscard]] inline uint32_t ClippedSub(uint32_t a, uint32_t b) { return a > b ? a - b : 0; }

}  // namespace zyt

#endif  // ZYT_CHECKED_H
