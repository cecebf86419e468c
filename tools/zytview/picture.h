#ifndef ZYTVIEW_PICTURE_H
#define ZYTVIEW_PICTURE_H

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "dump.h"
#include "levels.h"

/// Reads row y of a picture, width * channels values. One thread's; quickest for the rows from top to bottom.
using RowReader = std::function<void(uint32_t y, uint16_t* values)>;

/// Rows of grey or RGB, for any number of threads that each have a reader of their own.
struct Rows {
    uint32_t width;
    uint32_t height;
    uint32_t channels;  // 1 for grey, 3 for RGB
    uint32_t depth;     // bits of a channel, 8 or 16
    std::function<RowReader()> newReader;
};

/// How the samples of a dump are to be understood.
struct Look {
    bool isBt709 = false;           // the matrix of YUV formats, else BT.601
    bool isLimitedRange = false;    // YUV formats: 8-bit luma from 16 to 235 and chroma from 16 to 240, else all values
    std::optional<uint32_t> bayer;  // colour order of raw formats: 0 RGGB, 1 GRBG, 2 GBRG, 3 BGGR; grey without
    Levels levels;
};

/// A dump as a picture. Grey and raw samples with fewer than 16 bits are spread over all 16 so that, without levels, a
/// shift to the right gives each back as it was.
class Picture {
public:
    Picture(const Dump& dump, const Look& look);

    /// Chroma is that of the sample, without interpolation; a colour that a Bayer pixel lacks is the mean of that
    /// colour among the pixels around it. The picture has to outlive its readers.
    Rows AllRows() const;

    /// How many samples of the rows read so far did not fit the format's bits and are shown as the largest value.
    uint64_t ExcessiveSamples() const { return m_excessive; }

private:
    // Rows of a Bayer picture that a reader holds at once.
    struct Held {
        std::vector<uint16_t> samples;
        uint32_t excessive = 0;
        uint32_t row = UINT32_MAX;
    };
    using HeldRows = std::array<Held, 3>;

    void MakeTables();
    void MakeFactors();
    uint32_t ReadSpreadRow(uint32_t y, uint16_t* samples) const;
    void ReadYuvRow(uint32_t y, uint16_t* luma, uint16_t* chroma, uint16_t* values) const;
    void ReadBayerRow(uint32_t y, HeldRows& held, uint16_t* values) const;
    void MixPixel(uint32_t x, uint32_t y, const HeldRows& held, uint16_t* values) const;

    const Dump& m_dump;
    const Look m_look;
    mutable std::atomic<uint64_t> m_excessive{0};
    std::vector<uint16_t> m_tables[3];  // brightness of each sample, by colour
    // Fixed-point factors of the YUV conversion.
    int64_t m_luma = 0, m_redV = 0, m_greenU = 0, m_greenV = 0, m_blueU = 0;
};

/// A part of a picture, each pixel the mean of divisor * divisor, or of what is left at the end.
Rows Part(const Rows& rows, const Rect& crop, uint32_t divisor);

#endif  // ZYTVIEW_PICTURE_H
