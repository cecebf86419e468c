#ifndef ZYTVIEW_DIFF_H
#define ZYTVIEW_DIFF_H

#include <string>
#include <vector>

#include "picture.h"
#include "workers.h"

/// How a channel of one dump differs from that of another.
struct Difference {
    uint64_t samples = 0;
    uint64_t differing = 0;
    uint32_t largest = 0;
    uint32_t x = 0, y = 0;  // the first pixel, row by row, with the largest
    double squares = 0;     // the sum of squared differences

    /// Peak signal to noise in dB, the format's largest sample being the peak; infinite where nothing differs.
    double Psnr(uint32_t largestSample) const;
};

/// Compares a part of two dumps. Throws BadInput where they are not of one geometry and format.
std::vector<Difference> Compare(const Dump& one, const Dump& other, const Rect& part, Workers& workers);

/// The differences as a picture: black where there is none, from dark grey on to white for the largest of all channels.
/// Of a pixel's luma and chroma the larger counts.
Rows DrawDifference(const Dump& one, const Dump& other, const std::vector<Difference>& differences);

std::string DifferenceTable(const std::vector<std::string>& names, const std::vector<Difference>& channels,
                            uint32_t largestSample);
/// The members of a JSON object, each a channel.
std::string DifferenceJson(const std::vector<std::string>& names, const std::vector<Difference>& channels,
                           uint32_t largestSample);

#endif  // ZYTVIEW_DIFF_H
