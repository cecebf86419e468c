#ifndef ZYT_NODEKIT_RAWPIXELS_H
#define ZYT_NODEKIT_RAWPIXELS_H

/// @file
/// Unpacks rows of an image to 16-bit samples and packs them again.
///
/// @code
/// std::vector<uint16_t> samples(frame.width);
/// for (uint32_t y = 0; y < frame.height; ++y) {
///     zyt::UnpackRow(frame, y, samples.data());   // RawMipi10: 0 to 1023
///     for (uint16_t& sample : samples) sample = sample > 64 ? sample - 64 : 0;
///     zyt::PackRow(frame, y, samples.data());
/// }
/// @endcode
///
/// All eleven formats are supported; a row may be of the luma or the chroma plane. Samples have the range of the
/// format: 8 bits for NV12 and NV21, 10 bits for P010, which stores them in the upper bits of its containers. The
/// functions are pure: thread-safe, without heap use or log lines, and independent of the compiled library.

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "zytbuffermanager/zytimagelayout.h"

#if defined(__aarch64__)
#include <arm_neon.h>
#elif defined(__x86_64__)
#include <tmmintrin.h>
#endif

namespace zyt {

namespace detail {

using Bytes = uint8_t __attribute__((vector_size(16)));
using Words = uint16_t __attribute__((vector_size(16)));
using Doubles = uint32_t __attribute__((vector_size(16)));
using Quads = uint64_t __attribute__((vector_size(16)));

template <uint32_t kBits>
inline constexpr uint32_t kGroupPixels = kBits == 12 ? 2 : 4;
template <uint32_t kBits>
inline constexpr uint32_t kGroupBytes = kGroupPixels<kBits>* kBits / 8;

constexpr uint8_t kNoByte = 0x80;  // index for which a shuffle yields 0

// Shuffle indices and factors for eight pixels, which take kBits bytes.
template <uint32_t kBits>
struct MipiTables {
    uint8_t highs[16] = {};        // unpacked word i: the byte with the upper bits, then kNoByte
    uint8_t lows[16] = {};         // unpacked word i: the two bytes with the lower bits
    uint16_t factors[8] = {};      // shift the lower bits to bit 6
    uint8_t packedHighs[16] = {};  // packed byte i: the word with the upper bits
    uint8_t packedLows[16] = {};   // packed byte i: the byte with the lower bits; four pixels in each half
    uint16_t shifts[8] = {};       // shift a word's lower bits above those of its left neighbour

