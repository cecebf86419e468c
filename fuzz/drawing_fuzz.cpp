// Points and outlines over a luma plane that ends with its last pixel, against the rule applied to each pixel.
#include "fuzzsupport.h"
#include "utilities/zytutil.h"

namespace {

// Mostly near the image, at times anywhere.
uint32_t Near(FuzzedDataProvider& data) {
    return data.ConsumeIntegralInRange(0, 7) > 0 ? data.ConsumeIntegralInRange(0u, 60u)
                                                 : data.ConsumeIntegral<uint32_t>();
}

bool IsBetween(int64_t value, int64_t low, int64_t high) { return value >= low && value <= high; }

// On the outline: within the outer edge of the four bands, but not inside their inner edge.
bool IsMarked(int64_t x, int64_t y, const ZYTRect& rect, int64_t t) {
    const int64_t left = rect.left, top = rect.top, right = left + rect.width, bottom = top + rect.height;
    const bool isInOuter = IsBetween(x, left - t, right + t) && IsBetween(y, top - t, bottom + t);
    const bool isInInner = IsBetween(x, left + t + 1, right - t - 1) && IsBetween(y, top + t + 1, bottom - t - 1);
    return isInOuter && !isInInner;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    FuzzedDataProvider data(bytes, size);
    ZYTImageBuffer image{};
    image.format = static_cast<ZYTFormat>(data.ConsumeBool() ? data.ConsumeIntegralInRange(0, 1)
                                                             : data.ConsumeIntegralInRange(-1, 11));
    const bool isDrawable = image.format == 0 || image.format == 1;
    image.width = isDrawable ? data.ConsumeIntegralInRange(0u, 40u) : Near(data);
    image.height = isDrawable ? data.ConsumeIntegralInRange(0u, 40u) : Near(data);
    image.planeStride = data.ConsumeIntegralInRange(0u, 60u);
    const bool isEmpty = image.width == 0 || image.height == 0;
    const size_t needed = isDrawable && !isEmpty ? image.planeStride * (image.height - 1) + image.width : 0;
    const Memory drawn(needed, 1), expected(needed, 1);
    image.pAddr[0] = drawn.Data();

    const uint32_t pointX = Near(data), pointY = Near(data);
    const ZYTRect rect = {Near(data), Near(data), Near(data), Near(data)};
    const uint32_t thickness = Near(data), t = thickness / 2;
    // An image without pixels ends the process, and so does an outline whose far edge does not fit 32 bits.
    const bool isOutlined =
        !isEmpty && uint64_t{rect.left} + rect.width + t <= kMax32 && uint64_t{rect.top} + rect.height + t <= kMax32;
    for (uint32_t y = 0; isDrawable && y < image.height; ++y) {
        for (uint32_t x = 0; x < image.width; ++x) {
            const bool isPoint = x == pointX && y == pointY;
            if (!isPoint && !(isOutlined && IsMarked(x, y, rect, t))) continue;
            expected.Data()[y * image.planeStride + x] = 255;
        }
    }
    ZYTUtil::DrawPointer(&image, pointX, pointY);
    if (isOutlined) ZYTUtil::DrawRect(&image, rect, thickness);
    FUZZ_CHECK(drawn == expected);
    return 0;
}
