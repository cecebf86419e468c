#include "dump.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>

namespace {

// Every length that a file of this geometry may have: it ends with the last pixel, with the last row's slack, or with
// the memory that is reserved for the plane. The odd last row of a picture has a row of chroma of its own, or has not.
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

// Pixel x of a packed row: the upper 8 bits of each pixel of a group come first, then the lower bits of all of them,
// those of the first pixel lowest. Bits that a cut row has lost are 0.
uint16_t PackedSample(const unsigned char* row, uint32_t rowBytes, uint32_t x, uint32_t bits) {
    const uint32_t groupPixels = bits == 12 ? 2 : 4;
    const uint32_t group = x / groupPixels * (groupPixels * bits / 8);
    const uint32_t index = x % groupPixels;
    const uint32_t lowBits = bits - 8;
    const uint32_t low = group + groupPixels + index * lowBits / 8;
    const auto byte = [=](uint32_t i) -> uint32_t { return i < rowBytes ? row[i] : 0; };
    const uint32_t lows = (byte(low) | byte(low + 1) << 8) >> index * lowBits % 8;
    return static_cast<uint16_t>(byte(group + index) << lowBits | (lows & ((1u << lowBits) - 1)));
}

}  // namespace

Dump::Dump(const std::string& path, const Geometry& geometry)
    : m_layout(*geometry.layout),
      m_width(geometry.width),
      m_height(geometry.height),
      m_rowBytes(static_cast<uint32_t>(m_layout.RowBytes(m_width))),
      m_stride(geometry.stride.value_or(m_rowBytes)) {
    const uint32_t sliceHeight = geometry.sliceHeight.value_or(m_height);
    RefuseLess("stride", m_stride, m_rowBytes);
    RefuseLess("slice height", sliceHeight, m_height);
    m_chroma = uint64_t{m_stride} * sliceHeight;

    std::error_code error;
    const uint64_t length = std::filesystem::file_size(path, error);
    if (error) throw BadInput("cannot read " + path + ": " + error.message());
    if (!std::filesystem::is_regular_file(path, error)) throw BadInput(path + " is no regular file");
    std::set<uint64_t> lengths = Lengths(m_rowBytes, m_stride, m_height, sliceHeight, m_layout.HasChroma());
    const uint64_t bytesOfHalf = uint64_t{m_width} * m_height;
    const bool mayBeHalf = m_layout.kind == zyt::FormatKind::kGrey && !geometry.stride && !geometry.sliceHeight;
    if (mayBeHalf) lengths.insert(bytesOfHalf);
    if (lengths.count(length) == 0) {
        const bool mayHaveSlack = length > *lengths.rbegin() && !geometry.stride && !geometry.sliceHeight;
        throw BadInput(path + ": expected " + Join(lengths) + " bytes for " + std::to_string(m_width) + "x" +
                       std::to_string(m_height) + " " + m_layout.name + ", found " + std::to_string(length) +
                       (mayHaveSlack ? "; --stride and --slice-height tell of slack that it kept" : ""));
    }
    if (mayBeHalf && length == bytesOfHalf) {
        if (m_width == 1) throw BadInput(path + " holds half a pixel a row");
        m_stride = m_width;
        m_width /= 2;
    }
    if (m_layout.HasChroma() && length > m_chroma) {
        const uint64_t rows = (length - m_chroma + m_stride - m_rowBytes) / m_stride;
        m_chromaRows = static_cast<uint32_t>(std::min<uint64_t>(rows, (m_height + 1) / 2));
    }
    m_bytes.resize(length);
    std::ifstream file(path, std::ios::binary);
    if (!file.read(reinterpret_cast<char*>(m_bytes.data()), static_cast<std::streamsize>(length))) {
        throw BadInput("cannot read " + path);
    }
}

uint16_t Dump::Sample(const unsigned char* row, uint32_t x) const {
    if (m_layout.kind == zyt::FormatKind::kYuv420) return row[x];
    if (m_layout.IsPacked()) return PackedSample(row, m_rowBytes, x, m_layout.bits);
    const auto container = static_cast<uint16_t>(row[size_t{2} * x] | row[size_t{2} * x + 1] << 8);
    // P010 has its bits at the upper end, raw formats have them at the lower.
    return m_layout.kind == zyt::FormatKind::kP010 ? static_cast<uint16_t>(container >> (16 - m_layout.bits))
                                                   : container;
}

uint32_t Dump::ReadRow(uint32_t y, uint16_t* samples) const {
    const unsigned char* row = &m_bytes[uint64_t{y} * m_stride];
    const auto largest = static_cast<uint16_t>((1u << m_layout.bits) - 1);
    uint32_t excessive = 0;
    for (uint32_t x = 0; x < m_width; ++x) {
        const uint16_t sample = Sample(row, x);
        if (sample > largest) ++excessive;
        samples[x] = std::min(sample, largest);
    }
    return excessive;
}

void Dump::ReadChroma(uint32_t y, uint16_t* samples) const {
    const uint32_t whole = m_width - m_width % 2;
    if (m_chromaRows == 0 || whole == 0) {
        std::fill(samples, samples + m_width + m_width % 2, static_cast<uint16_t>(1u << (m_layout.bits - 1)));
        return;
    }
    const unsigned char* row = &m_bytes[m_chroma + uint64_t{std::min(y / 2, m_chromaRows - 1)} * m_stride];
    for (uint32_t x = 0; x < whole; ++x) samples[x] = Sample(row, x);
    if (whole < m_width) std::copy(samples + whole - 2, samples + whole, samples + whole);
}
