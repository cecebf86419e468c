#ifndef ZYT_NODEKIT_PLANE_H
#define ZYT_NODEKIT_PLANE_H

/// @file
/// Views of an image's planes, the same for every kind of memory.
///
/// @code
/// const zyt::Plane<uint8_t> luma = zyt::PlaneOf<uint8_t>(frame, 0), chroma = zyt::PlaneOf<uint8_t>(frame, 1);
/// for (uint32_t y = 0; y < luma.height; ++y) {
///     uint8_t* row = luma.Row(y);
///     for (uint32_t x = 0; x < luma.width; ++x) row[x] = curve[row[x]];
/// }
/// if (const auto face = luma.Crop(200, 300, 64, 48)) Blur(face);  // top, left, width, height
/// @endcode
///
/// The functions are pure: thread-safe, without log lines, and independent of the compiled library.

#include <sys/mman.h>

#include <cstddef>
#include <cstdint>
#include <limits>

#include "zytbuffermanager/zytimagelayout.h"

namespace zyt {

namespace detail {

/// Returns the bytes of pixel data in a row. Unlike FormatLayout::RowBytes it never ends the process.
inline uint64_t RowBytes(const FormatLayout& layout, uint32_t width) {
    return uint64_t{width} * layout.rowNumerator / layout.rowDenominator;
}

/// Returns the rows of plane k that have pixels; 0 when the format has no such plane.
inline uint32_t RowsOf(const FormatLayout& layout, uint32_t height, uint32_t k) {
    return k == 0 ? height : k == 1 && layout.HasChroma() ? height / 2 : 0;
}

/// Returns null when images can have that format and size, otherwise the reason why not.
inline const char* WhatIsWrongWithSize(const ZYTImageBuffer& image) {
    const FormatLayout* layout = FindFormatLayout(image.format);
    if (layout == nullptr) return "its format is unknown";
    if (image.width == 0 || image.height == 0) return "it has no pixels";
    constexpr uint64_t kLargest = std::numeric_limits<int32_t>::max();
    const uint64_t rowBytes = RowBytes(*layout, image.width);
    if (rowBytes == 0) return "a row has less than a byte";
    return rowBytes > kLargest || image.height > kLargest ? "its size does not fit 32 bits" : nullptr;
}

/// Returns null when the geometry is valid, otherwise the reason why not.
inline const char* WhatIsWrongWithGeometry(const ZYTImageBuffer& image) {
    if (const char* reason = WhatIsWrongWithSize(image)) return reason;
    if (image.planeStride > static_cast<uint32_t>(std::numeric_limits<int32_t>::max()) ||
        uint64_t{image.planeStride} * image.sliceHeight > std::numeric_limits<uint32_t>::max()) {
        return "its size does not fit 32 bits";
    }
    if (image.planeStride < RowBytes(*FindFormatLayout(image.format), image.width)) {
        return "its stride is below the bytes of a row";
    }
    if (image.sliceHeight < image.height) return "its slice height is below its height";
    return nullptr;
}

}  // namespace detail

/// A rectangle of samples in memory that somebody else owns.
template <typename Sample>
struct Plane {
    Sample* data = nullptr;  ///< The first sample; null when the view is empty.
    uint32_t width = 0;      ///< Samples in a row. A row of NV12's chroma has as many as one of its luma.
    uint32_t height = 0;     ///< Rows.
    uint32_t stride = 0;     ///< Bytes from the start of a row to the start of the next.

    /// Returns true unless the view is empty.
    explicit operator bool() const { return data != nullptr; }

    /// Returns the first sample of row y. REQUIRES: y < height.
    Sample* Row(uint32_t y) const { return data + size_t{y} * (stride / sizeof(Sample)); }

    /// Returns the view of a rectangle, given in samples and rows and in the order of ZYTRect. Empty when the rectangle
    /// is empty or exceeds this view.
    Plane Crop(uint32_t top, uint32_t left, uint32_t cropWidth, uint32_t cropHeight) const {
        const bool isInside = uint64_t{left} + cropWidth <= width && uint64_t{top} + cropHeight <= height;
        if (!isInside || cropWidth == 0 || cropHeight == 0) return {};
        return {Row(top) + left, cropWidth, cropHeight, stride};
    }
};

/// Returns plane k (0 luma or raw, 1 chroma) of an image, or an empty view when the image has no such plane, when
/// WhatIsWrong reports its geometry or its address, or when the address, the stride or the bytes of a row are no
/// multiple of a sample. Packed raw has bytes only. REQUIRES: whoever touches the samples of memory that has a
/// descriptor holds a CPU access.
template <typename Sample>
Plane<Sample> PlaneOf(const ZYTImageBuffer& image, uint32_t k) {
    if (image.numberOfPlanes == 0 || detail::WhatIsWrongWithGeometry(image) != nullptr) return {};
    const FormatLayout& layout = *FindFormatLayout(image.format);
    const uint64_t rowBytes = detail::RowBytes(layout, image.width);
    const uint32_t rows = detail::RowsOf(layout, image.height, k);
    const bool isBehindLuma = k == 1 && image.numberOfPlanes == 1 && layout.kind == FormatKind::kYuv420;
    unsigned char* address = isBehindLuma                        ? image.pAddr[0]
                             : k < image.numberOfPlanes && k < 2 ? image.pAddr[k]
                                                                 : nullptr;
    if (rows == 0 || address == nullptr || address == MAP_FAILED) return {};
    if (isBehindLuma) address += size_t{image.planeStride} * image.sliceHeight;
    constexpr size_t kBytes = sizeof(Sample);
    if ((layout.IsPacked() && kBytes > 1) || rowBytes % kBytes != 0 || image.planeStride % kBytes != 0 ||
        reinterpret_cast<uintptr_t>(address) % alignof(Sample) != 0) {
        return {};
    }
    return {reinterpret_cast<Sample*>(address), static_cast<uint32_t>(rowBytes / kBytes), rows, image.planeStride};
}

}  // namespace zyt

#endif  // ZYT_NODEKIT_PLANE_H
