#ifndef ZYTVIEW_STATS_H
#define ZYTVIEW_STATS_H

#include <string>
#include <valarray>
#include <vector>

#include "dump.h"
#include "text.h"
#include "workers.h"

/// Number of occurrences of each of the 65536 sample values.
using Counts = std::valarray<uint64_t>;

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

/// Means of the rows or columns of a channel, and which of them stand out from their neighbours.
struct Profile {
    std::vector<uint32_t> at;         // rows or columns that have samples of the channel
    std::vector<double> means;        // of each
    std::vector<double> differences;  // mean less the median of the nearest four others, two on each side
    double mean = 0;                  // of all samples
    double spread = 0;                // 1.4826 * median of the differences' amounts: a standard deviation for noise

    /// Returns true when a difference exceeds five spreads, which noise hardly ever does, and one percent of the mean,
    /// which an eye notices.
    bool IsOutlier(size_t i) const;

    std::vector<Cell> Cells() const;
};

/// Computes the profiles of a part of the dump, one per channel in the order of ChannelNames.
std::vector<Profile> MakeProfiles(const Dump& dump, const Rect& part, bool ofColumns, Workers& workers);

/// Differences between two dumps in one channel.
struct Difference {
    uint64_t samples = 0;
    uint64_t differing = 0;  // by more than the tolerance
    int largest = -1;        // -1 when all are equal; 0 when only unused bits of containers differ
    uint32_t x = 0, y = 0;   // the first pixel with the largest difference, in row order
    int64_t sum = 0;         // of the differences, positive where the first dump is larger
    double squares = 0;      // sum of squared differences

    /// Adds the differences of rows below.
    Difference& operator+=(const Difference& below);

    /// Returns the cells; the peak of the PSNR is the format's largest sample.
    std::vector<Cell> Cells(uint32_t largestSample) const;
};

/// Compares a part of two dumps. Differences up to the tolerance do not count as differing. Throws BadInput when their
/// sizes or formats differ.
std::vector<Difference> Compare(const Dump& one, const Dump& other, const Rect& part, uint32_t tolerance,
                                Workers& workers);

/// The samples of a pixel.
struct PixelNumbers {
    std::string json;  // members of an object; null where the file has no chroma
    std::string text;  // with the samples around it; "-" where the file has no chroma
};

/// Returns the unchanged samples at and around a pixel: of the first plane, and of U and V, which are listed at the
/// first of their columns and rows. REQUIRES: the pixel is inside the picture; the names are those of all channels.
PixelNumbers DescribePixel(const Dump& dump, std::vector<std::string> names, uint32_t x, uint32_t y);

#endif  // ZYTVIEW_STATS_H
