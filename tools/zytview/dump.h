#ifndef ZYTVIEW_DUMP_H
#define ZYTVIEW_DUMP_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "zytbuffermanager/zytimagelayout.h"

/// What is known of a dump besides its bytes.
struct Geometry {
    std::optional<ZYTFormat> format;
    uint32_t width = 0;                   // pixels; 0 while unknown
    uint32_t height = 0;                  // rows
    std::optional<uint32_t> stride;       // bytes from row to row; a row's pixels unless given
    std::optional<uint32_t> sliceHeight;  // rows from the first plane to the second; height unless given
};

/// A part of a picture, in pixels.
struct Rect {
    uint32_t x = 0;
    uint32_t y = 0;
    uint32_t width = 0;
    uint32_t height = 0;
};

/// A dump file, mapped. Any number of threads may read its rows.
class Dump {
public:
    /// Maps the file. Throws BadInput when it cannot be read, or has a length that the geometry does not have.
    /// REQUIRES: the geometry has a format and a size.
    Dump(const std::string& path, const Geometry& geometry);
    ~Dump();
    Dump(const Dump&) = delete;
    Dump& operator=(const Dump&) = delete;

    const std::string& Path() const { return m_path; }
    ZYTFormat Format() const { return m_format; }
    const zyt::FormatLayout& Layout() const { return m_layout; }
    /// In pixels. Half of what the geometry said where the file is the library's dump of Y16: at one byte a pixel, that
    /// is the left half of each row.
    uint32_t Width() const { return m_width; }
    uint32_t Height() const { return m_height; }
    /// The largest sample that the format's bits allow. A container can hold more.
    uint16_t LargestSample() const { return static_cast<uint16_t>((1u << m_layout.bits) - 1); }
    /// Size and format, such as "4000x3000 Raw10".
    std::string Describe() const;
    /// Rows of chroma and their pairs of U and V that the file holds: half of the picture's, with odd sizes rounded in
    /// one way or the other.
    uint32_t ChromaRows() const { return m_chromaRows; }
    uint32_t ChromaPairs() const { return m_width / 2; }

    /// Reads Width() samples of the first plane, as the containers hold them.
    void ReadRow(uint32_t y, uint16_t* samples) const;

    /// Reads the chroma of a row of pixels: pairs in the order in which they lie, each for two columns, and one more
    /// for the last column of an odd width. Where odd sizes have no chroma of their own it is their neighbours', and
    /// grey where those have none either.
    void ReadChroma(uint32_t y, uint16_t* samples) const;

private:
    void Map(uint64_t length);

    const std::string m_path;
    const ZYTFormat m_format;
    const zyt::FormatLayout& m_layout;
    uint32_t m_width;
    uint32_t m_height;
    uint32_t m_stride;
    uint64_t m_chroma;  // offset of the second plane
    uint32_t m_chromaRows = 0;
    const unsigned char* m_bytes = nullptr;
    uint64_t m_length = 0;
};

/// Samples of one row that belong to at most two channels, by turns.
struct Line {
    std::vector<uint16_t> samples;
    uint32_t count = 0;
    uint32_t channels[2] = {};  // of samples with even and odd index
    uint32_t x = 0;             // the pixel of the first sample
    bool isChroma = false;      // then two samples are one pair, for two pixels
};

/// Reads a part of a dump channel by channel: Y, U and V, or the four positions of a Bayer plane, each sample once.
/// Not thread-safe: each thread has its own.
class LineReader {
public:
    LineReader(const Dump& dump, const Rect& part);

    /// The row's samples of the first plane, and those of the second where it starts a row of that.
    /// REQUIRES: the row lies in the part.
    const Line (&Read(uint32_t y))[2];

private:
    const Dump& m_dump;
    const Rect m_part;
    std::vector<uint16_t> m_row;
    Line m_lines[2];
};

/// The names of a dump's channels; those of a Bayer plane without a colour order (0 RGGB, 1 GRBG, 2 GBRG, 3 BGGR) are
/// positions, column first.
std::vector<std::string> ChannelNames(const Dump& dump, const std::optional<uint32_t>& bayer);

#endif  // ZYTVIEW_DUMP_H
