#ifndef ZYTVIEW_PICTURE_H
#define ZYTVIEW_PICTURE_H

#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "dump.h"
#include "stats.h"

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

/// How to show the samples of a dump.
struct Look {
    bool isBt709 = false;           // matrix of YUV formats: BT.709 or BT.601
    bool isLimitedRange = false;    // YUV formats: 8-bit luma is 16 to 235 and chroma 16 to 240, otherwise 0 to 255
    bool isSrgb = false;            // raw formats and Y16: the curve of sRGB after the levels
    std::optional<uint32_t> bayer;  // colour order of raw formats: 0 RGGB, 1 GRBG, 2 GBRG, 3 BGGR; empty for grey
    // The levels: brightness is (sample - black) * gain * white.
    double black = 0;  // in samples
    double gain = 1;
    double white[3] = {1, 1, 1};  // gains of R, G and B, for Bayer colour
    bool isBlackGiven = false, isGainAuto = false, isWhiteAuto = false;

    bool IsAuto() const { return isGainAuto || isWhiteAuto; }
};

/// Sets the levels that are not given. White makes the means of all colours equal that of green; then black and gain
/// make the darkest and the lightest thousandth of all samples (of Y in formats with chroma) black and white. A
/// saturated green counts as white when the gains of red and blue are not smaller, so that a light that saturates all
/// channels has no colour. Counts are used only when IsAuto().
void SetLevels(Look& look, const Dump& dump, const std::vector<Counts>& counts);

/// Returns how many samples exceed the format's largest one and are cut to it.
uint64_t CountCut(const std::vector<Counts>& counts, const Look& look, uint32_t largestSample);

/// Returns the dump as a picture. Grey and raw samples of fewer than 16 bits are scaled to 16 bits; without levels and
/// curve, a right shift restores the samples. Chroma is not interpolated. A missing colour of a Bayer pixel is the mean
/// of that colour in the surrounding pixels. REQUIRES: the dump outlives the rows and their readers.
Rows DrawDump(const Dump& dump, const Look& look);

/// Returns a part of a picture in which each pixel is the mean of divisor * divisor pixels, or fewer at the right and
/// bottom edge.
Rows Part(const Rows& rows, const Rect& crop, uint32_t divisor);

/// Returns the differences as a picture: black for none, then dark grey up to white for the largest of all channels. A
/// pixel shows the larger of its luma and chroma differences.
Rows DrawDifference(const Dump& one, const Dump& other, const std::vector<Difference>& differences, uint32_t tolerance);

/// Draws a histogram: one named panel per channel, from 0 on the left to largestSample on the right. Heights are square
/// roots of the counts, so that rare samples stay visible beside frequent ones. Clipped samples are separate red bars
/// on both sides, cut at the panel's height.
Rows DrawHistogram(const std::vector<std::string>& names, const std::vector<Counts>& counts, uint32_t largestSample);

/// Draws the differences of profiles: one named panel per channel, from the first row or column on the left to the last
/// on the right. All panels have the scale in their upper corner: the largest difference, and at least ten spreads.
/// Outliers are red.
Rows DrawProfiles(const std::vector<std::string>& names, const std::vector<Profile>& profiles);

#endif  // ZYTVIEW_PICTURE_H
