#include "dump.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>

#include "nodekit/rawpixels.h"
#include "text.h"

namespace {

// What a file of a certain length contains.
struct Shape {
    uint32_t chromaRows = 0;
    bool isHalf = false;  // the library's dump of Y16
};

// Returns the shapes of all lengths that a file of this geometry may have. It ends after the last pixel, after the
// padding of the last row, or after the memory reserved for the plane. An odd last row may or may not have its own row
// of chroma.
std::map<uint64_t, Shape> Shapes(const Geometry& geometry, const zyt::FormatLayout& layout, uint64_t rowBytes,
                                 uint64_t stride, uint64_t sliceHeight) {
    const uint64_t height = geometry.height;
    const uint64_t first = stride * sliceHeight;
    const uint64_t mostRows = (height + 1) / 2;
    std::map<uint64_t, Shape> shapes;
    const auto add = [&](uint64_t length) {
        const uint64_t rows = length > first ? (length - first + stride - rowBytes) / stride : 0;
        shapes[length].chromaRows = layout.HasChroma() ? static_cast<uint32_t>(std::min(rows, mostRows)) : 0;
    };
    const auto addRows = [&](uint64_t plane, uint64_t rows) {
        if (rows == 0) return;
        add(plane + (rows - 1) * stride + rowBytes);
        add(plane + rows * stride);
    };
    if (!layout.HasChroma() || height == 1) {
        addRows(0, height);
        add(first);
    }
    if (layout.HasChroma()) {
        addRows(first, height / 2);
        addRows(first, mostRows);
        if (first > rowBytes * height) {
            add(first + first / 2);
            add(first + (sliceHeight + 1) / 2 * stride);
        }
    }
    if (layout.kind == zyt::FormatKind::kGrey && !geometry.stride && !geometry.sliceHeight && geometry.width > 1) {
        shapes[geometry.width * height].isHalf = true;
    }
    return shapes;
}

}  // namespace

Dump::Dump(const std::string& path, const Geometry& geometry)
    : m_path(path),
      m_format(*geometry.format),
      m_layout(*zyt::FindFormatLayout(m_format)),
      m_width(geometry.width),
      m_height(geometry.height) {
    const auto rowBytes = static_cast<uint32_t>(m_layout.RowBytes(m_width));
    m_stride = geometry.stride.value_or(rowBytes);
    const uint32_t sliceHeight = geometry.sliceHeight.value_or(m_height);
    const auto refuseLess = [&](const char* what, uint32_t value, uint32_t least, const char* of) {
        if (value >= least) return;
        throw BadInput(path + Text(": a %s of %u is less than the %u %s", what, value, least, of));
    };
    refuseLess("stride", m_stride, rowBytes, "bytes of a row");
    refuseLess("slice height", sliceHeight, m_height, "rows of the picture");
    m_chroma = uint64_t{m_stride} * sliceHeight;

    struct stat status {};
    m_file.number = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);  // a pipe must not wait for its writer
    if (m_file.number < 0 || fstat(m_file.number, &status) != 0) m_error = errno;
    Check();
    if (!S_ISREG(status.st_mode)) throw BadInput(path + " is not a regular file");
    const auto size = static_cast<uint64_t>(status.st_size);
    const std::map<uint64_t, Shape> shapes = Shapes(geometry, m_layout, rowBytes, m_stride, sliceHeight);
    const auto shape = shapes.find(size);
    if (shape == shapes.end()) {
        std::string lengths;
        for (const auto& [length, unused] : shapes) lengths += (lengths.empty() ? "" : " or ") + std::to_string(length);
        const bool mayBePadded = size > shapes.rbegin()->first && !geometry.stride && !geometry.sliceHeight;
        throw BadInput(path + ": expected " + lengths + " bytes for " + Describe() + ", found " + std::to_string(size) +
                       (mayBePadded ? "; if the file is padded, give --stride and --slice-height" : ""));
    }
    m_chromaRows = shape->second.chromaRows;
    if (shape->second.isHalf) {
        m_stride = m_width;
        m_width /= 2;
    }
}

Dump::Descriptor::~Descriptor() {
    if (number >= 0) close(number);
}

void Dump::Check() const {
    if (m_error == ENODATA) throw BadInput(m_path + " became shorter while it was read");
    if (m_error != 0) throw BadInput("cannot read " + m_path + ": " + std::strerror(m_error));
}

