#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "picture.h"

namespace {

// Returns whether the samples of two containers differ by more than the tolerance. Unused bits count without one.
bool IsDifferent(uint16_t one, uint16_t other, int distance, uint32_t tolerance) {
    return tolerance == 0 ? one != other : std::abs(distance) > static_cast<int>(tolerance);
}

void Add(const Line& one, const Line& other, uint32_t unusedBits, uint32_t tolerance,
         std::vector<Difference>& differences) {
    for (uint32_t i = 0; i < one.count; ++i) {
        Difference& difference = differences[one.channels[i & 1]];
        ++difference.samples;
        if (one.samples[i] == other.samples[i]) continue;
        const int distance = (one.samples[i] >> unusedBits) - (other.samples[i] >> unusedBits);
        if (IsDifferent(one.samples[i], other.samples[i], distance, tolerance)) ++difference.differing;
        difference.sum += distance;
        difference.squares += static_cast<double>(distance) * distance;
        if (std::abs(distance) <= difference.largest) continue;
        difference.largest = std::abs(distance);
        difference.x = one.X(i);
        difference.y = one.y;
    }
}

}  // namespace

Difference& Difference::operator+=(const Difference& below) {
    if (below.largest > largest) {
        largest = below.largest;
        x = below.x;
        y = below.y;
    }
    samples += below.samples;
    differing += below.differing;
    sum += below.sum;
    squares += below.squares;
    return *this;
}

std::vector<Cell> Difference::Cells(uint32_t largestSample) const {
    const auto count = static_cast<double>(std::max<uint64_t>(samples, 1));
    const double mean = static_cast<double>(sum) / count;
    const double psnr = 10 * std::log10(static_cast<double>(largestSample) * largestSample * count / squares);
    const bool isSame = largest < 0;
    return {NumberCell(nullptr, 0, "samples", samples),
            ShareCell("differing", 22, "differing", differing, samples),
            NumberCell("largest", 10, "largest", static_cast<uint64_t>(std::max(largest, 0))),
            {"mean", 10, Text("%+.2f", mean), "mean", std::to_string(mean)},
            {"at", 14, isSame ? "-" : Text("%u,%u", x, y), "at", isSame ? "null" : Text("[%u, %u]", x, y)},
            {"PSNR dB", 10, squares == 0 ? "inf" : Text("%.2f", psnr), "psnr",
             squares == 0 ? "null" : std::to_string(psnr)}};
}

std::vector<Difference> Compare(const Dump& one, const Dump& other, const Rect& part, uint32_t tolerance,
                                Workers& workers) {
    if (one.Describe() != other.Describe() || one.ChromaRows() != other.ChromaRows()) {
        throw BadInput(one.Path() + " is " + one.Describe() + ", and " + other.Path() + " is " + other.Describe() +
                       (one.Describe() == other.Describe() ? " with other rows of chroma" : ""));
    }
    const std::vector<Difference> zero(ChannelNames(one, {}).size());
    return workers.AddUp(part.y, part.y + part.height, zero, [&](uint32_t from, uint32_t to, auto& differences) {
        LineReader first(one, part, true);
        LineReader second(other, part, true);
        for (uint32_t row = from; row < to; ++row) {
            const auto& lines = first.Read(row);
            const auto& others = second.Read(row);
            for (int i = 0; i < 2; ++i) Add(lines[i], others[i], one.UnusedBits(), tolerance, differences);
        }
    });
}

Rows DrawDifference(const Dump& one, const Dump& other, const std::vector<Difference>& differences,
                    uint32_t tolerance) {
    int largest = 1;
    for (const Difference& difference : differences) largest = std::max(largest, difference.largest);
    const auto newReader = [=, &one, &other]() -> RowReader {
        return [=, &one, &other, a = std::vector<uint16_t>(one.Width() + 1),
                b = std::vector<uint16_t>(one.Width() + 1)](uint32_t y, uint16_t* values) mutable {
            const auto brightness = [&](uint32_t x) {
                constexpr int kFaintest = 64;
                const int distance = (a[x] >> one.UnusedBits()) - (b[x] >> one.UnusedBits());
                if (!IsDifferent(a[x], b[x], distance, tolerance)) return uint16_t{0};
                const int stretched = (255 - kFaintest) * std::min(std::abs(distance), largest) / largest;
                return static_cast<uint16_t>(kFaintest + stretched);
            };
            one.ReadRow(y, a.data(), true);
            other.ReadRow(y, b.data(), true);
            for (uint32_t x = 0; x < one.Width(); ++x) values[x] = brightness(x);
            if (one.ChromaRows() == 0) return;
            one.ReadChroma(y, a.data(), true);
            other.ReadChroma(y, b.data(), true);
            for (uint32_t x = 0; x < one.Width(); ++x) {
                values[x] = std::max({values[x], brightness(x & ~1u), brightness(x | 1u)});
            }
        };
    };
    return {one.Width(), one.Height(), 1, 8, newReader};
}
