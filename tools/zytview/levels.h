#ifndef ZYTVIEW_LEVELS_H
#define ZYTVIEW_LEVELS_H

#include <cstdint>
#include <optional>
#include <vector>

#include "stats.h"

/// Maps a sample to brightness: (sample - black) * gain * white.
struct Levels {
    double black = 0;  // in samples
    double gain = 1;
    double white[3] = {1, 1, 1};  // gains of R, G and B, for Bayer colour
};

/// Levels as requested on the command line.
struct WantedLevels : Levels {
    bool isBlackGiven = false, isGainAuto = false, isWhiteAuto = false;

    bool IsAuto() const { return isGainAuto || isWhiteAuto; }
};

/// Returns the colour of a sample in a colour order (0 RGGB, 1 GRBG, 2 GBRG, 3 BGGR): 0 red, 1 green, 2 blue. Red is at
/// odd columns in GRBG and BGGR, and at odd rows in GBRG and BGGR. Relative to red, blue is one column and one row
/// away, and green one column or one row.
inline uint32_t ColourAt(uint32_t bayer, uint32_t column, uint32_t row) {
    return ((column ^ bayer) & 1) + ((row ^ bayer >> 1) & 1);
}

/// Computes the automatic levels from the counts: white makes the means of all colours equal that of green; then black
/// and gain make the darkest and the lightest thousandth of all samples (of Y in formats with chroma) black and white.
/// A saturated green counts as white when the gains of red and blue are not smaller, so that a light that saturates all
/// channels has no colour. Otherwise `black` is the default black level, and gain 1 shows black + span as white. Counts
/// are used for automatic levels only.
Levels Resolve(const WantedLevels& wanted, const std::vector<Counts>& counts, const std::optional<uint32_t>& bayer,
               double black, double span);

/// Returns how many samples exceed the format's largest one and are cut to it at these levels.
uint64_t CountCut(const std::vector<Counts>& counts, const Levels& levels, const std::optional<uint32_t>& bayer,
                  uint32_t largestSample);

#endif  // ZYTVIEW_LEVELS_H
