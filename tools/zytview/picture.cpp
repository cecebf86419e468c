#include "picture.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>
#include <utility>

namespace {

// Returns the colour of a sample in a colour order: 0 red, 1 green, 2 blue. Red is at odd columns in GRBG and BGGR, and
// at odd rows in GBRG and BGGR. Relative to red, blue is one column and one row away, and green one column or one row.
uint32_t ColourAt(uint32_t bayer, uint32_t column, uint32_t row) {
    return ((column ^ bayer) & 1) + ((row ^ bayer >> 1) & 1);
}

// Returns the gain of a channel's colour.
double WhiteOf(const Look& look, uint32_t channel) {
    return look.bayer ? look.white[ColourAt(*look.bayer, channel & 1, channel >> 1)] : 1;
}

// Returns the brightness, before the gain, of the darkest or the lightest thousandth of the samples.
double Thousandth(const std::vector<Counts>& counts, const Look& look, bool isLightest) {
    std::vector<std::pair<double, uint64_t>> sorted;  // brightness and number of samples
    uint64_t left = 0;
    // Four channels are a Bayer plane. Otherwise only the first channel is brightness.
    for (uint32_t channel = 0; channel < (counts.size() == 4 ? 4 : 1); ++channel) {
        for (uint32_t value = 0; value < counts[channel].size(); ++value) {
            const uint64_t count = counts[channel][value];
            left += count;
            if (count > 0) sorted.emplace_back((value - look.black) * WhiteOf(look, channel), count);
        }
    }
    std::sort(sorted.begin(), sorted.end());
    if (isLightest) std::reverse(sorted.begin(), sorted.end());
    left /= 1000;
    for (const auto& [brightness, count] : sorted) {
        if (count > left) return brightness;
        left -= count;
    }
    return 0;
}

// Sets the gains that make the means of red and blue equal that of green.
void MakeGrey(const std::vector<Counts>& counts, Look& look) {
    double sums[3] = {};
    double samples[3] = {};
    for (uint32_t channel = 0; channel < 4; ++channel) {
        const Statistics statistics = Describe(counts[channel], 0);
        const uint32_t colour = ColourAt(*look.bayer, channel & 1, channel >> 1);
        const auto count = static_cast<double>(statistics.samples);
        sums[colour] += (statistics.mean - look.black) * count;
        samples[colour] += count;
    }
    for (const uint32_t colour : {0u, 2u}) {
        if (sums[colour] > 0 && sums[1] > 0) {
            look.white[colour] = sums[1] / samples[1] / (sums[colour] / samples[colour]);
        }
    }
}

// Returns the span of luma (219 steps of 8 bits in the limited range) or chroma (224).
double Span(const Dump& dump, const Look& look, uint32_t limited) {
    return look.isLimitedRange ? limited << (dump.Layout().bits - 8) : dump.LargestSample();
}

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

// Returns a reader of a format with chroma.
RowReader NewYuvReader(const Dump& dump, const Look& look) {
    const double redWeight = look.isBt709 ? 0.2126 : 0.299;
    const double blueWeight = look.isBt709 ? 0.0722 : 0.114;
    const double greenWeight = 1 - redWeight - blueWeight;
    const uint32_t bits = dump.Layout().bits;
    const int64_t largest = bits == 8 ? 0xff : 0xffff;
    const double scale = look.gain * static_cast<double>(largest);
    const double chromaSpan = Span(dump, look, 224);
    const int64_t lumaFactor = Fixed(scale / Span(dump, look, 219));
    const int64_t redV = Fixed(2 * (1 - redWeight) * scale / chromaSpan);
    const int64_t blueU = Fixed(2 * (1 - blueWeight) * scale / chromaSpan);
    const int64_t greenV = Fixed(2 * (1 - redWeight) * redWeight / greenWeight * scale / chromaSpan);
    const int64_t greenU = Fixed(2 * (1 - blueWeight) * blueWeight / greenWeight * scale / chromaSpan);
    const int64_t black = std::llround(static_cast<double>(lumaFactor) * look.black);
    const int64_t middle = 128 << (bits - 8);
    const bool isVFirst = dump.Format() == ZYT_FORMAT_YUV420NV21;
    return [=, &dump, luma = std::vector<uint16_t>(dump.Width() + 1), chroma = std::vector<uint16_t>(dump.Width() + 1)](
               uint32_t y, uint16_t* values) mutable {
        dump.ReadRow(y, luma.data());
        dump.ReadChroma(y, chroma.data());
        for (uint32_t x = 0; x < dump.Width(); ++x, values += 3) {
            const uint16_t* pair = &chroma[x & ~1u];
            const int64_t u = pair[isVFirst] - middle;
            const int64_t v = pair[!isVFirst] - middle;
            const int64_t grey = lumaFactor * luma[x] - black;
            values[0] = Rounded(grey + redV * v, largest);
            values[1] = Rounded(grey - greenU * u - greenV * v, largest);
            values[2] = Rounded(grey + blueU * u, largest);
        }
    };
}

using Tables = std::vector<std::vector<uint16_t>>;  // what is shown for each sample, for each colour

Tables MakeTables(const Dump& dump, const Look& look) {
    const double largest = dump.LargestSample();
    Tables tables(look.bayer ? 3 : 1, std::vector<uint16_t>(1u << 16));
    for (size_t colour = 0; colour < tables.size(); ++colour) {
        const double factor = look.gain * (look.bayer ? look.white[colour] : 1);
        for (uint32_t sample = 0; sample <= 0xffff; ++sample) {
            const double brightness = std::clamp((sample - look.black) * factor, 0.0, largest);
            const double shown = look.isSrgb ? Srgb(brightness / largest) * 65535 : brightness * 65535 / largest;
            tables[colour][sample] = static_cast<uint16_t>(std::lround(shown));
        }
    }
    return tables;
}

// Reads rows of raw formats in colour.
class BayerReader {
public:
    BayerReader(const Dump& dump, uint32_t bayer, std::shared_ptr<const Tables> tables)
        : m_dump(dump), m_bayer(bayer), m_tables(std::move(tables)) {
        for (Held& row : m_held) row.samples.resize(dump.Width());
    }

