#ifndef ZYT_IMAGE_LAYOUT_H
#define ZYT_IMAGE_LAYOUT_H

/// @file
/// How the pixels of each format lie in memory: the one table that allocation, copy, dump, naming and drawing read.

#include <cstdint>

#include "base/zytchecked.h"
#include "zytbuffermanager/zytimagebuffer.h"

namespace zyt {

/// Plane arrangement of a format.
enum class FormatKind {
    kYuv420,  ///< 8-bit luma, then interleaved chroma with half the rows, in one buffer or in two.
    kP010,    ///< The same in 16-bit containers; the chroma always has its own address.
    kGrey,    ///< One 16-bit plane.
    kRaw,     ///< One Bayer plane.
};

/// What the library knows about a format.
struct FormatLayout {
    const char* name;             ///< As ZYTBufferUtil::GetBufferFormatString returns it.
    FormatKind kind;              ///< How many planes there are, and where.
    uint32_t bits;                ///< Significant bits of a sample.
    uint32_t rowNumerator;        ///< Bytes of a row are width * rowNumerator / rowDenominator, rounded down.
    uint32_t rowDenominator;      ///< 8 for packed samples, else 1.
    uint32_t offscreenFormat;     ///< The vendor's pixel-array code, 0 when the caller of the conversion sets it.
    uint32_t offscreenRawFormat;  ///< The first of the vendor's four consecutive raw codes, one for each Bayer order.

    /// Whether ZYTBufferManager allocates it. P010 and Y16 images come from other allocators; the library describes,
    /// copies and dumps them.
    constexpr bool IsAllocatable() const { return kind == FormatKind::kYuv420 || kind == FormatKind::kRaw; }
    /// Whether samples share bytes instead of having a container each.
    constexpr bool IsPacked() const { return rowDenominator == 8; }
    /// Whether a chroma plane follows the luma plane.
    constexpr bool HasChroma() const { return kind == FormatKind::kYuv420 || kind == FormatKind::kP010; }

    /// Returns the bytes of pixel data in a row of `width` pixels. Ends the process when the product does not fit in
    /// 32 bits or the length does not fit in 31.
    int32_t RowBytes(uint32_t width) const {
        return CheckedInt(CheckedMul(width, rowNumerator, "bits or bytes of a row") / rowDenominator, "bytes of a row");
    }
};

/// All formats, indexed by ZYTFormat. The vendor's codes are those of its published header.
inline constexpr FormatLayout kFormatLayouts[] = {
    {"YUV420NV12", FormatKind::kYuv420, 8, 1, 1, 0x801, 0xD09},
    {"YUV420NV21", FormatKind::kYuv420, 8, 1, 1, 0x802, 0xD09},
    {"RawMipi10", FormatKind::kRaw, 10, 10, 8, 0, 0xD09},
    {"RawMipi12", FormatKind::kRaw, 12, 12, 8, 0, 0xD09},
    {"RawMipi14", FormatKind::kRaw, 14, 14, 8, 0, 0xD09},
    {"YUV_P010", FormatKind::kP010, 10, 2, 1, 0, 0xD09},
    {"Y16", FormatKind::kGrey, 16, 2, 1, 0, 0xD09},
    {"Raw10", FormatKind::kRaw, 10, 2, 1, 0, 0xD09},
    {"Raw12", FormatKind::kRaw, 12, 2, 1, 0, 0xD11},
    {"Raw14", FormatKind::kRaw, 14, 2, 1, 0, 0xD41},
    {"Raw16", FormatKind::kRaw, 16, 2, 1, 0, 0xD21},
};
static_assert(sizeof(kFormatLayouts) / sizeof(kFormatLayouts[0]) == ZYT_FORMAT_RAW16 + 1);

/// Stands for a format outside the enumeration, and for a copy between different formats: one plane of 16-bit samples.
inline constexpr FormatLayout kUnknownLayout = {"Unknow", FormatKind::kGrey, 16, 2, 1, 0, 0xD09};

/// Returns the layout of a format, or null for a value outside the enumeration.
inline const FormatLayout* FindFormatLayout(ZYTFormat format) {
    const auto index = static_cast<uint32_t>(format);
    return index <= ZYT_FORMAT_RAW16 ? &kFormatLayouts[index] : nullptr;
}

/// Returns the layout of a format, or kUnknownLayout for a value outside the enumeration.
inline const FormatLayout& LayoutOf(ZYTFormat format) {
    const FormatLayout* layout = FindFormatLayout(format);
    return layout != nullptr ? *layout : kUnknownLayout;
}

/// Returns whether the format is NV12 or NV21.
inline bool IsYuv420(ZYTFormat format) { return LayoutOf(format).kind == FormatKind::kYuv420; }

/// Returns the bytes reserved for the first plane, planeStride * sliceHeight. Ends the process when they do not fit in
/// 32 bits.
inline uint32_t FirstPlaneSize(const ZYTImageBuffer& image) {
    return CheckedMul(image.planeStride, image.sliceHeight, "planeStride * sliceHeight");
}

}  // namespace zyt

#endif  // ZYT_IMAGE_LAYOUT_H
