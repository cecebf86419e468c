#ifndef ZYT_CHECKED_H
#define ZYT_CHECKED_H

#include <cstdint>
#include <cstdlib>
#include <limits>

/// Guarded arithmetic on sizes, counts and coordinates.
///
/// A buffer that is smaller than its caller believes corrupts memory far from the mistake, so a result that does not
/// fit ends the process here, with abort(), before anything has wrapped. Nothing can catch it. All functions are safe
/// from any thread.
namespace zyt {

/// a + b in unsigned 32-bit; aborts on overflow.
[[nodiscard]] inline uint32_t CheckedAdd(uint32_t a, uint32_t b) {
    uint32_t sum = 0;
    if (__builtin_add_overflow(a, b, &sum)) std::abort();
    return sum;
}

/// a - b in unsigned 32-bit; aborts on underflow.
[[nodiscard]] inline uint32_t CheckedSub(uint32_t a, uint32_t b) {
    if (b > a) std::abort();
    return a - b;
}

/// a * b in unsigned 32-bit; aborts on overflow.
[[nodiscard]] inline uint32_t CheckedMul(uint32_t a, uint32_t b) {
    uint32_t product = 0;
    if (__builtin_mul_overflow(a, b, &product)) std::abort();
    return product;
}

/// The same value as a signed 32-bit number; aborts above 2^31 - 1.
[[nodiscard]] inline int32_t CheckedInt(uint32_t value) {
    if (value > static_cast<uint32_t>(std::numeric_limits<int32_t>::max())) std::abort();
    return static_cast<int32_t>(value);
}

/// a - b, or 0 where b is the larger: for edges that are clipped instead of refused.
[[nodiscard]] inline uint32_t ClippedSub(uint32_t a, uint32_t b) { return a > b ? a - b : 0; }

}  // namespace zyt

#endif  // ZYT_CHECKED_H
