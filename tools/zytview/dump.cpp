#include "dump.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>

#include "errors.h"
#include "nodekit/rawpixels.h"

namespace {

// Returns all lengths that a file of this geometry may have. It ends after the last pixel, after the padding of the
// last row, or after the memory reserved for the plane. An odd last row may or may not have its own row of chroma.
std::set<uint64_t> Lengths(uint64_t rowBytes, uint64_t stride, uint64_t height, uint64_t sliceHeight, bool hasChroma) {
    std::set<uint64_t> lengths;
    const uint64_t first = stride * sliceHeight;
    const auto add = [&](uint64_t plane, uint64_t rows) {
        lengths.insert({plane + (rows - 1) * stride + rowBytes, plane + rows * stride});
    };
    if (!hasChroma || height == 1) {
        add(0, height);
        lengths.insert(first);
    }
    if (hasChroma) {
        if (height > 1) add(first, height / 2);
        add(first, (height + 1) / 2);
        if (first > rowBytes * height) lengths.insert({first + first / 2, first + (sliceHeight + 1) / 2 * stride});
    }
    return lengths;
}

std::string Join(const std::set<uint64_t>& numbers) {
    std::string text;
    for (const uint64_t number : numbers) text += (text.empty() ? "" : " or ") + std::to_string(number);
    return text;
}

void RefuseLess(const std::string& what, uint32_t value, uint32_t least) {
    if (value >= least) return;
    throw BadInput("a " + what + " of " + std::to_string(value) + " is less than the picture's " +
                   std::to_string(least));
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
    RefuseLess("stride", m_stride, rowBytes);
    RefuseLess("slice height", sliceHeight, m_height);
    m_chroma = uint64_t{m_stride} * sliceHeight;

    struct stat status {};
    if (stat(path.c_str(), &status) != 0) throw BadInput("cannot read " + path + ": " + std::strerror(errno));
    if (!S_ISREG(status.st_mode)) throw BadInput(path + " is no regular file");
    const auto length = static_cast<uint64_t>(status.st_size);
    std::set<uint64_t> lengths = Lengths(rowBytes, m_stride, m_height, sliceHeight, m_layout.HasChroma());
    const uint64_t bytesOfHalf = uint64_t{m_width} * m_height;
    const bool mayBeHalf = m_layout.kind == zyt::FormatKind::kGrey && !geometry.stride && !geometry.sliceHeight;
    if (mayBeHalf) lengths.insert(bytesOfHalf);
    if (lengths.count(length) == 0) {
        const bool mayHaveSlack = length > *lengths.rbegin() && !geometry.stride && !geometry.sliceHeight;
        throw BadInput(path + ": expected " + Join(lengths) + " bytes for " + Describe() + ", found " +
                       std::to_string(length) +
                       (mayHaveSlack ? "; --stride and --slice-height tell of slack that it kept" : ""));
    }
    if (mayBeHalf && length == bytesOfHalf) {
        if (m_width == 1) throw BadInput(path + " holds half a pixel a row");
        m_stride = m_width;
        m_width /= 2;
    }
    if (m_layout.HasChroma() && length > m_chroma) {
        const uint64_t rows = (length - m_chroma + m_stride - rowBytes) / m_stride;
        m_chromaRows = static_cast<uint32_t>(std::min<uint64_t>(rows, (m_height + 1) / 2));
    }
    Map(length);
}

Dump::~Dump() { munmap(const_cast<unsigned char*>(m_bytes), m_length); }

void Dump::Map(uint64_t length) {
    const int fd = open(m_path.c_str(), O_RDONLY | O_CLOEXEC);
    void* bytes = fd < 0 ? MAP_FAILED : mmap(nullptr, length, PROT_READ, MAP_PRIVATE, fd, 0);
    const int error = errno;
    if (fd >= 0) close(fd);
    if (bytes == MAP_FAILED) throw BadInput("cannot read " + m_path + ": " + std::strerror(error));
    m_bytes = static_cast<const unsigned char*>(bytes);
    m_length = length;
}

std::string Dump::Describe() const {
    return std::to_string(m_width) + "x" + std::to_string(m_height) + " " + m_layout.name;
}

void Dump::ReadRow(uint32_t y, uint16_t* samples) const {
    zyt::UnpackRow(m_format, m_bytes + uint64_t{y} * m_stride, m_width, samples);
}

void Dump::ReadChroma(uint32_t y, uint16_t* samples) const {
    const uint32_t whole = 2 * ChromaPairs();
    if (m_chromaRows == 0 || whole == 0) {
        std::fill(samples, samples + m_width + m_width % 2, static_cast<uint16_t>(1u << (m_layout.bits - 1)));
        return;
    }
    const uint64_t row = std::min(y / 2, m_chromaRows - 1);
    zyt::UnpackRow(m_format, m_bytes + m_chroma + row * m_stride, whole, samples);
    if (whole < m_width) std::copy(samples + whole - 2, samples + whole, samples + whole);
}

LineReader::LineReader(const Dump& dump, const Rect& part) : m_dump(dump), m_part(part), m_row(dump.Width() + 1) {
    Line& first = m_lines[0];
    first.x = part.x;
    first.count = part.width;
    Line& second = m_lines[1];
    second.isChroma = true;
    second.x = part.x / 2 * 2;
    const bool isVFirst = dump.Format() == ZYT_FORMAT_YUV420NV21;
    second.channels[isVFirst] = 1;
    second.channels[!isVFirst] = 2;
    for (Line& line : m_lines) line.samples.resize(dump.Width() + 1);
}

const Line (&LineReader::Read(uint32_t y))[2] {
    Line& first = m_lines[0];
    m_dump.ReadRow(y, m_row.data());
    std::copy_n(&m_row[first.x], first.count, first.samples.begin());
    if (m_dump.Layout().kind == zyt::FormatKind::kRaw) {
        for (uint32_t i : {0u, 1u}) first.channels[i] = 2 * (y & 1) + ((first.x + i) & 1);
    }
    Line& second = m_lines[1];
    second.count = 0;
    const bool startsChroma = y % 2 == 0 || y == m_part.y;
    if (startsChroma && y / 2 < m_dump.ChromaRows()) {
        m_dump.ReadChroma(y, m_row.data());
        const uint32_t end = std::min((m_part.x + m_part.width + 1) / 2, m_dump.ChromaPairs()) * 2;
        if (second.x < end) second.count = end - second.x;
        std::copy_n(&m_row[second.x], second.count, second.samples.begin());
    }
    return m_lines;
}

std::vector<std::string> ChannelNames(const Dump& dump, const std::optional<uint32_t>& bayer) {
    if (dump.Layout().HasChroma()) return {"Y", "U", "V"};
    if (dump.Layout().kind == zyt::FormatKind::kGrey) return {"Y"};
    if (!bayer) return {"0,0", "1,0", "0,1", "1,1"};
    const std::vector<std::string> names = {"R", "Gr", "Gb", "B"};
    return {names[*bayer], names[*bayer ^ 1], names[*bayer ^ 2], names[*bayer ^ 3]};
}
