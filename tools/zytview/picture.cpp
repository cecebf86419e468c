#include "picture.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int kFractionBits = 24;

// Whole numbers, so that the same dump gives the same picture on every machine.
int64_t Fixed(double factor) { return std::llround(factor * (1 << kFractionBits)); }

uint16_t Rounded(int64_t fixed, int64_t largest) {
    const int64_t half = int64_t{1} << (kFractionBits - 1);
    return static_cast<uint16_t>(std::clamp((fixed + half) >> kFractionBits, int64_t{0}, largest));
}

}  // namespace

Picture::Picture(const Dump& dump, const Look& look) : m_dump(dump), m_look(look) {
    for (std::vector<uint16_t>& row : m_rows) row.resize(dump.Width() + 1);
    const double redWeight = look.isBt709 ? 0.2126 : 0.299;
    const double blueWeight = look.isBt709 ? 0.0722 : 0.114;
    const double greenWeight = 1 - redWeight - blueWeight;
    const uint32_t bits = dump.Layout().bits;
    const double fullSpan = (1u << bits) - 1;
    const double lumaSpan = look.isLimitedRange ? 219u << (bits - 8) : fullSpan;
    const double chromaSpan = look.isLimitedRange ? 224u << (bits - 8) : fullSpan;
    const double largest = (1u << Depth()) - 1;
    m_luma = Fixed(largest / lumaSpan);
    m_redV = Fixed(2 * (1 - redWeight) * largest / chromaSpan);
    m_blueU = Fixed(2 * (1 - blueWeight) * largest / chromaSpan);
    m_greenV = Fixed(2 * (1 - redWeight) * redWeight / greenWeight * largest / chromaSpan);
    m_greenU = Fixed(2 * (1 - blueWeight) * blueWeight / greenWeight * largest / chromaSpan);
}

void Picture::ReadRow(uint32_t y, uint16_t* values) {
    if (m_dump.Layout().HasChroma()) return ReadYuvRow(y, values);
    if (m_look.bayer) return ReadBayerRow(y, values);
    ReadSpreadRow(y, values);
}

void Picture::ReadSpreadRow(uint32_t y, uint16_t* samples) {
    m_excessive += m_dump.ReadRow(y, samples);
    const uint32_t bits = m_dump.Layout().bits;
    for (uint32_t x = 0; x < Width(); ++x) {
        samples[x] = static_cast<uint16_t>(samples[x] << (16 - bits) | samples[x] >> (2 * bits - 16));
    }
}

void Picture::ReadYuvRow(uint32_t y, uint16_t* values) {
    const uint32_t bits = m_dump.Layout().bits;
    const int64_t black = m_look.isLimitedRange ? 16 << (bits - 8) : 0;
    const int64_t middle = 128 << (bits - 8);
    const int64_t largest = (1 << Depth()) - 1;
    const bool isVFirst = &m_dump.Layout() == zyt::FindFormatLayout(ZYT_FORMAT_YUV420NV21);
    uint16_t* luma = m_rows[0].data();
    uint16_t* chroma = m_rows[1].data();
    m_dump.ReadRow(y, luma);
    m_dump.ReadChroma(y, chroma);
    for (uint32_t x = 0; x < Width(); ++x, values += 3) {
        const uint16_t* pair = chroma + (x & ~1u);
        const int64_t u = pair[isVFirst] - middle;
        const int64_t v = pair[!isVFirst] - middle;
        const int64_t grey = m_luma * (luma[x] - black);
        values[0] = Rounded(grey + m_redV * v, largest);
        values[1] = Rounded(grey - m_greenU * u - m_greenV * v, largest);
        values[2] = Rounded(grey + m_blueU * u, largest);
    }
}

void Picture::ReadBayerRow(uint32_t y, uint16_t* values) {
    // Red lies at odd columns in GRBG and BGGR and at odd rows in GBRG and BGGR. Seen from there, a pixel is red at
    // even columns and rows, blue at odd ones, and green where one of both is odd.
    const auto channelAt = [=](uint32_t column, uint32_t row) {
        return ((column ^ *m_look.bayer) & 1) + ((row ^ *m_look.bayer >> 1) & 1);
    };
    const uint32_t top = y - std::min(y, 1u);
    const uint32_t bottom = std::min(y + 1, Height() - 1);
    for (m_nextRow = std::max(m_nextRow, top); m_nextRow <= bottom; ++m_nextRow) {
        ReadSpreadRow(m_nextRow, m_rows[m_nextRow % 3].data());
    }
    for (uint32_t x = 0; x < Width(); ++x, values += 3) {
        uint32_t sum[3] = {};
        uint32_t count[3] = {};
        for (uint32_t row = top; row <= bottom; ++row) {
            for (uint32_t column = x - std::min(x, 1u); column <= std::min(x + 1, Width() - 1); ++column) {
                const uint32_t channel = channelAt(column, row);
                sum[channel] += m_rows[row % 3][column];
                ++count[channel];
            }
        }
        const uint16_t own = m_rows[y % 3][x];
        for (uint32_t channel = 0; channel < 3; ++channel) {
            values[channel] = count[channel] == 0 ? own : Mean(sum[channel], count[channel]);
        }
        values[channelAt(x, y)] = own;
    }
}
