#ifndef ZYTVIEW_PIXEL_H
#define ZYTVIEW_PIXEL_H

#include <optional>
#include <string>

#include "dump.h"

/// Returns the unchanged samples at and around a pixel as text: a block for the first plane, and one each for U and V,
/// whose samples are listed at the first of their columns and rows. REQUIRES: the pixel is inside the picture.
std::string PixelText(const Dump& dump, uint32_t x, uint32_t y, const std::optional<uint32_t>& bayer);

#endif  // ZYTVIEW_PIXEL_H
