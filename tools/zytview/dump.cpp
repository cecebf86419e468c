#include "dump.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <map>

#include "nodekit/rawpixels.h"
#include "outputfile.h"
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

std::atomic<const Dump*> g_open[2];

}  // namespace

Dump::Dump(const std::string& path, ZYTFormat format)
    : m_path(path),
      m_shortened(path + " became shorter while it was read"),
      m_format(format),
      m_layout(*zyt::FindFormatLayout(format)) {}

Dump::Dump(const std::string& path, const Geometry& geometry) : Dump(path, *geometry.format) {
    // From here on the destructor cleans up.
    const auto rowBytes = static_cast<uint32_t>(m_layout.RowBytes(geometry.width));
    m_width = geometry.width;
    m_height = geometry.height;
    m_stride = geometry.stride.value_or(rowBytes);
    const uint32_t sliceHeight = geometry.sliceHeight.value_or(m_height);
    const auto refuseLess = [&](const char* what, uint32_t value, uint32_t least, const char* of) {
        if (value >= least) return;
        throw BadInput(path + Text(": a %s of %u is less than the %u %s", what, value, least, of));
    };
    refuseLess("stride", m_stride, rowBytes, "bytes of a row");
    refuseLess("slice height", sliceHeight, m_height, "rows of the picture");
    m_chroma = uint64_t{m_stride} * sliceHeight;

    const auto refuseUnread = [&](bool isRead) {
        if (!isRead) throw BadInput("cannot read " + path + ": " + std::strerror(errno));
    };
    struct stat status {};
    refuseUnread((m_fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) >= 0 && fstat(m_fd, &status) == 0);
    if (!S_ISREG(status.st_mode)) throw BadInput(path + " is not a regular file");
    m_length = static_cast<uint64_t>(status.st_size);
    const std::map<uint64_t, Shape> shapes = Shapes(geometry, m_layout, rowBytes, m_stride, sliceHeight);
    const auto shape = shapes.find(m_length);
    if (shape == shapes.end()) {
        std::string lengths;
        for (const auto& [length, unused] : shapes) lengths += (lengths.empty() ? "" : " or ") + std::to_string(length);
        const bool mayBePadded = m_length > shapes.rbegin()->first && !geometry.stride && !geometry.sliceHeight;
        throw BadInput(path + ": expected " + lengths + " bytes for " + Describe() + ", found " +
                       std::to_string(m_length) +
                       (mayBePadded ? "; if the file is padded, give --stride and --slice-height" : ""));
    }
    m_chromaRows = shape->second.chromaRows;
    if (shape->second.isHalf) {
        m_stride = m_width;
        m_width /= 2;
    }
    void* const bytes = mmap(nullptr, m_length, PROT_READ, MAP_PRIVATE, m_fd, 0);
    refuseUnread(bytes != MAP_FAILED);
    m_bytes = static_cast<const unsigned char*>(bytes);

    struct sigaction action {};
    action.sa_sigaction = OnBusError;
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGBUS, &action, nullptr);
    g_open[g_open[0] != nullptr] = this;
}

Dump::~Dump() {
    for (auto& open : g_open) {
        if (open == this) open = nullptr;
    }
    if (m_bytes != nullptr) munmap(const_cast<unsigned char*>(m_bytes), m_length);
    if (m_fd >= 0) close(m_fd);
}

void Dump::OnBusError(int, siginfo_t* info, void*) {
    static std::atomic_flag isTold = ATOMIC_FLAG_INIT;
    const auto* const at = static_cast<const unsigned char*>(info->si_addr);
    for (const Dump* const dump : g_open) {
        if (dump == nullptr || at < dump->m_bytes || at >= dump->m_bytes + dump->m_length) continue;
        while (isTold.test_and_set()) pause();  // another thread is about to end the process
        OutputFile::RemoveUnfinished();
        for (const char* const part : {"zytview: ", dump->m_shortened.c_str(), "\n"}) {
            [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, part, std::strlen(part));
        }
        _exit(2);
    }
    std::signal(SIGBUS, SIG_DFL);  // the read is repeated, with the default action
}

void Dump::RefuseShortened() {
    for (const Dump* const dump : g_open) {
        struct stat status {};
        if (dump == nullptr || fstat(dump->m_fd, &status) != 0) continue;
        if (static_cast<uint64_t>(status.st_size) < dump->m_length) throw BadInput(dump->m_shortened);
    }
}

std::string Dump::Describe() const {
    return std::to_string(m_width) + "x" + std::to_string(m_height) + " " + m_layout.name;
}

void Dump::Unpack(uint64_t offset, uint32_t count, bool asStored, uint16_t* samples) const {
    zyt::UnpackRow(asStored && UnusedBits() > 0 ? ZYT_FORMAT_RAW16 : m_format, m_bytes + offset, count, samples);
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
    : m_dump(dump), m_part(part), m_asStored(asStored), m_row(dump.Width() + 1) {
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
    m_dump.ReadRow(y, m_row.data(), m_asStored);
    std::copy_n(&m_row[first.x], first.count, first.samples.begin());
    first.y = y;
    if (m_dump.Layout().kind == zyt::FormatKind::kRaw) {
        for (uint32_t i : {0u, 1u}) first.channels[i] = 2 * (y & 1) + ((first.x + i) & 1);
    }
    Line& second = m_lines[1];
    second.count = 0;
    second.y = y & ~1u;
    const bool startsChroma = y % 2 == 0 || y == m_part.y;
    if (startsChroma && y / 2 < m_dump.ChromaRows()) {
        m_dump.ReadChroma(y, m_row.data(), m_asStored);
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
