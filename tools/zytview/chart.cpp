#include <algorithm>
#include <array>
#include <cmath>
#include <memory>
#include <numeric>

#include "picture.h"

namespace {

constexpr uint32_t kColumns = 1024;
constexpr uint32_t kBar = 12;  // width of the bar of clipped samples
constexpr uint32_t kMargin = 24;
constexpr uint32_t kLeft = kMargin + kBar;
constexpr uint32_t kPanel = 160;
constexpr uint32_t kText = 4;  // pixels per dot of a glyph
constexpr uint32_t kPanelStep = kPanel + 3 * kMargin;
constexpr uint32_t kWidth = kColumns + 2 * (kBar + kMargin);

using Colour = std::array<uint8_t, 3>;
constexpr Colour kPaper = {24, 24, 28};
constexpr Colour kPaperOfPanel = {44, 44, 50};
constexpr Colour kInk = {230, 230, 230};
constexpr Colour kAlarm = {235, 40, 40};

// Five rows of three dots; each row is an octal digit.
struct Glyph {
    char character;
    uint32_t dots;
};
constexpr Glyph kGlyphs[] = {
    {'0', 075557}, {'1', 026227}, {'2', 071747}, {'3', 071717}, {'4', 055711}, {'5', 074717}, {'6', 074757},
    {'7', 071111}, {'8', 075757}, {'9', 075717}, {'R', 065655}, {'G', 074557}, {'B', 065656}, {'Y', 055222},
    {'U', 055557}, {'V', 055552}, {'r', 000644}, {'b', 044656}, {',', 000024}, {'.', 000002},
};

struct Canvas {
    std::vector<Colour> pixels;

    void Fill(const Rect& rect, Colour colour) {
        for (uint32_t y = rect.y; y < rect.y + rect.height; ++y) {
            std::fill_n(&pixels[size_t{y} * kWidth + rect.x], rect.width, colour);
        }
    }

    void Write(uint32_t x, uint32_t y, const std::string& text, Colour colour) {
        for (const char character : text) {
            for (const Glyph& glyph : kGlyphs) {
                if (glyph.character != character) continue;
                for (uint32_t dot = 0; dot < 15; ++dot) {
                    if ((glyph.dots >> (14 - dot) & 1) == 0) continue;
                    Fill({x + dot % 3 * kText, y + dot / 3 * kText, kText, kText}, colour);
                }
            }
            x += 4 * kText;
        }
    }

    // Writes text that ends at x.
    void WriteTo(uint32_t x, uint32_t y, const std::string& text, Colour colour) {
        Write(x - static_cast<uint32_t>(text.size()) * 4 * kText, y, text, colour);
    }

    // Writes the numbers at the ends of a panel below it.
    void Label(uint32_t top, uint32_t left, uint32_t right) {
        Write(kLeft, top + kPanel + kText, std::to_string(left), kInk);
        WriteTo(kLeft + kColumns, top + kPanel + kText, std::to_string(right), kInk);
    }
};

Colour ColourOf(const std::string& name) {
    if (name == "R" || name == "V") return {240, 110, 90};
    if (name == "B" || name == "U") return {100, 150, 250};
    return name[0] == 'G' ? Colour{110, 210, 110} : Colour{200, 200, 200};
}

// Draws a named panel for each channel.
Rows DrawPanels(const std::vector<std::string>& names,
                const std::function<void(Canvas& canvas, uint32_t channel, uint32_t top, Colour colour)>& draw) {
    const auto height = static_cast<uint32_t>(names.size()) * kPanelStep;
    const auto canvas = std::make_shared<Canvas>(Canvas{std::vector<Colour>(size_t{kWidth} * height, kPaper)});
    for (uint32_t channel = 0; channel < names.size(); ++channel) {
        const uint32_t top = channel * kPanelStep + 3 * kMargin / 2;
        canvas->Fill({kLeft, top, kColumns, kPanel}, kPaperOfPanel);
        for (uint32_t i = 1; i < 4; ++i) canvas->Fill({kLeft + i * kColumns / 4, top, 1, kPanel}, kPaper);
        canvas->Write(kLeft, top - 6 * kText, names[channel], ColourOf(names[channel]));
        draw(*canvas, channel, top, ColourOf(names[channel]));
    }
    return {kWidth, height, 3, 8, [canvas] {
                return [canvas](uint32_t y, uint16_t* values) {
                    for (uint32_t x = 0; x < kWidth; ++x)
                        values = std::copy_n(canvas->pixels[size_t{y} * kWidth + x].begin(), 3, values);
                };
            }};
}

// Returns the number of samples in each column, without clipped ones.
std::vector<uint64_t> Columns(const Counts& counts, uint32_t largestSample) {
    std::vector<uint64_t> columns(kColumns);
    for (uint32_t column = 0; column < kColumns; ++column) {
        const uint32_t first = column * (largestSample + 1) / kColumns;
        const uint32_t end = std::max((column + 1) * (largestSample + 1) / kColumns, first + 1);
        for (uint32_t value = std::max(first, 1u); value < std::min(end, largestSample); ++value) {
            columns[column] += counts[value];
        }
    }
    return columns;
}

}  // namespace

