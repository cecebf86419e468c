#ifndef ZYTVIEW_LEVELS_H
#define ZYTVIEW_LEVELS_H

#include <cstdint>
#include <optional>
#include <vector>

#include "stats.h"

/// How a sample becomes brightness: (sample - black) * gain * white.
struct Levels {
    double black = 0;  // in samples
    double gain = 1;
    double white[3] = {1, 1, 1};  // of R, G and B, for Bayer colour
};

/// Levels as they were asked for.
struct WantedLevels {
    std::optional<double> black;
    double gain = 1;
    bool isGainAuto = false;
    double white[3] = {1, 1, 1};
    bool isWhiteAuto = false;

    bool IsAuto() const { return isGainAuto || isWhiteAuto; }
};

/// Whether a sample at that column and row of a colour order (0 RGGB, 1 GRBG, 2 GBRG, 3 BGGR) is red (0), green (1) or
/// blue (2). Red lies at odd columns in GRBG and BGGR and at odd rows in GBRG and BGGR. Seen from there, a sample is
/// red at even columns and rows, blue at odd ones, and green where one of both is odd.
inline uint32_t ColourAt(uint32_t bayer, uint32_t column, uint32_t row) {
    return ((column ^ bayer) & 1) + ((row ^ bayer >> 1) & 1);
}

/// Works out what is automatic from counted samples: white so that the means of all colours are green's, then black and
/// gain so that the darkest and the lightest thousandth of all samples (with chroma, of Y) become black and white.
/// Without gain, black is black and as much as span above it white. No counts are wanted when nothing is automatic.
Levels Resolve(const WantedLevels& wanted, const std::vector<Counts>& counts, const std::optional<uint32_t>& bayer,
               double black, double span);

#endif  // ZYTVIEW_LEVELS_H
