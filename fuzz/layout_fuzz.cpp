// Copies and dumps of images over memory that ends where their layout ends, against a copy byte by byte.
#include <algorithm>
#include <fstream>
#include <iterator>

#include "fuzzsupport.h"
#include "zytbuffermanager/zytbufferutil.h"

namespace {

constexpr uint64_t kMost = 1 << 16;  // bytes of an image, and bytes moved
constexpr size_t kPlanes[] = {0, 1};
constexpr uint32_t kBits[] = {8, 8, 10, 12, 14, 16, 16, 16, 16, 16, 16};  // a pixel, by format

bool IsKnown(int format) { return format >= 0 && format <= 10; }
bool IsNv(int format) { return format == 0 || format == 1; }
bool HasChroma(int format) { return IsNv(format) || format == ZYT_FORMAT_YUV_P010; }

// What one operation moves, in each plane.
struct Moved {
    uint64_t rowBytes = 0;
    uint64_t rows[2] = {0, 0};

    Moved() = default;
    Moved(uint32_t width, uint32_t height, uint32_t bits, bool hasChroma)
        : rowBytes(bits % 8 == 0 ? uint64_t{width} * (bits / 8) : uint64_t{width} * bits),
          rows{height > INT32_MAX ? 0 : height, hasChroma ? height / 2 : 0} {
        // A product that does not fit ends the process even where the row would fit: leave it too large.
        if (bits % 8 != 0 && rowBytes <= kMax32) rowBytes /= 8;
    }
};

struct Picture {
    ZYTImageBuffer image;
    std::unique_ptr<Memory> memory[2];
    unsigned char* start[2] = {nullptr, nullptr};

    explicit Picture(const ZYTImageBuffer& described) : image(described) {}

    // False for what ends the process, and for what takes more than a fuzzer should.
    bool Allocate(const Moved& moved, size_t seed) {
        const bool isSingle = IsNv(image.format) && image.numberOfPlanes < 2;
        const uint64_t chroma = isSingle && moved.rows[1] > 0 ? uint64_t{image.planeStride} * image.sliceHeight : 0;
        if (moved.rowBytes > INT32_MAX || chroma > kMost) return false;
        uint64_t size[2] = {chroma, 0};
        for (const size_t p : kPlanes) {
            if (moved.rows[p] == 0 || moved.rowBytes == 0) continue;
            const uint64_t end = (moved.rows[p] - 1) * image.planeStride + moved.rowBytes;
            if (end > kMost || moved.rows[p] * moved.rowBytes > kMost) return false;
            size[isSingle ? 0 : p] = std::max(size[isSingle ? 0 : p], p * chroma + end);
        }
        for (const size_t p : kPlanes) {
            memory[p] = std::make_unique<Memory>(size[p], seed + p);
            if (p == 0 || !isSingle) image.pAddr[p] = memory[p]->Data();
            start[p] = isSingle ? image.pAddr[0] + p * chroma : image.pAddr[p];
        }
        return true;
    }

    // The image's bytes that count, in the order in which they are moved.
    std::vector<unsigned char*> Pixels(const Moved& moved) const {
        std::vector<unsigned char*> pixels;
        for (const size_t p : kPlanes) {
            for (uint64_t row = 0; moved.rowBytes > 0 && row < moved.rows[p]; ++row) {
                for (uint64_t i = 0; i < moved.rowBytes; ++i) pixels.push_back(start[p] + row * image.planeStride + i);
            }
        }
        return pixels;
    }
};

// Mostly small, at times at an end of what 32 bits hold.
uint32_t Side(FuzzedDataProvider& data, uint32_t usual) {
    if (data.ConsumeIntegralInRange(0, 15) > 0) return data.ConsumeIntegralInRange(0u, usual);
    return data.PickValueInArray({0x19999999u, 0x1999999au, 0x3fffffffu, 0x40000000u, 0x7fffffffu, 0x80000000u,
                                  0xfffffffeu, 0xffffffffu, data.ConsumeIntegral<uint32_t>()});
}

ZYTImageBuffer Describe(FuzzedDataProvider& data) {
    const auto format = static_cast<ZYTFormat>(data.ConsumeIntegralInRange(-1, 11));
    const uint32_t width = Side(data, 40), height = Side(data, 40), stride = Side(data, 100), slice = Side(data, 40);
    return {format, width, height, stride, slice, data.ConsumeIntegralInRange(0u, 4u), {}, {}, nullptr};
}

void CheckCopy(const ZYTImageBuffer& from, ZYTImageBuffer to) {
    const bool isMatching =
        (from.width == to.width && from.height == to.height) || (from.width == to.height && from.height == to.width);
    const bool isP010 = from.format == ZYT_FORMAT_YUV_P010;
    const bool isLike = IsKnown(from.format) && (from.format == to.format || isP010);
    Moved moved;
    if (isMatching) {
        moved = Moved(from.width, from.height, isLike ? kBits[from.format] : 16, isLike && HasChroma(from.format));
    }
    // Goes to the second address, whatever the destination says it is.
    if (isP010) to.numberOfPlanes = 2;
    Picture src(from), dst(to), expected(to);
    if (!src.Allocate(moved, 1) || !dst.Allocate(moved, 100) || !expected.Allocate(moved, 100)) return;
    const std::vector<unsigned char*> read = src.Pixels(moved), written = expected.Pixels(moved);
    for (size_t i = 0; i < read.size(); ++i) *written[i] = *read[i];
    FUZZ_CHECK(ZYTBufferUtil::ZYTBufferCopy(&dst.image, &src.image) == isMatching);
    FUZZ_CHECK(*dst.memory[0] == *expected.memory[0] && *dst.memory[1] == *expected.memory[1]);
}

void CheckDump(const ZYTImageBuffer& from) {
    Moved moved;
    if (IsKnown(from.format)) {
        // Of Y16 half of each row, where the copy moves all.
        const uint32_t bits = from.format == ZYT_FORMAT_Y16 ? 8 : kBits[from.format];
        moved = Moved(from.width, from.height, bits, HasChroma(from.format));
    }
    Picture src(from);
    if (!src.Allocate(moved, 1)) return;
    std::string expected;
    for (const unsigned char* pixel : src.Pixels(moved)) expected.push_back(static_cast<char>(*pixel));
    static const std::string path = Scratch("dump");
    FUZZ_CHECK(ZYTBufferUtil::ZYTBufferDump(&src.image, path.c_str()));
    std::ifstream file(path, std::ios::binary);
    FUZZ_CHECK(std::string(std::istreambuf_iterator<char>(file), {}) == expected);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    FuzzedDataProvider data(bytes, size);
    const ZYTImageBuffer from = Describe(data);
    ZYTImageBuffer to = Describe(data);
    // Sizes that are left to chance hardly ever match.
    const int relation = data.ConsumeIntegralInRange(0, 7);
    if (relation > 0) to.width = relation == 1 ? from.height : from.width;
    if (relation > 0) to.height = relation == 1 ? from.width : from.height;
    if (relation > 2) to.format = from.format;
    CheckCopy(from, to);
    CheckDump(from);
    return 0;
}
