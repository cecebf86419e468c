#ifndef ZYTVIEW_PICTURE_H
#define ZYTVIEW_PICTURE_H

#include <cstdint>
#include <optional>
#include <vector>

#include "dump.h"

/// How the samples of a dump are to be understood.
struct Look {
    bool isBt709 = false;           // the matrix of YUV formats, else BT.601
    bool isLimitedRange = false;    // YUV formats: 8-bit luma from 16 to 235 and chroma from 16 to 240, else all values
    std::optional<uint32_t> bayer;  // colour order of raw formats: 0 RGGB, 1 GRBG, 2 GBRG, 3 BGGR; grey without
};

/// The rounded mean of count values, of which there is at least one.
inline uint16_t Mean(uint32_t sum, uint32_t count) {
    return static_cast<uint16_t>((sum + count / 2) / count);  // NOLINT(clang-analyzer-core.DivideZero): never 0
}

/// A dump as rows of grey or RGB.
class Picture {
public:
    Picture(const Dump& dump, const Look& look);

    uint32_t Width() const { return m_dump.Width(); }
    uint32_t Height() const { return m_dump.Height(); }
    uint32_t Channels() const { return m_look.bayer || m_dump.Layout().HasChroma() ? 3 : 1; }
    /// Bits of each channel, 8 or 16. Grey and raw samples with fewer are spread over the whole range by repeating
    /// their upper bits below, so that a shift to the right gives each back as it was.
    uint32_t Depth() const { return m_dump.Layout().bits == 8 ? 8 : 16; }

    /// Reads row y, Width() * Channels() values. Each call is for the row below the one before. Chroma is that of the
    /// sample, without interpolation; a colour that a Bayer pixel lacks is the mean of that colour among the pixels
    /// around it.
    void ReadRow(uint32_t y, uint16_t* values);

    /// How many samples of the rows read so far did not fit the format's bits and are shown as the largest value.
    uint64_t ExcessiveSamples() const { return m_excessive; }

private:
    void ReadSpreadRow(uint32_t y, uint16_t* samples);
    void ReadYuvRow(uint32_t y, uint16_t* values);
    void ReadBayerRow(uint32_t y, uint16_t* values);

    const Dump& m_dump;
    const Look m_look;
    uint64_t m_excessive = 0;
    std::vector<uint16_t> m_rows[3];
    uint32_t m_nextRow = 0;  // the first that was not read yet
    // Fixed-point factors of the YUV conversion.
    int64_t m_luma = 0, m_redV = 0, m_greenU = 0, m_greenV = 0, m_blueU = 0;
};

#endif  // ZYTVIEW_PICTURE_H
