#ifndef ZYTVIEW_DIFF_H
#define ZYTVIEW_DIFF_H

#include <string>
#include <vector>

#include "picture.h"
#include "workers.h"

/// Differences between two dumps in one channel.
struct Difference {
    uint64_t samples = 0;
    uint64_t differing = 0;
    uint32_t largest = 0;
    uint32_t x = 0, y = 0;  // the first pixel with the largest difference, in row order
    double squares = 0;     // sum of squared differences

    /// Returns the PSNR in dB with the format's largest sample as the peak; infinite when nothing differs.
    double Psnr(uint32_t largestSample) const;
};

/// Compares a part of two dumps. Throws BadInput when their sizes or formats differ.
std::vector<Difference> Compare(const Dump& one, const Dump& other, const Rect& part, Workers& workers);

/// Returns the differences as a picture: black for none, then dark grey up to white for the largest of all channels. A
/// pixel shows the larger of its luma and chroma differences.
Rows DrawDifference(const Dump& one, const Dump& other, const std::vector<Difference>& differences);

std::string DifferenceTable(const std::vector<std::string>& names, const std::vector<Difference>& channels,
                            uint32_t largestSample);
/// Returns the members of a JSON object, one per channel.
std::string DifferenceJson(const std::vector<std::string>& names, const std::vector<Difference>& channels,
                           uint32_t largestSample);

#endif  // ZYTVIEW_DIFF_H
