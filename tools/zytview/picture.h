#ifndef ZYTVIEW_PICTURE_H
#define ZYTVIEW_PICTURE_H

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "dump.h"
#include "levels.h"

/// Reads the width * channels values of row y. Not thread-safe. Fastest for rows from top to bottom.
using RowReader = std::function<void(uint32_t y, uint16_t* values)>;

/// The rows of a grey or RGB picture. Thread-safe; each thread needs its own reader.
struct Rows {
    uint32_t width;
    uint32_t height;
    uint32_t channels;  // 1 for grey, 3 for RGB
    uint32_t depth;     // bits per channel, 8 or 16
    std::function<RowReader()> newReader;
};

/// How to interpret the samples of a dump.
struct Look {
    bool isBt709 = false;           // matrix of YUV formats: BT.709 or BT.601
    bool isLimitedRange = false;    // YUV formats: 8-bit luma is 16 to 235 and chroma 16 to 240, otherwise 0 to 255
    std::optional<uint32_t> bayer;  // colour order of raw formats: 0 RGGB, 1 GRBG, 2 GBRG, 3 BGGR; empty for grey
    Levels levels;
    bool isSrgb = false;  // raw formats and Y16: the curve of sRGB after the levels
};

/// A dump as a picture. Grey and raw samples of fewer than 16 bits are scaled to 16 bits; without levels and curve, a
/// right shift restores the samples.
class Picture {
public:
    Picture(const Dump& dump, const Look& look);

    /// Returns the rows. Chroma is not interpolated. A missing colour of a Bayer pixel is the mean of that colour in
    /// the surrounding pixels. REQUIRES: the picture outlives the rows and their readers.
    Rows AllRows() const;

private:
    // A row that a reader keeps.
    struct Held {
        std::vector<uint16_t> samples;
        uint32_t row = UINT32_MAX;
    };
    using HeldRows = std::array<Held, 3>;

    void MakeTables();
    void MakeFactors();
    void ReadSpreadRow(uint32_t y, uint16_t* samples) const;
    void ReadYuvRow(uint32_t y, uint16_t* luma, uint16_t* chroma, uint16_t* values) const;
    void ReadBayerRow(uint32_t y, HeldRows& held, uint16_t* values) const;
    void MixPixel(uint32_t x, uint32_t y, const HeldRows& held, uint16_t* values) const;

    const Dump& m_dump;
    const Look m_look;
    std::vector<uint16_t> m_tables[3];  // brightness of each sample, for each colour
    // Fixed-point factors of the YUV conversion.
    int64_t m_luma = 0, m_redV = 0, m_greenU = 0, m_greenV = 0, m_blueU = 0;
};

/// Returns a part of a picture in which each pixel is the mean of divisor * divisor pixels, or fewer at the right and
/// bottom edge.
Rows Part(const Rows& rows, const Rect& crop, uint32_t divisor);

#endif  // ZYTVIEW_PICTURE_H
