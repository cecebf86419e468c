#include "histogram.h"

#include <algorithm>
#include <cmath>
#include <memory>

namespace {

constexpr uint32_t kColumns = 1024;
constexpr uint32_t kBar = 12;  // width of the bar of clipped samples
constexpr uint32_t kMargin = 24;
constexpr uint32_t kPanel = 160;
constexpr uint32_t kText = 4;  // pixels per dot of a glyph
constexpr uint32_t kPanelStep = kPanel + 3 * kMargin;
constexpr uint32_t kWidth = kColumns + 2 * (kBar + kMargin);

using Colour = std::array<uint8_t, 3>;
constexpr Colour kPaper = {24, 24, 28};
constexpr Colour kPaperOfPanel = {44, 44, 50};
constexpr Colour kInk = {230, 230, 230};
constexpr Colour kClipped = {235, 40, 40};

// Five rows of three dots; each row is an octal digit.
struct Glyph {
    char character;
    uint32_t dots;
};
constexpr Glyph kGlyphs[] = {
    {'0', 075557}, {'1', 026227}, {'2', 071747}, {'3', 071717}, {'4', 055711}, {'5', 074717}, {'6', 074757},
    {'7', 071111}, {'8', 075757}, {'9', 075717}, {'R', 065655}, {'G', 074557}, {'B', 065656}, {'Y', 055222},
    {'U', 055557}, {'V', 055552}, {'r', 000644}, {'b', 044656}, {',', 000024},
};

class Canvas {
public:
    explicit Canvas(uint32_t height) : m_pixels(size_t{kWidth} * height, kPaper) {}

    void Fill(const Rect& rect, Colour colour) {
        for (uint32_t y = rect.y; y < rect.y + rect.height; ++y) {
            std::fill_n(&m_pixels[size_t{y} * kWidth + rect.x], rect.width, colour);
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

    const Colour& At(uint32_t x, uint32_t y) const { return m_pixels[size_t{y} * kWidth + x]; }

private:
    std::vector<Colour> m_pixels;
};

Colour ColourOf(const std::string& name) {
    if (name == "R" || name == "V") return {240, 110, 90};
    if (name == "B" || name == "U") return {100, 150, 250};
    return name[0] == 'G' ? Colour{110, 210, 110} : Colour{200, 200, 200};
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

void DrawPanel(Canvas& canvas, uint32_t top, const std::string& name, const Counts& counts, uint32_t largestSample) {
    const std::vector<uint64_t> columns = Columns(counts, largestSample);
    const uint64_t highest = std::max<uint64_t>(*std::max_element(columns.begin(), columns.end()), 1);
    const auto bar = [&](uint32_t x, uint32_t width, uint64_t count, Colour colour) {
        const double share = std::sqrt(static_cast<double>(count) / static_cast<double>(highest));
        const auto height = static_cast<uint32_t>(std::min(std::ceil(share * kPanel), double{kPanel}));
        canvas.Fill({x, top + kPanel - height, width, height}, colour);
    };
    const uint32_t left = kMargin + kBar;
    canvas.Fill({left, top, kColumns, kPanel}, kPaperOfPanel);
    for (uint32_t quarter = 1; quarter < 4; ++quarter)
        canvas.Fill({left + quarter * kColumns / 4, top, 1, kPanel}, kPaper);
    for (uint32_t column = 0; column < kColumns; ++column) bar(left + column, 1, columns[column], ColourOf(name));
    bar(kMargin, kBar - 2, counts[0], kClipped);
    uint64_t clippedHigh = 0;
    for (uint32_t value = largestSample; value < counts.size(); ++value) clippedHigh += counts[value];
    bar(left + kColumns + 2, kBar - 2, clippedHigh, kClipped);
    const std::string largest = std::to_string(largestSample);
    canvas.Write(left, top - 6 * kText, name, ColourOf(name));
    canvas.Write(left, top + kPanel + kText, "0", kInk);
    canvas.Write(left + kColumns - static_cast<uint32_t>(largest.size()) * 4 * kText, top + kPanel + kText, largest,
                 kInk);
}

}  // namespace

Rows DrawHistogram(const std::vector<std::string>& names, const std::vector<Counts>& counts, uint32_t largestSample) {
    const auto height = static_cast<uint32_t>(names.size()) * kPanelStep;
    const auto canvas = std::make_shared<Canvas>(height);
    for (uint32_t i = 0; i < names.size(); ++i) {
        DrawPanel(*canvas, i * kPanelStep + 3 * kMargin / 2, names[i], counts[i], largestSample);
    }
    return {kWidth, height, 3, 8, [canvas] {
                return [canvas](uint32_t y, uint16_t* values) {
                    for (uint32_t x = 0; x < kWidth; ++x) values = std::copy_n(canvas->At(x, y).begin(), 3, values);
                };
            }};
}