    constexpr MipiTables() {
        constexpr uint32_t kLowBits = kBits - 8;
        for (uint32_t i = 0; i < 16; ++i) packedHighs[i] = packedLows[i] = kNoByte;
        for (size_t i = 0; i < 8; ++i) {
            const size_t group = i / kGroupPixels<kBits> * kGroupBytes<kBits>;
            const size_t lowBit = i % kGroupPixels<kBits> * kLowBits;
            const size_t low = group + kGroupPixels<kBits> + lowBit / 8;
            const size_t high = group + i % kGroupPixels<kBits>;
            highs[2 * i] = static_cast<uint8_t>(high);
            highs[2 * i + 1] = kNoByte;
            lows[2 * i] = static_cast<uint8_t>(low);
            lows[2 * i + 1] = low + 1 < group + kGroupBytes<kBits> ? static_cast<uint8_t>(low + 1) : kNoByte;
            factors[i] = static_cast<uint16_t>(1u << (6 - lowBit % 8));
            packedHighs[high] = static_cast<uint8_t>(2 * i);
            packedLows[low] = static_cast<uint8_t>(i / 4 * 8 + i % 4 * kLowBits / 8);
            shifts[i] = static_cast<uint16_t>(i % 2 == 0 ? 1u : 1u << kLowBits);
        }
    }
};
template <uint32_t kBits>
inline constexpr MipiTables<kBits> kMipiTables;

template <typename Vector>
inline Vector Load(const void* from) {
    Vector vector;
    std::memcpy(&vector, from, sizeof(vector));
    return vector;
}

#if defined(__aarch64__)
#define ZYT_RAWPIXELS_TARGET
inline bool HasShuffle() { return true; }
inline Bytes Shuffle(Bytes bytes, Bytes indices) {
    return reinterpret_cast<Bytes>(
        vqtbl1q_u8(reinterpret_cast<uint8x16_t>(bytes), reinterpret_cast<uint8x16_t>(indices)));
}
inline Words AddSaturated(Words a, Words b) {
    return reinterpret_cast<Words>(vqaddq_u16(reinterpret_cast<uint16x8_t>(a), reinterpret_cast<uint16x8_t>(b)));
}
#elif defined(__x86_64__)
#define ZYT_RAWPIXELS_TARGET __attribute__((target("ssse3")))
inline bool HasShuffle() { return __builtin_cpu_supports("ssse3") != 0; }
ZYT_RAWPIXELS_TARGET inline Bytes Shuffle(Bytes bytes, Bytes indices) {
    return reinterpret_cast<Bytes>(
        _mm_shuffle_epi8(reinterpret_cast<__m128i>(bytes), reinterpret_cast<__m128i>(indices)));
}
inline Words AddSaturated(Words a, Words b) {
    return reinterpret_cast<Words>(_mm_adds_epu16(reinterpret_cast<__m128i>(a), reinterpret_cast<__m128i>(b)));
}
#else
#define ZYT_RAWPIXELS_TARGET
inline bool HasShuffle() { return false; }
inline Bytes Shuffle(Bytes bytes, Bytes /*indices*/) { return bytes; }
inline Words AddSaturated(Words a, Words /*b*/) { return a; }
#endif

// Convert eight pixels at a time while 16 bytes of the row are left. Return the number of pixels converted.
template <uint32_t kBits>
ZYT_RAWPIXELS_TARGET inline uint32_t UnpackEights(const unsigned char* row, size_t rowBytes, uint16_t* samples) {
    const Bytes highs = Load<Bytes>(kMipiTables<kBits>.highs);
    const Bytes lows = Load<Bytes>(kMipiTables<kBits>.lows);
    const Words factors = Load<Words>(kMipiTables<kBits>.factors);
    constexpr uint16_t kLowMask = (1u << (kBits - 8)) - 1;
    uint32_t x = 0;
    for (size_t at = 0; at + 16 <= rowBytes; at += kBits, x += 8) {
        const Bytes bytes = Load<Bytes>(row + at);
        const Words high = reinterpret_cast<Words>(Shuffle(bytes, highs)) << (kBits - 8);
        const Words low = reinterpret_cast<Words>(Shuffle(bytes, lows)) * factors >> 6 & kLowMask;
        const Words words = high | low;
        std::memcpy(samples + x, &words, sizeof(words));
    }
    return x;
}

template <uint32_t kBits>
ZYT_RAWPIXELS_TARGET inline uint32_t PackEights(const uint16_t* samples, size_t rowBytes, unsigned char* row) {
    constexpr uint32_t kLowBits = kBits - 8;
    constexpr uint16_t kLowMask = (1u << kLowBits) - 1;
    const Words above = Words{} + static_cast<uint16_t>(0x10000 - (1u << kBits));
    const Bytes highs = Load<Bytes>(kMipiTables<kBits>.packedHighs);
    const Bytes lows = Load<Bytes>(kMipiTables<kBits>.packedLows);
    const Words shifts = Load<Words>(kMipiTables<kBits>.shifts);
    uint32_t x = 0;
    for (size_t at = 0; at + 16 <= rowBytes; at += kBits, x += 8) {
        // In its lower kBits bits, a sample above the range becomes the largest one.
        const Words fitting = AddSaturated(Load<Words>(samples + x), above);
        const auto pairs = reinterpret_cast<Doubles>((fitting & kLowMask) * shifts);
        const auto fours = reinterpret_cast<Quads>((pairs | pairs >> 16) & 0xffffu);
        const auto low = reinterpret_cast<Bytes>(fours | fours >> (32 - 2 * kLowBits));
        const Bytes bytes = Shuffle(reinterpret_cast<Bytes>(fitting >> kLowBits), highs) | Shuffle(low, lows);
        std::memcpy(row + at, &bytes, sizeof(bytes));  // the next pixels overwrite the excess bytes
    }
    return x;
}
#undef ZYT_RAWPIXELS_TARGET

template <uint32_t kBits>
inline void UnpackMipi(const unsigned char* row, uint32_t width, uint16_t* samples) {
    constexpr uint32_t kLowBits = kBits - 8;
    const size_t rowBytes = size_t{width} * kBits / 8;
    uint32_t x = HasShuffle() ? UnpackEights<kBits>(row, rowBytes, samples) : 0;
    size_t at = size_t{x} / 8 * kBits;
    for (; x < width; x += kGroupPixels<kBits>, at += kGroupBytes<kBits>) {
        unsigned char group[kGroupBytes<kBits>] = {};
        std::memcpy(group, row + at, rowBytes - at < sizeof(group) ? rowBytes - at : sizeof(group));
        uint32_t lows = 0;
        for (uint32_t i = kGroupPixels<kBits>; i < sizeof(group); ++i) {
            lows |= uint32_t{group[i]} << (i - kGroupPixels<kBits>)*8;
        }
        for (uint32_t i = 0; i < kGroupPixels<kBits> && x + i < width; ++i) {
            const uint32_t low = lows >> i * kLowBits & ((1u << kLowBits) - 1);
            samples[x + i] = static_cast<uint16_t>(uint32_t{group[i]} << kLowBits | low);
        }
    }
}

template <uint32_t kBits>
inline void PackMipi(const uint16_t* samples, uint32_t width, unsigned char* row) {
    constexpr uint32_t kLowBits = kBits - 8;
    constexpr uint32_t kLargest = (1u << kBits) - 1;
    const size_t rowBytes = size_t{width} * kBits / 8;
    uint32_t x = HasShuffle() ? PackEights<kBits>(samples, rowBytes, row) : 0;
    size_t at = size_t{x} / 8 * kBits;
    for (; x < width; x += kGroupPixels<kBits>, at += kGroupBytes<kBits>) {
        unsigned char group[kGroupBytes<kBits>] = {};
        uint32_t lows = 0;
        for (uint32_t i = 0; i < kGroupPixels<kBits> && x + i < width; ++i) {
            const uint32_t sample = samples[x + i] < kLargest ? samples[x + i] : kLargest;
            group[i] = static_cast<unsigned char>(sample >> kLowBits);
            lows |= (sample & ((1u << kLowBits) - 1)) << i * kLowBits;
        }
        for (uint32_t i = kGroupPixels<kBits>; i < sizeof(group); ++i) {
            group[i] = static_cast<unsigned char>(lows >> (i - kGroupPixels<kBits>)*8);
        }
        std::memcpy(row + at, group, rowBytes - at < sizeof(group) ? rowBytes - at : sizeof(group));
    }
}

inline void PackContainers(const uint16_t* samples, uint32_t width, uint32_t bits, uint32_t shift, unsigned char* row) {
    const uint32_t largest = (1u << bits) - 1;
    for (uint32_t x = 0; x < width; ++x) {
        const auto word = static_cast<uint16_t>((samples[x] < largest ? samples[x] : largest) << shift);
        std::memcpy(row + size_t{2} * x, &word, sizeof(word));
    }
}

}  // namespace detail

/// Unpacks width samples from the FormatLayout::RowBytes(width) bytes at row, and reads no byte beyond them. When the
/// row ends within a group of packed pixels, the missing lower bits are 0. A 16-bit container that exceeds the format's
/// range is returned unchanged. Returns false, and writes nothing, for a format outside the enumeration.
inline bool UnpackRow(ZYTFormat format, const unsigned char* row, uint32_t width, uint16_t* samples) {
    const FormatLayout* layout = FindFormatLayout(format);
    if (layout == nullptr) return false;
    if (width == 0) return true;
    if (layout->IsPacked()) {
        if (layout->bits == 10) detail::UnpackMipi<10>(row, width, samples);
        if (layout->bits == 12) detail::UnpackMipi<12>(row, width, samples);
        if (layout->bits == 14) detail::UnpackMipi<14>(row, width, samples);
    } else if (layout->kind == FormatKind::kYuv420) {
        for (uint32_t x = 0; x < width; ++x) samples[x] = row[x];
    } else {
        std::memcpy(samples, row, size_t{2} * width);
        if (layout->kind == FormatKind::kP010) {
            for (uint32_t x = 0; x < width; ++x) samples[x] = static_cast<uint16_t>(samples[x] >> (16 - layout->bits));
        }
    }
    return true;
}

/// Unpacks row y of the image's first plane. REQUIRES: the caller holds a CPU access for reading.
inline bool UnpackRow(const ZYTImageBuffer& image, uint32_t y, uint16_t* samples) {
    return UnpackRow(image.format, image.pAddr[0] + size_t{y} * image.planeStride, image.width, samples);
}

/// Packs width samples into the FormatLayout::RowBytes(width) bytes at row, and writes no byte beyond them. UnpackRow
/// reads them back. A sample above the format's range is stored as the largest value. Returns false, and writes
/// nothing, for a format outside the enumeration.
inline bool PackRow(ZYTFormat format, const uint16_t* samples, uint32_t width, unsigned char* row) {
    const FormatLayout* layout = FindFormatLayout(format);
    if (layout == nullptr) return false;
    if (layout->IsPacked()) {
        if (layout->bits == 10) detail::PackMipi<10>(samples, width, row);
        if (layout->bits == 12) detail::PackMipi<12>(samples, width, row);
        if (layout->bits == 14) detail::PackMipi<14>(samples, width, row);
    } else if (layout->kind == FormatKind::kYuv420) {
        for (uint32_t x = 0; x < width; ++x) row[x] = static_cast<unsigned char>(samples[x] < 255 ? samples[x] : 255);
    } else {
        const uint32_t shift = layout->kind == FormatKind::kP010 ? 16 - layout->bits : 0;
        detail::PackContainers(samples, width, layout->bits, shift, row);
    }
    return true;
}

/// Packs row y of the image's first plane. REQUIRES: the caller holds a CPU access for writing.
inline bool PackRow(const ZYTImageBuffer& image, uint32_t y, const uint16_t* samples) {
    return PackRow(image.format, samples, image.width, image.pAddr[0] + size_t{y} * image.planeStride);
}

}  // namespace zyt

#endif  // ZYT_NODEKIT_RAWPIXELS_H
