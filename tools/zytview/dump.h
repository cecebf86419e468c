#ifndef ZYTVIEW_DUMP_H
#define ZYTVIEW_DUMP_H

#include <cstdint>
#include <string>
#include <vector>

#include "geometry.h"

/// A dump in memory, row by row.
class Dump {
public:
    /// Reads the file. Throws BadInput when it cannot be read, or has a length that the geometry does not have.
    Dump(const std::string& path, const Geometry& geometry);

    const zyt::FormatLayout& Layout() const { return m_layout; }
    /// In pixels. Half of what the geometry said where the file is the library's dump of Y16: at one byte a pixel, that
    /// is the left half of each row.
    uint32_t Width() const { return m_width; }
    uint32_t Height() const { return m_height; }

    /// Reads Width() samples of the first plane, each of Layout().bits bits. A container that holds more gives the
    /// largest sample; returns how many did.
    uint32_t ReadRow(uint32_t y, uint16_t* samples) const;

    /// Reads the chroma of a row of pixels: pairs in the order in which they lie, each for two columns, and one more
    /// for the last column of an odd width. Where odd sizes have no chroma of their own it is their neighbours', and
    /// grey where those have none either.
    void ReadChroma(uint32_t y, uint16_t* samples) const;

private:
    uint16_t Sample(const unsigned char* row, uint32_t x) const;

    const zyt::FormatLayout& m_layout;
    uint32_t m_width;
    uint32_t m_height;
    uint32_t m_rowBytes;
    uint32_t m_stride;
    uint64_t m_chroma;  // offset of the second plane
    uint32_t m_chromaRows = 0;
    std::vector<unsigned char> m_bytes;
};

#endif  // ZYTVIEW_DUMP_H
