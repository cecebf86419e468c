#include "picture.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr int kFractionBits = 24;

// Fixed point, so that a dump gives the same picture on every machine.
int64_t Fixed(double factor) { return std::llround(factor * (1 << kFractionBits)); }

uint16_t Rounded(int64_t fixed, int64_t largest) {
    const int64_t half = int64_t{1} << (kFractionBits - 1);
    return static_cast<uint16_t>(std::clamp((fixed + half) >> kFractionBits, int64_t{0}, largest));
}

// Returns the rounded mean of count values. REQUIRES: count > 0.
uint16_t Mean(uint32_t sum, uint32_t count) {
    return static_cast<uint16_t>((sum + count / 2) / count);  // NOLINT(clang-analyzer-core.DivideZero): never 0
}

// Returns the encoded value of a linear one, both from 0 to 1, by IEC 61966-2-1.
double Srgb(double linear) { return linear <= 0.0031308 ? 12.92 * linear : 1.055 * std::pow(linear, 1 / 2.4) - 0.055; }

}  // namespace

Picture::Picture(const Dump& dump, const Look& look) : m_dump(dump), m_look(look) {
    if (dump.Layout().HasChroma()) {
        MakeFactors();
    } else {
        MakeTables();
    }
}

void Picture::MakeTables() {
    const double largest = m_dump.LargestSample();
    for (uint32_t colour = 0; colour < (m_look.bayer ? 3u : 1u); ++colour) {
        const double factor = m_look.levels.gain * (m_look.bayer ? m_look.levels.white[colour] : 1);
        m_tables[colour].resize(1u << 16);
        for (uint32_t sample = 0; sample <= 0xffff; ++sample) {
            const double brightness = std::clamp((sample - m_look.levels.black) * factor, 0.0, largest);
            const double shown = m_look.isSrgb ? Srgb(brightness / largest) * 65535 : brightness * 65535 / largest;
            m_tables[colour][sample] = static_cast<uint16_t>(std::lround(shown));
        }
    }
}

void Picture::MakeFactors() {
    const double redWeight = m_look.isBt709 ? 0.2126 : 0.299;
    const double blueWeight = m_look.isBt709 ? 0.0722 : 0.114;
    const double greenWeight = 1 - redWeight - blueWeight;
    const uint32_t bits = m_dump.Layout().bits;
    const double lumaSpan = m_look.isLimitedRange ? 219u << (bits - 8) : m_dump.LargestSample();
    const double chromaSpan = m_look.isLimitedRange ? 224u << (bits - 8) : m_dump.LargestSample();
    const double largest = m_look.levels.gain * (bits == 8 ? 0xff : 0xffff);
    m_luma = Fixed(largest / lumaSpan);
    m_redV = Fixed(2 * (1 - redWeight) * largest / chromaSpan);
    m_blueU = Fixed(2 * (1 - blueWeight) * largest / chromaSpan);
    m_greenV = Fixed(2 * (1 - redWeight) * redWeight / greenWeight * largest / chromaSpan);
    m_greenU = Fixed(2 * (1 - blueWeight) * blueWeight / greenWeight * largest / chromaSpan);
}

Rows Picture::AllRows() const {
    const bool hasChroma = m_dump.Layout().HasChroma();
    const auto newReader = [this, hasChroma]() -> RowReader {
        HeldRows held;
        for (Held& row : held) row.samples.resize(m_dump.Width() + 1);
        return [this, hasChroma, held](uint32_t y, uint16_t* values) mutable {
            if (hasChroma) return ReadYuvRow(y, held[0].samples.data(), held[1].samples.data(), values);
            m_look.bayer ? ReadBayerRow(y, held, values) : ReadSpreadRow(y, values);
        };
    };
    return {m_dump.Width(), m_dump.Height(), m_look.bayer || hasChroma ? 3u : 1u, m_dump.Layout().bits == 8 ? 8u : 16u,
            newReader};
}

void Picture::ReadSpreadRow(uint32_t y, uint16_t* samples) const {
    m_dump.ReadRow(y, samples);
    const uint16_t* tables[2] = {m_tables[0].data(), m_tables[0].data()};
    for (const uint32_t x : {0u, 1u}) {
        if (m_look.bayer) tables[x] = m_tables[ColourAt(*m_look.bayer, x, y)].data();
    }
    for (uint32_t x = 0; x < m_dump.Width(); ++x) samples[x] = tables[x & 1][samples[x]];
}

