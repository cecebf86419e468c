#ifndef ZYTVIEW_DUMP_H
#define ZYTVIEW_DUMP_H

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "zytbuffermanager/zytimagelayout.h"

/// Format and layout of a dump.
struct Geometry {
    std::optional<ZYTFormat> format;
    uint32_t width = 0;                   // pixels; 0 while unknown
    uint32_t height = 0;                  // rows
    std::optional<uint32_t> stride;       // bytes from row to row; default: the bytes of a row's pixels
    std::optional<uint32_t> sliceHeight;  // rows from the first plane to the second; default: height
};

/// A rectangle in pixels.
struct Rect {
    uint32_t x = 0, y = 0;
    uint32_t width = 0, height = 0;
};

/// A dump file. Thread-safe.
class Dump {
public:
    /// Opens the file. Throws BadInput when it cannot be read, or when its length does not match the geometry.
    /// REQUIRES: the geometry has a format and a size.
    Dump(const std::string& path, const Geometry& geometry);

    const std::string& Path() const { return m_path; }
    ZYTFormat Format() const { return m_format; }
    const zyt::FormatLayout& Layout() const { return m_layout; }
    /// Returns the width in pixels. It is half of the geometry's when the file is the library's dump of Y16, which has
    /// one byte per pixel: the left half of each row.
    uint32_t Width() const { return m_width; }
    uint32_t Height() const { return m_height; }
    /// Returns the largest sample of the format. A container can hold larger values.
    uint16_t LargestSample() const { return static_cast<uint16_t>((1u << m_layout.bits) - 1); }
    /// Returns the number of lower bits of a container that are not part of the sample.
    uint32_t UnusedBits() const { return m_layout.kind == zyt::FormatKind::kP010 ? 16 - m_layout.bits : 0; }
    /// Returns size and format, such as "4000x3000 Raw10".
    std::string Describe() const;
    /// Returns the number of chroma rows in the file, half of the picture's; an odd height is rounded up or down.
    uint32_t ChromaRows() const { return m_chromaRows; }
    /// Returns the number of UV pairs in a chroma row, half of the width rounded down.
    uint32_t ChromaPairs() const { return m_width / 2; }

    /// Returns the rows and pairs of chroma that belong to a part of the picture.
    Rect ChromaOf(const Rect& part) const;

    /// Reads Width() samples of a row of the first plane; `asStored` reads containers with their unused bits.
    void ReadRow(uint32_t y, uint16_t* samples, bool asStored = false) const;

    /// Reads the chroma of a row of pixels: pairs in the order of the file, each for two columns, and one more for the
    /// last column of an odd width. An odd last column or row that has no chroma gets its neighbour's, or grey when
    /// there is none.
    void ReadChroma(uint32_t y, uint16_t* samples, bool asStored = false) const;

    /// Throws BadInput when a row could not be read, for example because the file became shorter. Such a row is zero.
    void Check() const;

private:
    struct Descriptor {
        ~Descriptor();
        int number = -1;
    };

    void Unpack(uint64_t offset, uint32_t count, bool asStored, uint16_t* samples) const;

    const std::string m_path;
    const ZYTFormat m_format;
    const zyt::FormatLayout& m_layout;
    uint32_t m_width;
    uint32_t m_height;
    uint32_t m_stride = 0;
    uint64_t m_chroma = 0;  // offset of the second plane
    uint32_t m_chromaRows = 0;
    Descriptor m_file;
    mutable std::atomic<int> m_error{0};  // of a row that could not be read
};

/// Samples of one row that alternate between at most two channels.
struct Line {
    const uint16_t* samples = nullptr;
    uint32_t count = 0;
    uint32_t channels[2] = {};  // channels of the samples with even and odd index
    uint32_t x = 0;             // column of the first sample
    uint32_t y = 0;             // row of the samples; of chroma, the upper one of its two
    bool isChroma = false;      // if true, two samples are one pair for two pixels

    /// Returns the column of a sample; of chroma, the left one of its two.
    uint32_t X(uint32_t i) const { return x + (isChroma ? i & ~1u : i); }
};

/// Reads the samples of a part of a dump with their channels: Y, U and V, or the four positions of a Bayer plane. Each
/// sample is read once. Not thread-safe; each thread needs its own reader.
class LineReader {
public:
    LineReader(const Dump& dump, const Rect& part, bool asStored = false);
    LineReader(const LineReader&) = delete;
    LineReader& operator=(const LineReader&) = delete;

    /// Returns the row's samples of the first plane, and a row of the second plane when one starts at y.
    /// REQUIRES: the row is inside the part.
    const Line (&Read(uint32_t y))[2];

private:
    const Dump& m_dump;
    const Rect m_part;
    const Rect m_chroma;
    const bool m_asStored;
    std::vector<uint16_t> m_rows[2];  // the lines point into them
    Line m_lines[2];
};

/// Returns the names of a dump's channels. `bayer` is the colour order: 0 RGGB, 1 GRBG, 2 GBRG, 3 BGGR. Without it the
/// names of Bayer channels are their positions, column first.
std::vector<std::string> ChannelNames(const Dump& dump, const std::optional<uint32_t>& bayer);

#endif  // ZYTVIEW_DUMP_H
