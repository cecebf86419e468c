#ifndef ZYTVIEW_PROFILE_H
#define ZYTVIEW_PROFILE_H

#include <vector>

#include "stats.h"

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

#endif  // ZYTVIEW_PROFILE_H
