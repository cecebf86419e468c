// Crops and faces against the same rules in double and in whole numbers, rounded to single precision after every step.
// A double has room for the sum, product or quotient of two floats such that rounding it again gives the float's own.
#include <cmath>

#include "fuzzsupport.h"
#include "utilities/zytutil.h"

namespace {

double Single(double value) { return static_cast<float>(value); }

uint32_t Whole(double value) {
    if (std::isnan(value) || value < 0) return 0;
    return value > static_cast<double>(kMax32) ? UINT32_MAX : static_cast<uint32_t>(std::floor(value));
}

bool AreSame(const ZYTRect& a, const ZYTRect& b) { return std::memcmp(&a, &b, sizeof(a)) == 0; }

ZYTRect ExpectedCrop(const ZYTRect& rect, uint32_t inWidth, uint32_t inHeight, uint32_t outWidth, uint32_t outHeight) {
    const double x = Single(Single(inWidth) / Single(outWidth));
    const double y = Single(Single(inHeight) / Single(outHeight));
    const double scale = x < y ? y : x;
    const uint32_t width = std::min(Whole(Single(scale * Single(rect.width))), outWidth);
    const uint32_t height = std::min(Whole(Single(scale * Single(rect.height))), outHeight);
    return {(outHeight - height) / 2, (outWidth - width) / 2, width, height};
}

// (ratio * cropSide - dstSide) / 2, rounded once. A ratio of 32-bit numbers in single precision has no bit below 2^-55:
// in units of that size everything is whole and fits 128 bits.
double Overflow(double ratio, uint32_t cropSide, uint32_t dstSide) {
    const __int128 scaled = static_cast<__int128>(std::ldexp(ratio, 55)) * static_cast<__int128>(Single(cropSide));
    const __int128 overflow = scaled - (static_cast<__int128>(Single(dstSide)) << 55);
    return std::ldexp(static_cast<double>(static_cast<float>(overflow)), -56);
}

ZYTRect ExpectedFace(const ZYTRect& face, const ZYTRect& crop, const ZYTRect& dst) {
    const double ratioX = Single(Single(dst.width) / Single(crop.width));
    const double ratioY = Single(Single(dst.height) / Single(crop.height));
    const double scale = std::max(ratioX, ratioY);
    double left = Single(scale * Single(face.left - crop.left));
    double top = Single(scale * Single(face.top - crop.top));
    if (ratioX > ratioY) {
        top = Single(top - Overflow(ratioX, crop.height, dst.height));
    } else {
        left = Single(left - Overflow(ratioY, crop.width, dst.width));
    }
    return {Whole(top), Whole(left), Whole(Single(scale * Single(face.width))),
            Whole(Single(scale * Single(face.height)))};
}

enum Place { kOutside, kInside, kFatal };

// A far edge that does not fit 32 bits ends the process where it is to decide whether the face is inside.
Place Locate(uint32_t start, uint32_t length, uint32_t low, uint64_t high) {
    if (start < low || start > high) return kOutside;
    const uint64_t end = uint64_t{start} + length;
    return end > kMax32 ? kFatal : end <= high ? kInside : kOutside;
}

uint32_t Number(FuzzedDataProvider& data) {
    const int shift = data.ConsumeIntegralInRange(0, 31);
    return data.ConsumeIntegral<uint32_t>() >> shift;
}

ZYTRect Rect(FuzzedDataProvider& data) { return {Number(data), Number(data), Number(data), Number(data)}; }

// Within the range or one beside it, or anything: what is left to chance lies outside nearly always.
uint32_t About(FuzzedDataProvider& data, uint64_t low, uint64_t high) {
    if (data.ConsumeBool()) return Number(data);
    return static_cast<uint32_t>(low - 1 + data.ConsumeIntegralInRange<uint64_t>(0, high - low + 2));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    FuzzedDataProvider data(bytes, size);
    const ZYTRect rect = Rect(data), sides = Rect(data), crop = Rect(data), dst = Rect(data);
    FUZZ_CHECK(AreSame(ZYTUtil::TranslateCropInfo(rect, sides.top, sides.left, sides.width, sides.height),
                       ExpectedCrop(rect, sides.top, sides.left, sides.width, sides.height)));

    const uint64_t right = uint64_t{crop.left} + crop.width, bottom = uint64_t{crop.top} + crop.height;
    const bool isEmpty = crop.width == 0 || crop.height == 0;
    if (!isEmpty && (right > kMax32 || bottom > kMax32)) return 0;
    std::vector<ZYTRect> faces, expected = {{1, 2, 3, 4}}, mapped = expected;
    while (data.remaining_bytes() > 0 && faces.size() < 8) {
        ZYTRect face{};
        face.left = About(data, crop.left, right);
        face.top = About(data, crop.top, bottom);
        const uint64_t width = right - std::min<uint64_t>(right, face.left);
        const uint64_t height = bottom - std::min<uint64_t>(bottom, face.top);
        face.width = About(data, width, width);
        face.height = About(data, height, height);
        const Place x = Locate(face.left, face.width, crop.left, right);
        const Place y = Locate(face.top, face.height, crop.top, bottom);
        if (!isEmpty && (x == kFatal || (x == kInside && y == kFatal))) continue;
        faces.push_back(face);
        if (!isEmpty && x == kInside && y == kInside) expected.push_back(ExpectedFace(face, crop, dst));
    }
    ZYTUtil::MapFaceROIToImageBuffer(faces, mapped, crop, dst);
    FUZZ_CHECK(mapped.size() == expected.size());
    for (size_t i = 0; i < mapped.size(); ++i) FUZZ_CHECK(AreSame(mapped[i], expected[i]));
    return 0;
}
