#ifndef ZYTVIEW_HISTOGRAM_H
#define ZYTVIEW_HISTOGRAM_H

#include <string>
#include <vector>

#include "picture.h"
#include "stats.h"

/// Draws how often each sample is there: a panel for each channel with its name, from 0 on the left to largestSample on
/// the right. Heights are square roots, so that rare samples are seen beside frequent ones. Clipped samples have red
/// bars of their own on both sides, cut where they are higher than the panel.
Rows DrawHistogram(const std::vector<std::string>& names, const std::vector<Counts>& counts, uint32_t largestSample);

#endif  // ZYTVIEW_HISTOGRAM_H
