#ifndef ZYTVIEW_CHART_H
#define ZYTVIEW_CHART_H

#include <string>
#include <vector>

#include "picture.h"
#include "profile.h"

/// Draws a histogram: one named panel per channel, from 0 on the left to largestSample on the right. Heights are square
/// roots of the counts, so that rare samples stay visible beside frequent ones. Clipped samples are separate red bars
/// on both sides, cut at the panel's height.
Rows DrawHistogram(const std::vector<std::string>& names, const std::vector<Counts>& counts, uint32_t largestSample);

/// Draws the differences of profiles: one named panel per channel, from the first row or column on the left to the last
/// on the right. All panels have the scale in their upper corner: the largest difference, and at least ten spreads.
/// Outliers are red.
Rows DrawProfiles(const std::vector<std::string>& names, const std::vector<Profile>& profiles);

#endif  // ZYTVIEW_CHART_H
