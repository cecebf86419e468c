#include <algorithm>
#include <cmath>
#include <limits>

#include "base/zytchecked.h"
#include "utilities/zytutil.h"

namespace {

float ToFloat(uint32_t value) { return static_cast<float>(value); }

// Converts as the Arm instruction does, on every processor.
uint32_t ToUnsigned(float value) {
    if (!(value > 0.0f)) return 0;
    if (value >= 4294967296.0f) return std::numeric_limits<uint32_t>::max();
    return static_cast<uint32_t>(value);
}

// Returns a product that is rounded to single precision. Compilers may otherwise fuse it with a following subtraction,
// depending on processor and flags, and a desk would differ from a device.
float Product(float a, float b) {
    volatile float product = a * b;
    return product;
}

// Returns by how much a side that was scaled to cover the destination exceeds it at each end.
float Overflow(float ratio, uint32_t cropSide, uint32_t dstSide) {
    return std::fma(ratio, ToFloat(cropSide), -ToFloat(dstSide)) * 0.5f;
}

bool IsWithin(uint32_t start, uint32_t length, uint32_t low, uint32_t high) {
    if (start < low || start > high) return false;
    return zyt::CheckedAdd(start, length, "far edge of a face") <= high;
}

}  // namespace

ZYTRect ZYTUtil::TranslateCropInfo(ZYTRect rect, uint32_t inWidth, uint32_t inHeight, uint32_t outWidth,
                                   uint32_t outHeight) {
    const float scaleX = ToFloat(inWidth) / ToFloat(outWidth);
    const float scaleY = ToFloat(inHeight) / ToFloat(outHeight);
    const float scale = scaleX < scaleY ? scaleY : scaleX;
    const uint32_t width = std::min(ToUnsigned(scale * ToFloat(rect.width)), outWidth);
    const uint32_t height = std::min(ToUnsigned(scale * ToFloat(rect.height)), outHeight);
    return {(outHeight - height) / 2, (outWidth - width) / 2, width, height};
}

void ZYTUtil::MapFaceROIToImageBuffer(const std::vector<ZYTRect>& faces, std::vector<ZYTRect>& mapped, ZYTRect crop,
                                      ZYTRect dst) noexcept {
    if (crop.width == 0 || crop.height == 0 || faces.empty()) return;
    const uint32_t cropRight = zyt::CheckedAdd(crop.left, crop.width, "right edge of the crop");
    const uint32_t cropBottom = zyt::CheckedAdd(crop.top, crop.height, "bottom edge of the crop");
    const float ratioX = ToFloat(dst.width) / ToFloat(crop.width);
    const float ratioY = ToFloat(dst.height) / ToFloat(crop.height);
    const bool coversByWidth = ratioX > ratioY;
    const float scale = coversByWidth ? ratioX : ratioY;
    const float offsetX = coversByWidth ? 0.0f : Overflow(ratioY, crop.width, dst.width);
    const float offsetY = coversByWidth ? Overflow(ratioX, crop.height, dst.height) : 0.0f;

    for (const ZYTRect& face : faces) {
        if (!IsWithin(face.left, face.width, crop.left, cropRight)) continue;
        if (!IsWithin(face.top, face.height, crop.top, cropBottom)) continue;
        const float left = Product(scale, ToFloat(face.left - crop.left)) - offsetX;
        const float top = Product(scale, ToFloat(face.top - crop.top)) - offsetY;
        mapped.push_back({ToUnsigned(top), ToUnsigned(left), ToUnsigned(scale * ToFloat(face.width)),
                          ToUnsigned(scale * ToFloat(face.height))});
    }
}