std::string Dump::Describe() const {
    return std::to_string(m_width) + "x" + std::to_string(m_height) + " " + m_layout.name;
}

Rect Dump::ChromaOf(const Rect& part) const {
    const uint32_t x = std::min(part.x / 2, ChromaPairs()), y = std::min(part.y / 2, m_chromaRows);
    return {x, y, std::min((part.x + part.width + 1) / 2, ChromaPairs()) - x,
            std::min((part.y + part.height + 1) / 2, m_chromaRows) - y};
}

void Dump::Unpack(uint64_t offset, uint32_t count, bool asStored, uint16_t* samples) const {
    thread_local std::vector<unsigned char> row;
    row.resize(static_cast<size_t>(m_layout.RowBytes(count)));
    // Not mapped, because a read beyond the end of a mapped file that became shorter ends the process.
    const ssize_t length = pread(m_file.number, row.data(), row.size(), static_cast<off_t>(offset));
    if (length != static_cast<ssize_t>(row.size())) {
        m_error = length < 0 ? errno : ENODATA;
        std::fill(row.begin(), row.end(), static_cast<unsigned char>(0));
    }
    zyt::UnpackRow(asStored && UnusedBits() > 0 ? ZYT_FORMAT_RAW16 : m_format, row.data(), count, samples);
}

void Dump::ReadRow(uint32_t y, uint16_t* samples, bool asStored) const {
    Unpack(uint64_t{y} * m_stride, m_width, asStored, samples);
}

void Dump::ReadChroma(uint32_t y, uint16_t* samples, bool asStored) const {
    const uint32_t whole = 2 * ChromaPairs();
    if (m_chromaRows == 0 || whole == 0) {
        std::fill(samples, samples + m_width + m_width % 2, static_cast<uint16_t>(1u << (m_layout.bits - 1)));
        return;
    }
    const uint64_t row = std::min(y / 2, m_chromaRows - 1);
    Unpack(m_chroma + row * m_stride, whole, asStored, samples);
    if (whole < m_width) std::copy(samples + whole - 2, samples + whole, samples + whole);
}

LineReader::LineReader(const Dump& dump, const Rect& part, bool asStored)
    : m_dump(dump),
      m_part(part),
      m_chroma(dump.ChromaOf(part)),
      m_asStored(asStored),
      m_rows{std::vector<uint16_t>(dump.Width() + 1), std::vector<uint16_t>(dump.Width() + 1)} {
    const uint32_t v = dump.Format() == ZYT_FORMAT_YUV420NV21 ? 0 : 1;
    m_lines[0] = {&m_rows[0][part.x], part.width, {}, part.x, 0, false};
    m_lines[1] = {&m_rows[1][size_t{2} * m_chroma.x], 0, {2 - v, 1 + v}, 2 * m_chroma.x, 0, true};
}

const Line (&LineReader::Read(uint32_t y))[2] {
    Line& first = m_lines[0];
    m_dump.ReadRow(y, m_rows[0].data(), m_asStored);
    first.y = y;
    if (m_dump.Layout().kind == zyt::FormatKind::kRaw) {
        for (uint32_t i : {0u, 1u}) first.channels[i] = 2 * (y & 1) + ((first.x + i) & 1);
    }
    Line& second = m_lines[1];
    const bool startsChroma = (y % 2 == 0 || y == m_part.y) && y / 2 < m_chroma.y + m_chroma.height;
    second.count = startsChroma ? m_chroma.width * 2 : 0;
    second.y = y & ~1u;
    if (second.count > 0) m_dump.ReadChroma(y, m_rows[1].data(), m_asStored);
    return m_lines;
}

std::vector<std::string> ChannelNames(const Dump& dump, const std::optional<uint32_t>& bayer) {
    if (dump.Layout().HasChroma()) return {"Y", "U", "V"};
    if (dump.Layout().kind == zyt::FormatKind::kGrey) return {"Y"};
    if (!bayer) return {"0,0", "1,0", "0,1", "1,1"};
    const std::vector<std::string> names = {"R", "Gr", "Gb", "B"};
    return {names[*bayer], names[*bayer ^ 1], names[*bayer ^ 2], names[*bayer ^ 3]};
}
