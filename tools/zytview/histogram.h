#ifndef ZYTVIEW_HISTOGRAM_H
#define ZYTVIEW_HISTOGRAM_H

#include <string>
#include <vector>

#include "picture.h"
#include "stats.h"

/// Draws a histogram: one named panel per channel, from 0 on the left to largestSample on the right. Heights are square
/// roots of the counts, so that rare samples stay visible beside frequent ones. Clipped samples are separate red bars
/// on both sides, cut at the panel's height.
Rows DrawHistogram(const std::vector<std::string>& names, const std::vector<Counts>& counts, uint32_t largestSample);

#endif  // ZYTVIEW_HISTOGRAM_H
