#include "utilities/zytutil.h"

#include <chrono>
#include <cstring>
#include <limits>

ZYTProductInfo ZYTUtil::m_productInfo{};
bool ZYTUtil::m_isProductInfoInit = false;
std::mutex ZYTUtil::m_productInfoLock;

namespace {

// binary128 is a type of its own on x86-64 and long double on 64-bit Arm.
#if defined(__SIZEOF_FLOAT128__)
using Binary128 = __float128;
#else
using Binary128 = long double;
static_assert(std::numeric_limits<long double>::digits == 113);
#endif

// The ratios as bit patterns, since compilers have no common literal for this type. Both lie slightly above the exact
// ratio, so that exact multiples do not fall short when the fraction is dropped.
struct Binary128Bits {
    uint64_t low;
    uint64_t high;
};
constexpr Binary128Bits kTicksPerNano = {0x17C1BDA5119CE076, 0x3FF93A92A3055326};  // 0.0192
constexpr Binary128Bits kNanosPerTick = {0xAAAAAAAAAAAAAAAB, 0x4004A0AAAAAAAAAA};  // 625 / 12

unsigned long long Scale(unsigned long long count, const Binary128Bits& ratioBits) {
    Binary128 ratio = 0;
    static_assert(sizeof(ratio) == sizeof(ratioBits));
    std::memcpy(&ratio, &ratioBits, sizeof(ratio));
    const Binary128 scaled = static_cast<Binary128>(static_cast<double>(count)) * ratio;
    constexpr double kTwoTo64 = 18446744073709551616.0;
    if (scaled >= static_cast<Binary128>(kTwoTo64)) return std::numeric_limits<unsigned long long>::max();
    return static_cast<unsigned long long>(scaled);
}

}  // namespace

unsigned long long ZYTUtil::QtimerNanoToQtimerTicks(unsigned long long nanos) { return Scale(nanos, kTicksPerNano); }

unsigned long long ZYTUtil::QtimerTicksToQtimerNano(unsigned long long ticks) { return Scale(ticks, kNanosPerTick); }

int64_t ZYTUtil::GetCurMilliSecond() {
    const auto sinceStart = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::nanoseconds>(sinceStart).count() / 1000000;
}
