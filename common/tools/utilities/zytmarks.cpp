#include <algorithm>
#include <cstdint>
#include <cstring>

#include "base/zytchecked.h"
#include "utilities/zytutil.h"
#include "zytbuffermanager/zytimagelayout.h"

namespace {

// Rows or columns, first and last inclusive; none when last is smaller. Signed and wide, so that the neighbours of 0
// and of the largest coordinate have a value.
struct Span {
    int64_t first;
    int64_t last;

    bool IsEmpty() const { return first > last; }
};

unsigned char* LumaRow(const ZYTImageBuffer& image, uint32_t y) {
    return image.pAddr[0] + zyt::CheckedMul(image.planeStride, y, "planeStride * row");
}

// Marks between sizeof(Word) and 2 * sizeof(Word) pixels with two stores that may overlap.
template <typename Word>
void MarkEnds(unsigned char* start, size_t length) {
    constexpr auto kMarks = static_cast<Word>(~Word{0});
    std::memcpy(start, &kMarks, sizeof(kMarks));
    std::memcpy(start + length - sizeof(kMarks), &kMarks, sizeof(kMarks));
}

// Marks columns of one row. Lines of common widths avoid the call of memset, which costs more than the stores.
inline void MarkColumns(unsigned char* row, Span columns) {
    if (columns.IsEmpty()) return;
    unsigned char* start = row + columns.first;
    const auto length = static_cast<size_t>(columns.last - columns.first + 1);
    if (length > 16 || length < 4) {
        std::memset(start, 255, length);
    } else if (length >= 8) {
        MarkEnds<uint64_t>(start, length);
    } else {
        MarkEnds<uint32_t>(start, length);
    }
}

constexpr Span kNoColumns = {0, -1};

// Marks two spans of columns in each of the rows. Row by row, because the end of one row is close to the start of the
// next in memory.
void Mark(const ZYTImageBuffer& image, Span rows, Span columns, Span moreColumns = kNoColumns) {
    // A row without a pixel to mark has no address, and must not be rejected for one.
    if (rows.IsEmpty() || (columns.IsEmpty() && moreColumns.IsEmpty())) return;
    static_cast<void>(LumaRow(image, static_cast<uint32_t>(rows.last)));  // guards all rows before it as well
    unsigned char* row = LumaRow(image, static_cast<uint32_t>(rows.first));
    for (int64_t y = rows.first; y <= rows.last; ++y, row += image.planeStride) {
        MarkColumns(row, columns);
        MarkColumns(row, moreColumns);
    }
}

// One axis of an outline: the bands around its near and its far edge and what lies between, clipped to the image.
struct OutlineAxis {
    Span whole;
    Span nearBand;
    Span between;
    Span farBand;

    OutlineAxis(uint32_t start, uint32_t length, uint32_t reach, uint32_t imageLength) {
        const uint32_t end = zyt::CheckedAdd(start, length, "far edge of a rectangle");
        const uint32_t imageLast = zyt::CheckedSub(imageLength, 1, "last row or column of an image");
        whole = {zyt::ClippedSub(start, reach), std::min(zyt::CheckedAdd(end, reach, "far edge and line"), imageLast)};
        nearBand = {whole.first, std::min(zyt::CheckedAdd(start, reach, "near edge and line"), imageLast)};
        farBand = {std::max<int64_t>(zyt::ClippedSub(end, reach), nearBand.last + 1), whole.last};
        between = {nearBand.last + 1, std::min(farBand.first - 1, whole.last)};
    }
};

}  // namespace

void ZYTUtil::DrawPointer(ZYTImageBuffer* pImage, uint32_t x, uint32_t y) {
    if (!zyt::IsYuv420(pImage->format) || x >= pImage->width || y >= pImage->height) return;
    LumaRow(*pImage, y)[x] = 255;
}

void ZYTUtil::DrawRect(ZYTImageBuffer* pImage, ZYTRect rect, uint32_t thickness) {
    const uint32_t reach = thickness / 2;
    const OutlineAxis rows(rect.top, rect.height, reach, pImage->height);
    const OutlineAxis columns(rect.left, rect.width, reach, pImage->width);
    if (!zyt::IsYuv420(pImage->format)) return;

    Mark(*pImage, rows.nearBand, columns.whole);
    Mark(*pImage, rows.between, columns.nearBand, columns.farBand);
    Mark(*pImage, rows.farBand, columns.whole);
}