void Picture::ReadYuvRow(uint32_t y, uint16_t* luma, uint16_t* chroma, uint16_t* values) const {
    const uint32_t bits = m_dump.Layout().bits;
    const int64_t middle = 128 << (bits - 8);
    const int64_t largest = bits == 8 ? 0xff : 0xffff;
    const int64_t black = std::llround(static_cast<double>(m_luma) * m_look.levels.black);
    const bool isVFirst = m_dump.Format() == ZYT_FORMAT_YUV420NV21;
    m_dump.ReadRow(y, luma);
    m_dump.ReadChroma(y, chroma);
    for (uint32_t x = 0; x < m_dump.Width(); ++x, values += 3) {
        const uint16_t* pair = chroma + (x & ~1u);
        const int64_t u = pair[isVFirst] - middle;
        const int64_t v = pair[!isVFirst] - middle;
        const int64_t grey = m_luma * luma[x] - black;
        values[0] = Rounded(grey + m_redV * v, largest);
        values[1] = Rounded(grey - m_greenU * u - m_greenV * v, largest);
        values[2] = Rounded(grey + m_blueU * u, largest);
    }
}

void Picture::ReadBayerRow(uint32_t y, HeldRows& held, uint16_t* values) const {
    const uint32_t right = m_dump.Width() - 1;
    const uint32_t bottom = m_dump.Height() - 1;
    for (uint32_t row = y - std::min(y, 1u); row <= std::min(y + 1, bottom); ++row) {
        Held& next = held[row % 3];
        if (next.row != row) ReadSpreadRow(row, next.samples.data());
        next.row = row;
    }
    if (y == 0 || y == bottom || right == 0) {
        for (uint32_t x = 0; x <= right; ++x) MixPixel(x, y, held, values + size_t{3} * x);
        return;
    }
    MixPixel(0, y, held, values);
    MixPixel(right, y, held, values + size_t{3} * right);
    // Away from the edges, each missing colour has two or four neighbours.
    const uint16_t* above = held[(y - 1) % 3].samples.data();
    const uint16_t* here = held[y % 3].samples.data();
    const uint16_t* below = held[(y + 1) % 3].samples.data();
    const uint32_t first = ColourAt(*m_look.bayer, 0, y);
    const uint32_t own = first == 1 ? ColourAt(*m_look.bayer, 1, y) : first;  // the row's colour, red or blue
    const uint32_t other = 2 - own;
    for (uint32_t x = 1; x < right; ++x) {
        uint16_t* pixel = values + size_t{3} * x;
        if ((x & 1) == (first == 1)) {
            pixel[own] = here[x];
            pixel[1] = Mean(here[x - 1] + here[x + 1] + above[x] + below[x], 4);
            pixel[other] = Mean(above[x - 1] + above[x + 1] + below[x - 1] + below[x + 1], 4);
        } else {
            pixel[own] = Mean(here[x - 1] + here[x + 1], 2);
            pixel[1] = here[x];
            pixel[other] = Mean(above[x] + below[x], 2);
        }
    }
}

// Averages the neighbours that exist, for a pixel at the edge.
void Picture::MixPixel(uint32_t x, uint32_t y, const HeldRows& held, uint16_t* values) const {
    uint32_t sum[3] = {};
    uint32_t count[3] = {};
    for (uint32_t row = y - std::min(y, 1u); row <= std::min(y + 1, m_dump.Height() - 1); ++row) {
        for (uint32_t column = x - std::min(x, 1u); column <= std::min(x + 1, m_dump.Width() - 1); ++column) {
            const uint32_t colour = ColourAt(*m_look.bayer, column, row);
            sum[colour] += held[row % 3].samples[column];
            ++count[colour];
        }
    }
    const uint16_t own = held[y % 3].samples[x];
    for (uint32_t colour = 0; colour < 3; ++colour) {
        values[colour] = count[colour] == 0 ? own : Mean(sum[colour], count[colour]);
    }
    values[ColourAt(*m_look.bayer, x, y)] = own;
}

Rows Part(const Rows& rows, const Rect& crop, uint32_t divisor) {
    Rows part = rows;
    part.width = (crop.width + divisor - 1) / divisor;
    part.height = (crop.height + divisor - 1) / divisor;
    if (part.width == rows.width && part.height == rows.height) return rows;
    part.newReader = [=]() -> RowReader {
        std::vector<uint16_t> row(size_t{rows.width} * rows.channels);
        std::vector<uint32_t> sums(size_t{part.width} * rows.channels);
        return [=, read = rows.newReader()](uint32_t y, uint16_t* values) mutable {
            const uint32_t count = std::min(divisor, crop.height - y * divisor);
            std::fill(sums.begin(), sums.end(), 0);
            for (uint32_t i = 0; i < count; ++i) {
                read(crop.y + y * divisor + i, row.data());
                const uint16_t* next = &row[size_t{crop.x} * rows.channels];
                for (uint32_t x = 0; x < crop.width; ++x) {
                    uint32_t* sum = &sums[size_t{x / divisor} * rows.channels];
                    for (uint32_t channel = 0; channel < rows.channels; ++channel) sum[channel] += *next++;
                }
            }
            for (size_t i = 0; i < sums.size(); ++i) {
                const auto x = static_cast<uint32_t>(i / rows.channels);
                values[i] = Mean(sums[i], count * std::min(divisor, crop.width - x * divisor));
            }
        };
    };
    return part;
}
