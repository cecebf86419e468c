#ifndef ZYTVIEW_STATS_H
#define ZYTVIEW_STATS_H

#include <optional>
#include <string>
#include <vector>

#include "dump.h"
#include "text.h"
#include "workers.h"

/// Number of occurrences of each of the 65536 sample values.
using Counts = std::vector<uint64_t>;

/// Statistics of a channel.
struct Statistics {
    uint64_t samples = 0;
    uint32_t least = 0;
    uint32_t largest = 0;
    double mean = 0;
    double deviation = 0;  // population standard deviation
    uint64_t clippedLow = 0;
    uint64_t clippedHigh = 0;

    std::vector<Cell> Cells() const;
};

/// Counts the samples of a part of the dump, one Counts per channel in the order of ChannelNames.
std::vector<Counts> CountSamples(const Dump& dump, const Rect& part, Workers& workers);

/// Computes the statistics. Samples of 0, and of largestSample or above, count as clipped.
Statistics Describe(const Counts& counts, uint32_t largestSample);

/// Returns a cell with a number and its percentage of `all`.
Cell ShareCell(const char* title, int width, const char* key, uint64_t number, uint64_t all);

/// Returns the unchanged samples at and around a pixel: a block for the first plane, and one each for U and V, whose
/// samples are listed at the first of their columns and rows; "-" where the file has no chroma. REQUIRES: the pixel is
/// inside the picture.
std::string PixelText(const Dump& dump, uint32_t x, uint32_t y, const std::optional<uint32_t>& bayer);

/// Returns the members of a JSON object with the samples of a pixel; null where the file has no chroma.
std::string PixelJson(const Dump& dump, uint32_t x, uint32_t y, const std::optional<uint32_t>& bayer);

#endif  // ZYTVIEW_STATS_H
