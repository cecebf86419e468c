#include "stats.h"

#include <algorithm>
#include <cmath>

namespace {

// Returns a sample of the first plane (channel 0), U or V; "-" where the file has no chroma.
std::string SampleAt(const Dump& dump, uint32_t channel, uint32_t x, uint32_t y) {
    std::vector<uint16_t> row(dump.Width() + 1);
    if (channel == 0) {
        dump.ReadRow(y, row.data());
        return std::to_string(row[x]);
    }
    if (x / 2 >= dump.ChromaPairs() || y / 2 >= dump.ChromaRows()) return "-";
    dump.ReadChroma(y, row.data());
    const bool isSecond = (channel == 2) != (dump.Format() == ZYT_FORMAT_YUV420NV21);
    return std::to_string(row[(x & ~1u) + isSecond]);
}

// Returns the numbers around a position.
std::string Block(const Dump& dump, uint32_t channel, uint32_t x, uint32_t y) {
    constexpr uint32_t kAround = 3;
    const uint32_t step = channel == 0 ? 1 : 2;
    const uint32_t left = x - std::min(x, kAround * step);
    const uint32_t right = std::min(x + kAround * step, dump.Width() - 1);
    std::string text = "       ";
    for (uint32_t column = left; column <= right; column += step) text += Text("%8u", column);
    text += '\n';
    for (uint32_t row = y - std::min(y, kAround * step); row <= std::min(y + kAround * step, dump.Height() - 1);
         row += step) {
        text += Text("%7u", row);
        for (uint32_t column = left; column <= right; column += step) {
            const std::string sample = SampleAt(dump, channel, column, row);
            text += Text("%8s", (row == y && column == x ? "[" + sample + "]" : sample + " ").c_str());
        }
        if (text.back() == ' ') text.pop_back();
        text += '\n';
    }
    return text;
}

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

std::vector<Counts> CountSamples(const Dump& dump, const Rect& part, Workers& workers) {
    const std::vector<Counts> zero(ChannelNames(dump, {}).size(), Counts(1u << 16));
    return workers.AddUp(part.y, part.y + part.height, zero, [&](uint32_t from, uint32_t to, auto& counts) {
        LineReader reader(dump, part);
        for (uint32_t y = from; y < to; ++y) {
            for (const Line& line : reader.Read(y)) {
                for (uint32_t i = 0; i < line.count; ++i) ++counts[line.channels[i & 1]][line.samples[i]];
            }
        }
    });
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
        if (value == 0) result.clippedLow = counts[value];
        if (value >= largestSample) result.clippedHigh += counts[value];
    }
    const double all = std::max(static_cast<double>(result.samples), 1.0);
    result.mean = sum / all;
    double squares = 0;
    for (uint32_t value = result.least; value <= result.largest; ++value) {
        squares += static_cast<double>(counts[value]) * (value - result.mean) * (value - result.mean);
    }
    result.deviation = std::sqrt(squares / all);
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
            RealCell("mean", 11, 2, "mean", mean),
            RealCell("stddev", 11, 2, "stddev", deviation),
            ShareCell("clipped low", 20, "clipped_low", clippedLow, samples),
            ShareCell("clipped high", 20, "clipped_high", clippedHigh, samples)};
}

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
    // Sum and number of the samples of each row or column, one after the other.
    const size_t length = ofColumns ? dump.Width() : dump.Height();
    const std::vector<Counts> zero(ChannelNames(dump, {}).size(), Counts(2 * length));
    const auto channels =
        workers.AddUp(part.y, part.y + part.height, zero, [&](uint32_t from, uint32_t to, auto& sums) {
            LineReader reader(dump, part);
            for (uint32_t y = from; y < to; ++y) {
                for (const Line& line : reader.Read(y)) {
                    for (uint32_t i = 0; i < line.count; ++i) {
                        uint64_t* sum = &sums[line.channels[i & 1]][2 * size_t{ofColumns ? line.X(i) : line.y}];
                        sum[0] += line.samples[i];
                        ++sum[1];
                    }
                }
            }
        });
    std::vector<Profile> profiles;
    for (const Counts& sums : channels) {
        Profile& profile = profiles.emplace_back();
        double all = 0;
        double samples = 0;
        for (uint32_t i = 0; i < length; ++i) {
            const auto sum = static_cast<double>(sums[size_t{2} * i]);
            const auto count = static_cast<double>(sums[size_t{2} * i + 1]);
            if (count == 0) continue;
            profile.at.push_back(i);
            profile.means.push_back(sum / count);
            all += sum;
            samples += count;
        }
        profile.mean = all / std::max(samples, 1.0);
        Finish(profile);
    }
    return profiles;
}

PixelNumbers DescribePixel(const Dump& dump, std::vector<std::string> names, uint32_t x, uint32_t y) {
    if (names.size() == 4) names = {names[2 * (y & 1) + (x & 1)]};
    PixelNumbers numbers;
    numbers.json = Text(R"("x": %u, "y": %u, "channel": %s, "samples": {)", x, y, Quote(names[0]).c_str());
    for (uint32_t channel = 0; channel < names.size(); ++channel) {
        if (channel == 1) x &= ~1u, y &= ~1u;
        const std::string sample = SampleAt(dump, channel, x, y);
        numbers.text += names[channel] + Text(" at %u,%u is ", x, y) + sample + "\n" + Block(dump, channel, x, y);
        numbers.json += (channel == 0 ? "" : ", ") + Quote(names[channel]) + ": " + (sample == "-" ? "null" : sample);
    }
    numbers.json += '}';
    return numbers;
}
