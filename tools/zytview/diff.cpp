#include "diff.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <mutex>
#include <tuple>

#include "errors.h"
#include "text.h"

namespace {

void Add(const Line& one, const Line& other, uint32_t y, std::vector<Difference>& differences) {
    for (uint32_t i = 0; i < one.count; ++i) {
        Difference& difference = differences[one.channels[i & 1]];
        ++difference.samples;
        if (one.samples[i] == other.samples[i]) continue;
        const auto distance = static_cast<uint32_t>(std::abs(one.samples[i] - other.samples[i]));
        ++difference.differing;
        difference.squares += static_cast<double>(distance) * distance;
        if (distance <= difference.largest) continue;
        difference.largest = distance;
        difference.x = one.x + (one.isChroma ? i & ~1u : i);
        difference.y = one.isChroma ? y & ~1u : y;
    }
}

void Merge(const Difference& from, Difference& to) {
    to.samples += from.samples;
    to.differing += from.differing;
    to.squares += from.squares;
    const bool isFirst = std::tie(from.y, from.x) < std::tie(to.y, to.x);
    if (from.largest < to.largest || (from.largest == to.largest && !isFirst)) return;
    std::tie(to.largest, to.x, to.y) = std::tie(from.largest, from.x, from.y);
}

}  // namespace

double Difference::Psnr(uint32_t largestSample) const {
    if (squares == 0) return HUGE_VAL;
    return 10 * std::log10(static_cast<double>(largestSample) * largestSample * static_cast<double>(samples) / squares);
}

std::vector<Difference> Compare(const Dump& one, const Dump& other, const Rect& part, Workers& workers) {
    if (one.Describe() != other.Describe() || one.ChromaRows() != other.ChromaRows()) {
        throw BadInput(one.Path() + " is " + one.Describe() + ", and " + other.Path() + " is " + other.Describe() +
                       (one.Describe() == other.Describe() ? " with other rows of chroma" : ""));
    }
    std::vector<Difference> differences(ChannelNames(one, {}).size());
    std::mutex lock;
    const uint32_t end = part.y + part.height;
    const uint32_t step = std::max(part.height / 16, 64u);
    for (uint32_t y = part.y; y < end; y += step) {
        workers.ForRows(y, std::min(y + step, end), [&](uint32_t from, uint32_t to) {
            std::vector<Difference> own(differences.size());
            LineReader first(one, part);
            LineReader second(other, part);
            for (uint32_t row = from; row < to; ++row) {
                const auto& lines = first.Read(row);
                const auto& others = second.Read(row);
                for (int i = 0; i < 2; ++i) Add(lines[i], others[i], row, own);
            }
            const std::lock_guard<std::mutex> guard(lock);
            for (size_t i = 0; i < own.size(); ++i) Merge(own[i], differences[i]);
        });
        workers.Show(y - part.y, part.height);
    }
    return differences;
}

Rows DrawDifference(const Dump& one, const Dump& other, const std::vector<Difference>& differences) {
    uint32_t largest = 1;
    for (const Difference& difference : differences) largest = std::max(largest, difference.largest);
    Rows rows{one.Width(), one.Height(), 1, 8, {}};
    rows.newReader = [=, &one, &other]() -> RowReader {
        return [=, &one, &other, a = std::vector<uint16_t>(one.Width() + 1),
                b = std::vector<uint16_t>(one.Width() + 1)](uint32_t y, uint16_t* values) mutable {
            const auto distance = [&](uint32_t x) { return static_cast<uint16_t>(std::abs(a[x] - b[x])); };
            one.ReadRow(y, a.data());
            other.ReadRow(y, b.data());
            for (uint32_t x = 0; x < one.Width(); ++x) values[x] = distance(x);
            if (one.ChromaRows() > 0) {
                one.ReadChroma(y, a.data());
                other.ReadChroma(y, b.data());
                for (uint32_t x = 0; x < one.Width(); ++x) {
                    values[x] = std::max({values[x], distance(x & ~1u), distance(x | 1u)});
                }
            }
            for (uint32_t x = 0; x < one.Width(); ++x) {
                constexpr uint32_t kFaintest = 64;
                const uint32_t stretched = (255 - kFaintest) * std::min<uint32_t>(values[x], largest) / largest;
                if (values[x] > 0) values[x] = static_cast<uint16_t>(kFaintest + stretched);
            }
        };
    };
    return rows;
}

std::string DifferenceTable(const std::vector<std::string>& names, const std::vector<Difference>& channels,
                            uint32_t largestSample) {
    std::string text = Text("%-8s%22s%10s%16s%12s\n", "channel", "differing", "largest", "at", "PSNR dB");
    for (size_t i = 0; i < names.size(); ++i) {
        const Difference& channel = channels[i];
        const double percent =
            100 * static_cast<double>(channel.differing) / static_cast<double>(std::max<uint64_t>(channel.samples, 1));
        const std::string at = channel.differing > 0 ? Text("%u,%u", channel.x, channel.y) : "-";
        text += Text("%-8s%12llu (%6.2f%%)%10u%16s%12.2f\n", names[i].c_str(), Long(channel.differing), percent,
                     channel.largest, at.c_str(), channel.Psnr(largestSample));
    }
    return text;
}

std::string DifferenceJson(const std::vector<std::string>& names, const std::vector<Difference>& channels,
                           uint32_t largestSample) {
    std::string text;
    for (size_t i = 0; i < names.size(); ++i) {
        const Difference& channel = channels[i];
        const bool isSame = channel.differing == 0;
        text += Text(R"(%s%s: {"samples": %llu, "differing": %llu, "largest": %u, "at": %s, "psnr": %s})",
                     i == 0 ? "" : ", ", Quote(names[i]).c_str(), Long(channel.samples), Long(channel.differing),
                     channel.largest, isSame ? "null" : Text("[%u, %u]", channel.x, channel.y).c_str(),
                     isSame ? "null" : Text("%.6f", channel.Psnr(largestSample)).c_str());
    }
    return text;
}
