#include "stats.h"

#include <algorithm>
#include <cmath>
#include <mutex>

#include "text.h"

std::vector<Counts> CountSamples(const Dump& dump, const Rect& part, Workers& workers) {
    std::vector<Counts> counts(ChannelNames(dump, {}).size(), Counts(1u << 16));
    std::mutex lock;
    const auto countRows = [&](uint32_t from, uint32_t to) {
        std::vector<std::vector<uint32_t>> own(counts.size(), std::vector<uint32_t>(1u << 16));
        LineReader reader(dump, part);
        for (uint32_t y = from; y < to; ++y) {
            for (const Line& line : reader.Read(y)) {
                for (uint32_t i = 0; i < line.count; ++i) ++own[line.channels[i & 1]][line.samples[i]];
            }
        }
        const std::lock_guard<std::mutex> guard(lock);
        for (size_t channel = 0; channel < counts.size(); ++channel) {
            for (size_t value = 0; value < own[channel].size(); ++value) counts[channel][value] += own[channel][value];
        }
    };
    const uint32_t end = part.y + part.height;
    // A band must have fewer than 2^32 samples; adding up its counts costs a megabyte of reads.
    const uint32_t step = std::clamp(part.height / 16, 64u, 8192u);
    for (uint32_t y = part.y; y < end; y += step) {
        workers.ForRows(y, std::min(y + step, end), countRows);
        workers.Show(y - part.y, part.height);
    }
    return counts;
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
        if (value >= largestSample) result.clippedHigh += counts[value];
    }
    if (result.samples == 0) return result;
    result.clippedLow = counts[0];
    result.mean = sum / static_cast<double>(result.samples);
    double squares = 0;
    for (uint32_t value = result.least; value <= result.largest; ++value) {
        squares += static_cast<double>(counts[value]) * (value - result.mean) * (value - result.mean);
    }
    result.deviation = std::sqrt(squares / static_cast<double>(result.samples));
    return result;
}

std::string StatisticsTable(const std::vector<std::string>& names, const std::vector<Statistics>& channels) {
    std::string text =
        Text("%-8s%8s%8s%11s%11s%20s%20s\n", "channel", "min", "max", "mean", "stddev", "clipped low", "clipped high");
    for (size_t i = 0; i < names.size(); ++i) {
        const Statistics& channel = channels[i];
        const auto percent = [&](uint64_t count) {
            return 100 * static_cast<double>(count) / static_cast<double>(std::max<uint64_t>(channel.samples, 1));
        };
        text += Text("%-8s%8u%8u%11.2f%11.2f%10llu (%6.2f%%)%10llu (%6.2f%%)\n", names[i].c_str(), channel.least,
                     channel.largest, channel.mean, channel.deviation, Long(channel.clippedLow),
                     percent(channel.clippedLow), Long(channel.clippedHigh), percent(channel.clippedHigh));
    }
    return text;
}

std::string StatisticsJson(const std::vector<std::string>& names, const std::vector<Statistics>& channels) {
    std::string text;
    for (size_t i = 0; i < names.size(); ++i) {
        const Statistics& channel = channels[i];
        text += Text(R"(%s%s: {"samples": %llu, "min": %u, "max": %u, "mean": %.6f, "stddev": %.6f, )",
                     i == 0 ? "" : ", ", Quote(names[i]).c_str(), Long(channel.samples), channel.least, channel.largest,
                     channel.mean, channel.deviation);
        text +=
            Text(R"("clipped_low": %llu, "clipped_high": %llu})", Long(channel.clippedLow), Long(channel.clippedHigh));
    }
    return text;
}
