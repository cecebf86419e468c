#ifndef ZYT_IMAGE_LAYOUT_H
#define ZYT_IMAGE_LAYOUT_H

#include <cstdint>

#include "base/zytchecked.h"
#include "zytbuffermanager/zytimagebuffer.h"

/// The one table of formats. Allocation, copy, dump, naming and drawing all read it.
namespace zyt {

enum class FormatKind {
    kYuv420,  // 8-bit luma, then chroma at half the rows, in one buffer or in two
    kP010,    // as above in 16-bit containers, always with a chroma address of its own
    kGrey,    // one 16-bit plane
    kRaw,     // one Bayer plane
};

struct FormatLayout {
    const char* name;
    FormatKind kind;
    uint32_t bits;          // that count of a sample
    uint32_t rowNumerator;  // bytes a row = width * rowNumerator / rowDenominator, rounded down
    uint32_t rowDenominator;

    /// P010 and Y16 come from other allocators; the manager describes, copies and dumps them but never makes them.
    constexpr bool IsAllocatable() const { return kind == FormatKind::kYuv420 || kind == FormatKind::kRaw; }
    /// Samples that share bytes, instead of a container each.
    constexpr bool IsPacked() const { return rowDenominator == 8; }
    constexpr bool HasChroma() const { return kind == FormatKind::kYuv420 || kind == FormatKind::kP010; }

    /// Bytes of pixel data in a row of that many pixels; a length that does not fit a signed 32-bit ends the process.
    int32_t RowBytes(uint32_t width) const { return CheckedInt(CheckedMul(width, rowNumerator) / rowDenominator); }
};

inline constexpr FormatLayout kFormatLayouts[] = {
    {"YUV420NV12", FormatKind::kYuv420, 8, 1, 1}, {"YUV420NV21", FormatKind::kYuv420, 8, 1, 1},
    {"RawMipi10", FormatKind::kRaw, 10, 10, 8},   {"RawMipi12", FormatKind::kRaw, 12, 12, 8},
    {"RawMipi14", FormatKind::kRaw, 14, 14, 8},   {"YUV_P010", FormatKind::kP010, 10, 2, 1},
    {"Y16", FormatKind::kGrey, 16, 2, 1},         {"Raw10", FormatKind::kRaw, 10, 2, 1},
    {"Raw12", FormatKind::kRaw, 12, 2, 1},        {"Raw14", FormatKind::kRaw, 14, 2, 1},
    {"Raw16", FormatKind::kRaw, 16, 2, 1},
};
static_assert(sizeof(kFormatLayouts) / sizeof(kFormatLayouts[0]) == ZYT_FORMAT_RAW16 + 1);

/// The layout of a format, or null for a value outside the enumeration.
inline const FormatLayout* FindFormatLayout(ZYTFormat format) {
    const auto index = static_cast<uint32_t>(format);
    return index <= ZYT_FORMAT_RAW16 ? &kFormatLayouts[index] : nullptr;
}

/// Whether the image has an 8-bit luma plane followed by interleaved chroma (NV12 and NV21).
inline bool IsYuv420(ZYTFormat format) {
    const FormatLayout* layout = FindFormatLayout(format);
    return layout != nullptr && layout->kind == FormatKind::kYuv420;
}

/// Bytes reserved for the first plane: planeStride * sliceHeight.
inline uint32_t FirstPlaneSize(const ZYTImageBuffer& image) { return CheckedMul(image.planeStride, image.sliceHeight); }

}  // namespace zyt

#endif  // ZYT_IMAGE_LAYOUT_H
