#include "pixel.h"

#include <algorithm>
#include <functional>

#include "text.h"

namespace {

constexpr uint32_t kAround = 3;

// Returns the numbers around a position, `step` columns and rows apart.
std::string Block(const Dump& dump, uint32_t x, uint32_t y, uint32_t step,
                  const std::function<const uint16_t*(uint32_t row)>& readRow) {
    const uint32_t left = x - std::min(x, kAround * step);
    const uint32_t right = std::min(x + kAround * step, dump.Width() - 1);
    std::string text = "       ";
    for (uint32_t column = left; column <= right; column += step) text += Text("%8u", column);
    text += '\n';
    for (uint32_t row = y - std::min(y, kAround * step); row <= std::min(y + kAround * step, dump.Height() - 1);
         row += step) {
        const uint16_t* samples = readRow(row);
        text += Text("%7u", row);
        for (uint32_t column = left; column <= right; column += step) {
            const bool isHere = row == y && column == x;
            text += Text("%8s", Text(isHere ? "[%u]" : "%u ", samples[column]).c_str());
        }
        if (text.back() == ' ') text.pop_back();
        text += '\n';
    }
    return text;
}

}  // namespace

std::string PixelText(const Dump& dump, uint32_t x, uint32_t y, const std::optional<uint32_t>& bayer) {
    const std::vector<std::string> names = ChannelNames(dump, bayer);
    std::vector<uint16_t> row(dump.Width() + 1);
    const auto readLuma = [&](uint32_t line) {
        dump.ReadRow(line, row.data());
        return row.data();
    };
    const uint16_t sample = readLuma(y)[x];
    const std::string& name = names[names.size() == 4 ? 2 * (y & 1) + (x & 1) : 0];
    std::string text = Text("%s at %u,%u is %u\n", name.c_str(), x, y, sample) + Block(dump, x, y, 1, readLuma);
    for (const uint32_t channel : {1u, 2u}) {
        if (!dump.Layout().HasChroma()) continue;
        const uint32_t offset = (channel == 2) != (dump.Format() == ZYT_FORMAT_YUV420NV21);
        const auto readChroma = [&](uint32_t line) {
            dump.ReadChroma(line, row.data());
            return row.data() + offset;
        };
        const uint32_t left = x & ~1u;
        const uint16_t chroma = readChroma(y)[left];
        text += Text("%s at %u,%u is %u\n", names[channel].c_str(), left, y & ~1u, chroma);
        text += Block(dump, left, y & ~1u, 2, readChroma);
    }
    return text;
}
