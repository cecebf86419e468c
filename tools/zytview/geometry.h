#ifndef ZYTVIEW_GEOMETRY_H
#define ZYTVIEW_GEOMETRY_H

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "zytbuffermanager/zytimagelayout.h"

/// A mistake in what the user gave: shown as one line, exit code 2.
struct BadInput : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// What is known of a dump besides its bytes.
struct Geometry {
    const zyt::FormatLayout* layout = nullptr;
    uint32_t width = 0;                   // pixels
    uint32_t height = 0;                  // rows
    std::optional<uint32_t> stride;       // bytes from row to row; a row's pixels unless given
    std::optional<uint32_t> sliceHeight;  // rows from the first plane to the second; height unless given
};

/// The format of that name: as the library spells it but in any case, also without its "YUV420" or "YUV_". Null for
/// any other.
const zyt::FormatLayout* FindFormat(std::string_view name);

/// Reads a whole number from 0 to largest; false, with nothing changed, for anything else.
bool ParseNumber(std::string_view text, uint32_t largest, uint32_t& number);

/// Reads a size such as "4000x3000"; false, with nothing changed, for anything else.
bool ParseSize(std::string_view text, uint32_t& width, uint32_t& height);

/// Fills in what is not known yet from the words of a file's name, such as "night_4000x3000_RawMipi10.raw". Of several
/// sizes or formats the last counts.
void FillFromName(Geometry& geometry, const std::string& path);

#endif  // ZYTVIEW_GEOMETRY_H
