#include "profile.h"

#include <algorithm>
#include <cmath>

namespace {

double Median(std::vector<double> values) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    return (values[(values.size() - 1) / 2] + values[values.size() / 2]) / 2;
}

void Finish(Profile& profile) {
    const size_t count = profile.means.size();
    std::vector<double> amounts;
    for (size_t i = 0; i < count; ++i) {
        const size_t first = std::min(i - std::min<size_t>(i, 2), count - std::min<size_t>(count, 5));
        std::vector<double> others;
        for (size_t j = first; j < std::min(first + 5, count); ++j) {
            if (j != i) others.push_back(profile.means[j]);
        }
        profile.differences.push_back(others.empty() ? 0 : profile.means[i] - Median(others));
        amounts.push_back(std::abs(profile.differences[i]));
    }
    profile.spread = 1.4826 * Median(amounts);
}

template <typename Number>
std::string List(const std::vector<Number>& numbers) {
    std::string list;
    for (const Number number : numbers) list += (list.empty() ? "[" : ", ") + std::to_string(number);
    return list.empty() ? "[]" : list + "]";
}

}  // namespace

bool Profile::IsOutlier(size_t i) const {
    return std::abs(differences[i]) > 5 * spread && std::abs(differences[i]) > mean / 100;
}

std::vector<Cell> Profile::Cells() const {
    std::vector<uint32_t> outliers;
    for (size_t i = 0; i < at.size(); ++i) {
        if (IsOutlier(i)) outliers.push_back(at[i]);
    }
    return {RealCell("mean", 11, 2, "mean", mean),
            RealCell("spread", 11, 3, "spread", spread),
            {"outliers", 10, std::to_string(outliers.size()), "outliers", List(outliers)},
            {nullptr, 0, "", "at", List(at)},
            {nullptr, 0, "", "means", List(means)},
            {nullptr, 0, "", "differences", List(differences)}};
}

std::vector<Profile> MakeProfiles(const Dump& dump, const Rect& part, bool ofColumns, Workers& workers) {
    struct Sum {
        uint64_t sum = 0;
        uint64_t samples = 0;
    };
    using Sums = std::vector<std::vector<Sum>>;
    Sums sums(ChannelNames(dump, {}).size(), std::vector<Sum>(ofColumns ? dump.Width() : dump.Height()));
    workers.ForBands(part.y, part.y + part.height, [&](uint32_t from, uint32_t to) -> std::function<void()> {
        Sums own(sums.size(), std::vector<Sum>(sums[0].size()));
        LineReader reader(dump, part);
        for (uint32_t y = from; y < to; ++y) {
            for (const Line& line : reader.Read(y)) {
                for (uint32_t i = 0; i < line.count; ++i) {
                    Sum& sum = own[line.channels[i & 1]][ofColumns ? line.X(i) : line.y];
                    sum.sum += line.samples[i];
                    ++sum.samples;
                }
            }
        }
        return [&sums, own = std::move(own)] {
            for (size_t channel = 0; channel < own.size(); ++channel) {
                for (size_t i = 0; i < own[channel].size(); ++i) {
                    sums[channel][i].sum += own[channel][i].sum;
                    sums[channel][i].samples += own[channel][i].samples;
                }
            }
        };
    });
    std::vector<Profile> profiles(sums.size());
    for (size_t channel = 0; channel < sums.size(); ++channel) {
        Profile& profile = profiles[channel];
        Sum all;
        for (uint32_t i = 0; i < sums[channel].size(); ++i) {
            const Sum& one = sums[channel][i];
            if (one.samples == 0) continue;
            profile.at.push_back(i);
            profile.means.push_back(static_cast<double>(one.sum) / static_cast<double>(one.samples));
            all.sum += one.sum;
            all.samples += one.samples;
        }
        if (all.samples > 0) profile.mean = static_cast<double>(all.sum) / static_cast<double>(all.samples);
        Finish(profile);
    }
    return profiles;
}
