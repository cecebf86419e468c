#include "levels.h"

#include <algorithm>
#include <utility>

namespace {

using Weighted = std::vector<std::pair<double, uint64_t>>;  // brightness and number of samples

// Returns the brightness of the darkest or the lightest thousandth of the samples.
double Thousandth(Weighted sorted, bool isLightest) {
    if (isLightest) std::reverse(sorted.begin(), sorted.end());
    uint64_t left = 0;
    for (const auto& [brightness, count] : sorted) left += count;
    left /= 1000;
    for (const auto& [brightness, count] : sorted) {
        if (count > left) return brightness;
        left -= count;
    }
    return 0;
}

Weighted Brightness(const std::vector<Counts>& counts, const Levels& levels, const std::optional<uint32_t>& bayer) {
    Weighted sorted;
    // Four channels are a Bayer plane. Otherwise only the first channel is brightness.
    const uint32_t channels = counts.size() == 4 ? 4 : 1;
    for (uint32_t channel = 0; channel < channels; ++channel) {
        const double factor = bayer ? levels.white[ColourAt(*bayer, channel & 1, channel >> 1)] : 1;
        for (uint32_t value = 0; value < counts[channel].size(); ++value) {
            const uint64_t count = counts[channel][value];
            if (count > 0) sorted.emplace_back((value - levels.black) * factor, count);
        }
    }
    std::sort(sorted.begin(), sorted.end());
    return sorted;
}

// Sets the gains that make the means of red and blue equal that of green.
void MakeGrey(const std::vector<Counts>& counts, uint32_t bayer, Levels& levels) {
    double sums[3] = {};
    double samples[3] = {};
    for (uint32_t channel = 0; channel < 4; ++channel) {
        const Statistics statistics = Describe(counts[channel], 0);
        const uint32_t colour = ColourAt(bayer, channel & 1, channel >> 1);
        const auto count = static_cast<double>(statistics.samples);
        sums[colour] += (statistics.mean - levels.black) * count;
        samples[colour] += count;
    }
    for (const uint32_t colour : {0u, 2u}) {
        if (sums[colour] > 0 && sums[1] > 0) {
            levels.white[colour] = sums[1] / samples[1] / (sums[colour] / samples[colour]);
        }
    }
}

}  // namespace

Levels Resolve(const WantedLevels& wanted, const std::vector<Counts>& counts, const std::optional<uint32_t>& bayer,
               double black, double span) {
    Levels levels = wanted;
    if (!wanted.isBlackGiven) {
        levels.black = wanted.isGainAuto ? Thousandth(Brightness(counts, {}, {}), false) : black;
    }
    if (wanted.isWhiteAuto) MakeGrey(counts, *bayer, levels);
    if (wanted.isGainAuto) {
        double lightest = Thousandth(Brightness(counts, levels, bayer), true);
        const double* white = levels.white;
        if (bayer && white[0] >= white[1] && white[2] >= white[1]) {
            lightest = std::min(lightest, (span - levels.black) * white[1]);  // raw formats: span is the largest sample
        }
        if (lightest > 0) levels.gain = span / lightest;
    }
    return levels;
}

uint64_t CountCut(const std::vector<Counts>& counts, const Levels& levels, const std::optional<uint32_t>& bayer,
                  uint32_t largestSample) {
    uint64_t cut = 0;
    for (uint32_t channel = 0; channel < counts.size(); ++channel) {
        const double white = bayer ? levels.white[ColourAt(*bayer, channel & 1, channel >> 1)] : 1;
        for (uint32_t value = largestSample + 1; value < counts[channel].size(); ++value) {
            if ((value - levels.black) * levels.gain * white > largestSample) cut += counts[channel][value];
        }
    }
    return cut;
}
