#include "chart.h"

#include <algorithm>
#include <cmath>
#include <memory>

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

    // Draws the background of a panel and its labels: the name, and what is at its ends and at the upper right corner.
    void Frame(uint32_t top, const std::string& name, const std::string (&labels)[3]);

    const Colour& At(uint32_t x, uint32_t y) const { return m_pixels[size_t{y} * kWidth + x]; }

private:
    std::vector<Colour> m_pixels;
};

Colour ColourOf(const std::string& name) {
    if (name == "R" || name == "V") return {240, 110, 90};
    if (name == "B" || name == "U") return {100, 150, 250};
    return name[0] == 'G' ? Colour{110, 210, 110} : Colour{200, 200, 200};
}

void Canvas::Frame(uint32_t top, const std::string& name, const std::string (&labels)[3]) {
    const auto writeLeftOf = [&](uint32_t y, const std::string& text) {
        Write(kLeft + kColumns - static_cast<uint32_t>(text.size()) * 4 * kText, y, text, kInk);
    };
    Fill({kLeft, top, kColumns, kPanel}, kPaperOfPanel);
    for (uint32_t quarter = 1; quarter < 4; ++quarter) Fill({kLeft + quarter * kColumns / 4, top, 1, kPanel}, kPaper);
    Write(kLeft, top - 6 * kText, name, ColourOf(name));
    Write(kLeft, top + kPanel + kText, labels[0], kInk);
    writeLeftOf(top + kPanel + kText, labels[1]);
    writeLeftOf(top - 6 * kText, labels[2]);
}

// Draws a panel for each channel.
Rows DrawPanels(uint32_t panels, const std::function<void(Canvas& canvas, uint32_t panel, uint32_t top)>& draw) {
    const auto canvas = std::make_shared<Canvas>(panels * kPanelStep);
    for (uint32_t i = 0; i < panels; ++i) draw(*canvas, i, i * kPanelStep + 3 * kMargin / 2);
    return {kWidth, panels * kPanelStep, 3, 8, [canvas] {
                return [canvas](uint32_t y, uint16_t* values) {
                    for (uint32_t x = 0; x < kWidth; ++x) values = std::copy_n(canvas->At(x, y).begin(), 3, values);
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

void DrawPanel(Canvas& canvas, uint32_t top, const std::string& name, const Counts& counts, uint32_t largestSample) {
    const std::vector<uint64_t> columns = Columns(counts, largestSample);
    const uint64_t highest = std::max<uint64_t>(*std::max_element(columns.begin(), columns.end()), 1);
    const auto bar = [&](uint32_t x, uint32_t width, uint64_t count, Colour colour) {
        const double share = std::sqrt(static_cast<double>(count) / static_cast<double>(highest));
        const auto height = static_cast<uint32_t>(std::min(std::ceil(share * kPanel), double{kPanel}));
        canvas.Fill({x, top + kPanel - height, width, height}, colour);
    };
    canvas.Frame(top, name, {"0", std::to_string(largestSample), ""});
    for (uint32_t column = 0; column < kColumns; ++column) bar(kLeft + column, 1, columns[column], ColourOf(name));
    bar(kMargin, kBar - 2, counts[0], kAlarm);
    uint64_t clippedHigh = 0;
    for (uint32_t value = largestSample; value < counts.size(); ++value) clippedHigh += counts[value];
    bar(kLeft + kColumns + 2, kBar - 2, clippedHigh, kAlarm);
}

// Draws the curve of the differences, filled to zero.
void DrawCurve(Canvas& canvas, uint32_t top, const std::string& name, const Profile& profile, double scale) {
    constexpr uint32_t kHalf = kPanel / 2;
    const auto count = static_cast<uint32_t>(profile.at.size());
    canvas.Frame(top, name,
                 {Text("%u", count == 0 ? 0 : profile.at.front()), Text("%u", count == 0 ? 0 : profile.at.back()),
                  Text("%.1f", scale)});
    canvas.Fill({kLeft, top + kHalf, kColumns, 1}, kInk);
    const auto heightOf = [&](double difference) {
        return top + kHalf - static_cast<uint32_t>(static_cast<int>(std::lround(difference / scale * (kHalf - 1))));
    };
    for (uint32_t column = 0; column < (count == 0 ? 0 : kColumns); ++column) {
        const auto first = static_cast<uint32_t>(uint64_t{column} * count / kColumns);
        const auto end = std::max(static_cast<uint32_t>(uint64_t{column + 1} * count / kColumns), first + 1);
        uint32_t upper = top + kHalf, lower = top + kHalf;
        bool isOutlier = false;
        for (uint32_t i = first; i < end; ++i) {
            upper = std::min(upper, heightOf(profile.differences[i]));
            lower = std::max(lower, heightOf(profile.differences[i]));
            isOutlier |= profile.IsOutlier(i);
        }
        canvas.Fill({kLeft + column, upper, isOutlier ? 3u : 1u, lower - upper + 1},
                    isOutlier ? kAlarm : ColourOf(name));
    }
}

}  // namespace

Rows DrawHistogram(const std::vector<std::string>& names, const std::vector<Counts>& counts, uint32_t largestSample) {
    return DrawPanels(static_cast<uint32_t>(names.size()), [&](Canvas& canvas, uint32_t i, uint32_t top) {
        DrawPanel(canvas, top, names[i], counts[i], largestSample);
    });
}

Rows DrawProfiles(const std::vector<std::string>& names, const std::vector<Profile>& profiles) {
    double scale = 1e-9;  // no difference at all is a flat curve
    for (const Profile& profile : profiles) {
        scale = std::max(scale, 10 * profile.spread);
        for (const double difference : profile.differences) scale = std::max(scale, std::abs(difference));
    }
    return DrawPanels(static_cast<uint32_t>(names.size()), [&](Canvas& canvas, uint32_t i, uint32_t top) {
        DrawCurve(canvas, top, names[i], profiles[i], scale);
    });
}
