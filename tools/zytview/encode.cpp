#include "encode.h"

#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>
#include <vector>

#include "text.h"

namespace {

using Bytes = std::vector<unsigned char>;

constexpr size_t kChunkHead = 8;  // length and type; the checksum of type and data follows the data

void PutWord(uLong word, unsigned char* bytes) {
    for (const int shift : {24, 16, 8, 0}) *bytes++ = static_cast<unsigned char>(word >> shift);
}

// Turns a free head and data into a chunk.
Bytes MakeChunk(const char* type, Bytes chunk) {
    PutWord(chunk.size() - kChunkHead, chunk.data());
    std::memcpy(&chunk[4], type, 4);
    chunk.resize(chunk.size() + 4);
    PutWord(crc32(0, &chunk[4], static_cast<uInt>(chunk.size() - 8)), &chunk[chunk.size() - 4]);
    return chunk;
}

// Returns rows as PNG's filter "up" leaves them: its number, then differences from the row above.
Bytes Filter(const Rows& rows, uint32_t from, uint32_t to) {
    constexpr unsigned char kUp = 2;
    const size_t rowBytes = size_t{rows.width} * rows.channels * rows.depth / 8;
    const RowReader read = rows.newReader();
    std::vector<uint16_t> values(size_t{rows.width} * rows.channels);
    Bytes above(rowBytes), row(rowBytes), filtered((rowBytes + 1) * (to - from));
    const auto readTo = [&](uint32_t y, Bytes& bytes) {
        read(y, values.data());
        if (rows.depth == 8) {
            std::copy(values.begin(), values.end(), bytes.begin());
            return;
        }
        for (uint16_t& value : values) value = static_cast<uint16_t>(value << 8 | value >> 8);  // upper byte first
        std::memcpy(bytes.data(), values.data(), rowBytes);
    };
    if (from > 0) readTo(from - 1, above);
    unsigned char* out = filtered.data();
    for (uint32_t y = from; y < to; ++y) {
        readTo(y, row);
        *out++ = kUp;
        for (size_t i = 0; i < rowBytes; ++i) *out++ = static_cast<unsigned char>(row[i] - above[i]);
        above.swap(row);
    }
    return filtered;
}

// Deflates a band into a chunk of its own, without a reference to the band above.
Bytes Deflate(const Bytes& filtered, bool isFirst, bool isLast) {
    // Measured on noise, photographs and smooth frames of 12 megapixels: a third of the time of the default. A
    // photograph does not grow, because its noise has no matches; a smooth frame doubles in size.
    constexpr int kLevel = 1, kNoHeader = -15, kMemory = 8;
    constexpr unsigned char kHeader[] = {0x78, 0x01};  // zlib's: a window of 32 KiB, the fastest level
    const size_t begin = kChunkHead + (isFirst ? sizeof(kHeader) : 0);
    // The bound does not include the flush, which takes an empty block of at most 6 bytes.
    Bytes chunk(begin + compressBound(filtered.size()) + 64);
    std::copy_n(kHeader, begin - kChunkHead, &chunk[kChunkHead]);
    z_stream stream = {};
    if (deflateInit2(&stream, kLevel, Z_DEFLATED, kNoHeader, kMemory, Z_RLE) != Z_OK) throw std::bad_alloc();
    stream.next_in = const_cast<unsigned char*>(filtered.data());
    stream.avail_in = static_cast<uInt>(filtered.size());
    stream.next_out = &chunk[begin];
    stream.avail_out = static_cast<uInt>(chunk.size() - begin);
    deflate(&stream, isLast ? Z_FINISH : Z_SYNC_FLUSH);
    deflateEnd(&stream);
    chunk.resize(chunk.size() - stream.avail_out);
    return MakeChunk("IDAT", std::move(chunk));
}

}  // namespace

void WritePng(OutputFile& file, const Rows& rows, Workers& workers) {
    constexpr size_t kBandBytes = 1 << 20;
    constexpr unsigned char kSignature[] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
    const auto write = [&](const Bytes& bytes) { file.Write(bytes.data(), bytes.size()); };
    file.Write(kSignature, sizeof(kSignature));
    Bytes header(kChunkHead + 13);
    PutWord(rows.width, &header[kChunkHead]);
    PutWord(rows.height, &header[kChunkHead + 4]);
    header[kChunkHead + 8] = static_cast<unsigned char>(rows.depth);
    header[kChunkHead + 9] = rows.channels == 1 ? 0 : 2;  // grey or RGB
    write(MakeChunk("IHDR", header));

    uLong adler = adler32(0, nullptr, 0);
    const size_t bands = size_t{rows.width} * rows.channels * rows.depth / 8 * rows.height / kBandBytes + 1;
    const auto writeBand = [&](uint32_t from, uint32_t to) -> std::function<void()> {
        if (file.HasFailed()) return [] {};
        const Bytes filtered = Filter(rows, from, to);
        const uLong own = adler32(adler32(0, nullptr, 0), filtered.data(), static_cast<uInt>(filtered.size()));
        return [&, own, size = filtered.size(), chunk = Deflate(filtered, from == 0, to == rows.height)] {
            adler = adler32_combine(adler, own, static_cast<z_off_t>(size));
            write(chunk);
        };
    };
    workers.ForBands(0, rows.height, writeBand, static_cast<uint32_t>(bands));
    Bytes sum(kChunkHead + 4);
    PutWord(adler, &sum[kChunkHead]);
    write(MakeChunk("IDAT", sum));
    write(MakeChunk("IEND", Bytes(kChunkHead)));
}

void WriteNpy(OutputFile& file, const Dump& dump, const Rect& part, Workers& workers) {
    const bool isWide = dump.Layout().bits > 8;
    std::string shape = Text("%u, %u", part.height, part.width);
    const Rect chroma = dump.ChromaOf(part);
    if (dump.Layout().HasChroma()) {
        const uint64_t luma = uint64_t{part.height} * part.width;
        shape = std::to_string(luma + uint64_t{2} * chroma.height * chroma.width) + ",";
    }
    // The header's length is a multiple of 64, the 10 bytes before the text included.
    std::string header =
        Text("{'descr': '%s', 'fortran_order': False, 'shape': (%s), }", isWide ? "<u2" : "|u1", shape.c_str());
    header.append(63 - (10 + header.size()) % 64, ' ');
    header += '\n';
    const std::string size = {static_cast<char>(header.size() & 0xff), static_cast<char>(header.size() >> 8)};
    header = std::string("\x93NUMPY\x01\0", 8) + size + header;
    file.Write(header.data(), header.size());
    // Each pass over the file writes a plane, in bands of about a megabyte.
    const auto bands = static_cast<uint32_t>((uint64_t{part.height} * part.width >> 19) + 1);
    for (uint32_t plane = 0; plane < (dump.Layout().HasChroma() ? 3u : 1u); ++plane) {
        workers.ForBands(
            part.y, part.y + part.height,
            [&](uint32_t from, uint32_t to) -> std::function<void()> {
                if (file.HasFailed()) return [] {};
                std::string bytes;
                LineReader reader(dump, part);
                for (uint32_t y = from; y < to; ++y) {
                    const Line& line = reader.Read(y)[plane > 0];
                    for (uint32_t i = 0; i < line.count; ++i) {
                        if (plane > 0 && line.channels[i & 1] != plane) continue;
                        bytes += static_cast<char>(line.samples[i] & 0xff);
                        if (isWide) bytes += static_cast<char>(line.samples[i] >> 8);
                    }
                }
                return [&file, bytes = std::move(bytes)] { file.Write(bytes.data(), bytes.size()); };
            },
            bands);
    }
}
