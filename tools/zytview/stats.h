#ifndef ZYTVIEW_STATS_H
#define ZYTVIEW_STATS_H

#include <string>
#include <vector>

#include "dump.h"
#include "workers.h"

/// How often each sample is there.
using Counts = std::vector<uint64_t>;  // 65536 of them

/// What a channel's samples are like.
struct Statistics {
    uint64_t samples = 0;
    uint32_t least = 0;
    uint32_t largest = 0;
    double mean = 0;
    double deviation = 0;  // the population's
    uint64_t clippedLow = 0;
    uint64_t clippedHigh = 0;
};

/// Counts the samples of a part of the dump, channel by channel, in the order of ChannelNames.
std::vector<Counts> CountSamples(const Dump& dump, const Rect& part, Workers& workers);

/// Clipped are samples of 0, and of the format's largest and above.
Statistics Describe(const Counts& counts, uint32_t largestSample);

/// One line for each channel, below a head.
std::string StatisticsTable(const std::vector<std::string>& names, const std::vector<Statistics>& channels);

/// The members of a JSON object, each a channel.
std::string StatisticsJson(const std::vector<std::string>& names, const std::vector<Statistics>& channels);

#endif  // ZYTVIEW_STATS_H
