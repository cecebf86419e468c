#include "npyfile.h"

#include <algorithm>

#include "text.h"

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
