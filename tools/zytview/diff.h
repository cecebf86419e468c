#ifndef ZYTVIEW_DIFF_H
#define ZYTVIEW_DIFF_H

#include <vector>

#include "picture.h"
#include "stats.h"

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

/// Returns the differences as a picture: black for none, then dark grey up to white for the largest of all channels. A
/// pixel shows the larger of its luma and chroma differences.
Rows DrawDifference(const Dump& one, const Dump& other, const std::vector<Difference>& differences, uint32_t tolerance);

#endif  // ZYTVIEW_DIFF_H
