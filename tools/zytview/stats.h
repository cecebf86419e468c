#ifndef ZYTVIEW_STATS_H
#define ZYTVIEW_STATS_H

#include <string>
#include <vector>

#include "dump.h"
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
};

/// Counts the samples of a part of the dump, one Counts per channel in the order of ChannelNames.
std::vector<Counts> CountSamples(const Dump& dump, const Rect& part, Workers& workers);

/// Computes the statistics. Samples of 0, and of largestSample or above, count as clipped.
Statistics Describe(const Counts& counts, uint32_t largestSample);

/// Returns a header line and one line per channel.
std::string StatisticsTable(const std::vector<std::string>& names, const std::vector<Statistics>& channels);

/// Returns the members of a JSON object, one per channel.
std::string StatisticsJson(const std::vector<std::string>& names, const std::vector<Statistics>& channels);

#endif  // ZYTVIEW_STATS_H
