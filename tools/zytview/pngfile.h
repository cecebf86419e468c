#ifndef ZYTVIEW_PNGFILE_H
#define ZYTVIEW_PNGFILE_H

#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>

/// What could not be written: shown as one line, exit code 1.
struct WriteError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct PngHeader {
    uint32_t width;
    uint32_t height;
    uint32_t channels;  // 1 for grey, 3 for RGB
    uint32_t depth;     // bits of a channel, 8 or 16
};

/// Fills row y, width * channels values.
using RowReader = std::function<void(uint32_t y, uint16_t* values)>;

/// Writes a PNG file, asking for its rows from first to last. Throws WriteError; what the path named before then stays,
/// since the file comes to its name only when it is whole.
void WritePng(const std::string& path, const PngHeader& header, const RowReader& readRow);

#endif  // ZYTVIEW_PNGFILE_H
