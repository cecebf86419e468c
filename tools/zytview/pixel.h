#ifndef ZYTVIEW_PIXEL_H
#define ZYTVIEW_PIXEL_H

#include <optional>
#include <string>

#include "dump.h"

/// The samples at a pixel and around it, as the dump has them: a block for the first plane, and one each for U and V,
/// whose samples are shown at the first of their columns and rows. REQUIRES: the pixel lies in the picture.
std::string PixelText(const Dump& dump, uint32_t x, uint32_t y, const std::optional<uint32_t>& bayer);

#endif  // ZYTVIEW_PIXEL_H
