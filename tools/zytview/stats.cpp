#include "stats.h"

#include <algorithm>
#include <cmath>
#include <functional>

namespace {

// Reads samples of one channel; the result is "-" or `none` where the file has none.
class PixelReader {
public:
    PixelReader(const Dump& dump, uint32_t channel, const char* none)
        : m_dump(dump), m_channel(channel), m_none(none), m_row(dump.Width() + 1) {}

    std::string At(uint32_t x, uint32_t y) {
        const bool isChroma = m_channel > 0;
        if (isChroma && (x / 2 >= m_dump.ChromaPairs() || y / 2 >= m_dump.ChromaRows())) return m_none;
        if (m_y != y && isChroma) m_dump.ReadChroma(y, m_row.data());
        if (m_y != y && !isChroma) m_dump.ReadRow(y, m_row.data());
        m_y = y;
        const bool isSecond = (m_channel == 2) != (m_dump.Format() == ZYT_FORMAT_YUV420NV21);
        return std::to_string(m_row[isChroma ? (x & ~1u) + isSecond : x]);
    }

private:
    const Dump& m_dump;
    const uint32_t m_channel;  // 0 for the first plane, 1 for U and 2 for V
    const std::string m_none;
    std::vector<uint16_t> m_row;
    uint32_t m_y = UINT32_MAX;
};

// Returns the numbers around a position, `step` columns and rows apart.
std::string Block(const Dump& dump, uint32_t x, uint32_t y, uint32_t step, PixelReader& reader) {
    constexpr uint32_t kAround = 3;
    const uint32_t left = x - std::min(x, kAround * step);
    const uint32_t right = std::min(x + kAround * step, dump.Width() - 1);
    std::string text = "       ";
    for (uint32_t column = left; column <= right; column += step) text += Text("%8u", column);
    text += '\n';
    for (uint32_t row = y - std::min(y, kAround * step); row <= std::min(y + kAround * step, dump.Height() - 1);
         row += step) {
        text += Text("%7u", row);
        for (uint32_t column = left; column <= right; column += step) {
            const bool isHere = row == y && column == x;
            text += Text("%8s", ((isHere ? "[" : "") + reader.At(column, row) + (isHere ? "]" : " ")).c_str());
        }
        if (text.back() == ' ') text.pop_back();
        text += '\n';
    }
    return text;
}

// Returns the name of a pixel's channel, and below those of its chroma.
std::vector<std::string> PixelNames(const Dump& dump, uint32_t x, uint32_t y, const std::optional<uint32_t>& bayer) {
    std::vector<std::string> names = ChannelNames(dump, bayer);
    if (names.size() == 4) names = {names[2 * (y & 1) + (x & 1)]};
    return names;
}

}  // namespace

std::vector<Counts> CountSamples(const Dump& dump, const Rect& part, Workers& workers) {
    std::vector<Counts> counts(ChannelNames(dump, {}).size(), Counts(1u << 16));
    // A band has fewer than 2^32 samples.
    workers.ForBands(part.y, part.y + part.height, [&](uint32_t from, uint32_t to) -> std::function<void()> {
        std::vector<std::vector<uint32_t>> own(counts.size(), std::vector<uint32_t>(1u << 16));
        LineReader reader(dump, part);
        for (uint32_t y = from; y < to; ++y) {
            for (const Line& line : reader.Read(y)) {
                for (uint32_t i = 0; i < line.count; ++i) ++own[line.channels[i & 1]][line.samples[i]];
            }
        }
        return [&counts, own = std::move(own)] {
            for (size_t channel = 0; channel < counts.size(); ++channel) {
                for (size_t value = 0; value < 1u << 16; ++value) counts[channel][value] += own[channel][value];
            }
        };
    });
    return counts;
}

Statistics Describe(const Counts& counts, uint32_t largestSample) {
    Statistics result;
    double sum = 0;
    for (uint32_t value = 0; value < counts.size(); ++value) {
        if (counts[value] == 0) continue;
        if (result.samples == 0) result.least = value;
        result.largest = value;
        result.samples += counts[value];
        sum += static_cast<double>(counts[value]) * value;
        if (value >= largestSample) result.clippedHigh += counts[value];
    }
    if (result.samples == 0) return result;
    result.clippedLow = counts[0];
    result.mean = sum / static_cast<double>(result.samples);
    double squares = 0;
    for (uint32_t value = result.least; value <= result.largest; ++value) {
        squares += static_cast<double>(counts[value]) * (value - result.mean) * (value - result.mean);
    }
    result.deviation = std::sqrt(squares / static_cast<double>(result.samples));
    return result;
}

Cell ShareCell(const char* title, int width, const char* key, uint64_t number, uint64_t all) {
    Cell cell = NumberCell(title, width, key, number);
    cell.text +=
        Text(" (%6.2f%%)", 100 * static_cast<double>(number) / static_cast<double>(std::max<uint64_t>(all, 1)));
    return cell;
}

std::vector<Cell> Statistics::Cells() const {
    return {NumberCell(nullptr, 0, "samples", samples),
            NumberCell("min", 8, "min", least),
            NumberCell("max", 8, "max", largest),
            {"mean", 11, Text("%.2f", mean), "mean", Text("%.6f", mean)},
            {"stddev", 11, Text("%.2f", deviation), "stddev", Text("%.6f", deviation)},
            ShareCell("clipped low", 20, "clipped_low", clippedLow, samples),
            ShareCell("clipped high", 20, "clipped_high", clippedHigh, samples)};
}

std::string PixelText(const Dump& dump, uint32_t x, uint32_t y, const std::optional<uint32_t>& bayer) {
    std::string text;
    uint32_t channel = 0;
    for (const std::string& name : PixelNames(dump, x, y, bayer)) {
        PixelReader reader(dump, channel, "-");
        if (channel == 1) x &= ~1u, y &= ~1u;
        text += Text("%s at %u,%u is %s\n", name.c_str(), x, y, reader.At(x, y).c_str());
        text += Block(dump, x, y, channel > 0 ? 2 : 1, reader);
        ++channel;
    }
    return text;
}

std::string PixelJson(const Dump& dump, uint32_t x, uint32_t y, const std::optional<uint32_t>& bayer) {
    const std::vector<std::string> names = PixelNames(dump, x, y, bayer);
    std::string samples;
    for (uint32_t channel = 0; channel < names.size(); ++channel) {
        samples += (channel == 0 ? "" : ", ") + Quote(names[channel]) + ": ";
        samples += PixelReader(dump, channel, "null").At(x, y);
    }
    return Text(R"("x": %u, "y": %u, "channel": %s, "samples": {)", x, y, Quote(names[0]).c_str()) + samples + "}";
}