Rows DrawHistogram(const std::vector<std::string>& names, const std::vector<Counts>& allCounts,
                   uint32_t largestSample) {
    return DrawPanels(names, [&](Canvas& canvas, uint32_t channel, uint32_t top, Colour colour) {
        const Counts& counts = allCounts[channel];
        const std::vector<uint64_t> columns = Columns(counts, largestSample);
        const uint64_t highest = std::max<uint64_t>(*std::max_element(columns.begin(), columns.end()), 1);
        const auto bar = [&](uint32_t x, uint32_t width, uint64_t count, Colour filling) {
            const double share = std::sqrt(static_cast<double>(count) / static_cast<double>(highest));
            const auto height = static_cast<uint32_t>(std::min(std::ceil(share * kPanel), double{kPanel}));
            canvas.Fill({x, top + kPanel - height, width, height}, filling);
        };
        for (uint32_t column = 0; column < kColumns; ++column) bar(kLeft + column, 1, columns[column], colour);
        bar(kMargin, kBar - 2, counts[0], kAlarm);
        bar(kLeft + kColumns + 2, kBar - 2,
            std::accumulate(&counts[largestSample], &counts[0] + counts.size(), uint64_t{0}), kAlarm);
        canvas.Label(top, 0, largestSample);
    });
}

Rows DrawProfiles(const std::vector<std::string>& names, const std::vector<Profile>& profiles) {
    constexpr uint32_t kHalf = kPanel / 2;
    double scale = 1e-9;  // no difference at all is a flat curve
    for (const Profile& profile : profiles) {
        scale = std::max(scale, 10 * profile.spread);
        for (const double difference : profile.differences) scale = std::max(scale, std::abs(difference));
    }
    return DrawPanels(names, [&](Canvas& canvas, uint32_t channel, uint32_t top, Colour colour) {
        const Profile& profile = profiles[channel];
        const size_t count = profile.at.size();
        canvas.Fill({kLeft, top + kHalf, kColumns, 1}, kInk);
        for (uint32_t column = 0; count > 0 && column < kColumns; ++column) {
            const size_t first = column * count / kColumns;
            int upper = 0, lower = 0;
            bool isOutlier = false;
            for (size_t i = first; i < std::max((column + 1) * count / kColumns, first + 1); ++i) {
                const auto height = static_cast<int>(std::lround(profile.differences[i] / scale * (kHalf - 1)));
                upper = std::max(upper, height);
                lower = std::min(lower, height);
                isOutlier |= profile.IsOutlier(i);
            }
            canvas.Fill({kLeft + column, top + kHalf - static_cast<uint32_t>(upper), isOutlier ? 3u : 1u,
                         static_cast<uint32_t>(upper - lower + 1)},
                        isOutlier ? kAlarm : colour);
        }
        canvas.Label(top, count > 0 ? profile.at.front() : 0, count > 0 ? profile.at.back() : 0);
        canvas.WriteTo(kLeft + kColumns, top - 6 * kText, Text("%.1f", scale), kInk);
    });
}