    void operator()(uint32_t y, uint16_t* values) {
        const uint32_t right = m_dump.Width() - 1;
        const uint32_t bottom = m_dump.Height() - 1;
        for (uint32_t row = y - std::min(y, 1u); row <= std::min(y + 1, bottom); ++row) Hold(row);
        if (y == 0 || y == bottom || right == 0) {
            for (uint32_t x = 0; x <= right; ++x) MixPixel(x, y, values + size_t{3} * x);
            return;
        }
        MixPixel(0, y, values);
        MixPixel(right, y, values + size_t{3} * right);
        // Away from the edges, each missing colour has two or four neighbours.
        const uint16_t* above = m_held[(y - 1) % 3].samples.data();
        const uint16_t* here = m_held[y % 3].samples.data();
        const uint16_t* below = m_held[(y + 1) % 3].samples.data();
        const uint32_t first = ColourAt(m_bayer, 0, y);
        const uint32_t own = first == 1 ? ColourAt(m_bayer, 1, y) : first;  // the row's colour, red or blue
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

private:
    struct Held {
        std::vector<uint16_t> samples;
        uint32_t row = UINT32_MAX;
    };

    void Hold(uint32_t y) {
        Held& held = m_held[y % 3];
        if (held.row == y) return;
        held.row = y;
        m_dump.ReadRow(y, held.samples.data());
        const uint16_t* tables[2] = {};
        for (const uint32_t x : {0u, 1u}) tables[x] = (*m_tables)[ColourAt(m_bayer, x, y)].data();
        for (uint32_t x = 0; x < m_dump.Width(); ++x) held.samples[x] = tables[x & 1][held.samples[x]];
    }

    // Averages the neighbours that exist, for a pixel at the edge.
    void MixPixel(uint32_t x, uint32_t y, uint16_t* values) const {
        uint32_t sum[3] = {};
        uint32_t count[3] = {};
        for (uint32_t row = y - std::min(y, 1u); row <= std::min(y + 1, m_dump.Height() - 1); ++row) {
            for (uint32_t column = x - std::min(x, 1u); column <= std::min(x + 1, m_dump.Width() - 1); ++column) {
                const uint32_t colour = ColourAt(m_bayer, column, row);
                sum[colour] += m_held[row % 3].samples[column];
                ++count[colour];
            }
        }
        const uint16_t own = m_held[y % 3].samples[x];
        for (uint32_t colour = 0; colour < 3; ++colour) {
            values[colour] = count[colour] == 0 ? own : Mean(sum[colour], count[colour]);
        }
        values[ColourAt(m_bayer, x, y)] = own;
    }

    const Dump& m_dump;
    const uint32_t m_bayer;
    const std::shared_ptr<const Tables> m_tables;
    std::array<Held, 3> m_held;
};

}  // namespace

void SetLevels(Look& look, const Dump& dump, const std::vector<Counts>& counts) {
    const double span = Span(dump, look, 219);
    if (!look.isBlackGiven) {
        look.black = look.isLimitedRange ? 16u << (dump.Layout().bits - 8) : 0;
        if (look.isGainAuto) look.black = Thousandth(counts, Look(), false);
    }
    if (look.isWhiteAuto) MakeGrey(counts, look);
    if (!look.isGainAuto) return;
    double lightest = Thousandth(counts, look, true);
    if (look.bayer && look.white[0] >= look.white[1] && look.white[2] >= look.white[1]) {
        lightest = std::min(lightest, (span - look.black) * look.white[1]);
    }
    if (lightest > 0) look.gain = span / lightest;
}

uint64_t CountCut(const std::vector<Counts>& counts, const Look& look, uint32_t largestSample) {
    uint64_t cut = 0;
    for (uint32_t channel = 0; channel < counts.size(); ++channel) {
        for (uint32_t value = largestSample + 1; value < counts[channel].size(); ++value) {
            if ((value - look.black) * look.gain * WhiteOf(look, channel) > largestSample)
                cut += counts[channel][value];
        }
    }
    return cut;
}

Rows DrawDump(const Dump& dump, const Look& look) {
    Rows rows{dump.Width(), dump.Height(), 3, dump.Layout().bits == 8 ? 8u : 16u, {}};
    if (dump.Layout().HasChroma()) {
        rows.newReader = [&dump, look] { return NewYuvReader(dump, look); };
        return rows;
    }
    const auto tables = std::make_shared<const Tables>(MakeTables(dump, look));
    if (look.bayer) {
        rows.newReader = [&dump, bayer = *look.bayer, tables] { return BayerReader(dump, bayer, tables); };
        return rows;
    }
    rows.channels = 1;
    rows.newReader = [&dump, tables]() -> RowReader {
        return [&dump, tables](uint32_t y, uint16_t* values) {
            dump.ReadRow(y, values);
            for (uint32_t x = 0; x < dump.Width(); ++x) values[x] = (*tables)[0][values[x]];
        };
    };
    return rows;
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
