// Shows raw dumps as pictures and as numbers.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <new>
#include <set>

#include "diff.h"
#include "errors.h"
#include "histogram.h"
#include "options.h"
#include "outputfile.h"
#include "pixel.h"
#include "pngfile.h"
#include "stats.h"
#include "text.h"

namespace {

/// Executes one command line.
class View {
public:
    explicit View(const Options& options) : m_options(options) {}

    /// Processes one dump. Returns the exit code. Throws BadInput and WriteError.
    int Show(const std::string& path);

private:
    Rect Crop(const Dump& dump) const;
    std::string PngFor(const std::string& path);
    void Print(const std::string& text);
    void ShowNumbers(const Dump& dump, const Rect& crop);
    bool ShowDifference(const Dump& dump, const Geometry& geometry, const Rect& crop, const std::string& png);
    void ShowPicture(const Dump& dump, const Rect& crop, const std::string& png);
    const std::vector<Counts>& CountsOf(const Dump& dump, const Rect& crop);

    const Options& m_options;
    Workers m_workers;
    std::vector<Counts> m_counts;  // of the current dump, computed on first use
    std::set<std::string> m_pngs;  // PNGs written so far
};

int View::Show(const std::string& path) {
    m_counts.clear();
    const Geometry geometry = Complete(m_options, path);
    const std::string png = PngFor(path);
    m_workers.Begin(path);
    const Dump dump(path, geometry);
    const Rect crop = Crop(dump);
    if (dump.Width() < geometry.width) {
        std::fprintf(stderr, "zytview: %s holds the left %u of %u columns, as the library dumps Y16\n", path.c_str(),
                     dump.Width(), geometry.width);
    }
    ShowNumbers(dump, crop);
    if (!m_options.other.empty()) return ShowDifference(dump, geometry, crop, png) ? 1 : 0;
    if (!png.empty()) ShowPicture(dump, crop, png);
    return 0;
}

Rect View::Crop(const Dump& dump) const {
    const auto lies = [&](const Rect& part) {
        return uint64_t{part.x} + part.width <= dump.Width() && uint64_t{part.y} + part.height <= dump.Height();
    };
    const Rect whole{0, 0, dump.Width(), dump.Height()};
    const Rect crop = m_options.crop.width == 0 ? whole : m_options.crop;
    const char* outside = !lies(crop) ? "crop" : m_options.pixel && !lies(*m_options.pixel) ? "pixel" : nullptr;
    if (outside == nullptr) return crop;
    throw BadInput(Text("the %s reaches out of the picture's %ux%u", outside, dump.Width(), dump.Height()));
}

// Returns the PNG's name; empty when none is wanted.
std::string View::PngFor(const std::string& path) {
    std::string png = m_options.png;
    if (png.empty() && !m_options.AsksForNumbers()) {
        png = std::filesystem::path(path).replace_extension(".png").string();
    }
    std::error_code error;
    for (const std::string& name : {png, m_options.histogram}) {
        if (name.empty() || IsStandardOutput(name)) continue;
        for (const std::string& dump : {path, m_options.other}) {
            if (!std::filesystem::equivalent(dump, name, error)) continue;
            throw BadInput(name == png ? "the PNG would replace the dump" : "the histogram would replace the dump");
        }
        if (!m_pngs.insert(name).second) throw BadInput(name + " is written already, for another dump");
    }
    return png;
}

// Prints numbers to stderr when a PNG is written to the standard output.
void View::Print(const std::string& text) {
    m_workers.Clear();
    const bool isTaken = IsStandardOutput(m_options.png) || IsStandardOutput(m_options.histogram);
    std::fputs(text.c_str(), isTaken ? stderr : stdout);
}

const std::vector<Counts>& View::CountsOf(const Dump& dump, const Rect& crop) {
    if (m_counts.empty()) m_counts = CountSamples(dump, crop, m_workers);
    return m_counts;
}

void View::ShowNumbers(const Dump& dump, const Rect& crop) {
    const std::vector<std::string> names = ChannelNames(dump, m_options.bayer);
    if (m_options.wantsStatistics) {
        std::vector<Statistics> channels;
        for (const Counts& counts : CountsOf(dump, crop)) channels.push_back(Describe(counts, dump.LargestSample()));
        Print(m_options.wantsJson ? Text("{\"file\": %s, ", Quote(dump.Path()).c_str()) +
                                        Text(R"("width": %u, "height": %u, "format": "%s", "channels": {)",
                                             dump.Width(), dump.Height(), dump.Layout().name) +
                                        StatisticsJson(names, channels) + "}}\n"
                                  : dump.Path() + "  " + dump.Describe() + "\n" + StatisticsTable(names, channels));
    }
    if (m_options.pixel) Print(PixelText(dump, m_options.pixel->x, m_options.pixel->y, m_options.bayer));
    if (!m_options.histogram.empty()) {
        const Rows drawn = DrawHistogram(names, CountsOf(dump, crop), dump.LargestSample());
        WritePng(m_options.histogram, drawn, m_workers);
        Print(m_options.histogram + "\n");
    }
}

bool View::ShowDifference(const Dump& dump, const Geometry& geometry, const Rect& crop, const std::string& png) {
    const Dump other(m_options.other, Complete(m_options, m_options.other, geometry));
    const std::vector<Difference> channels = Compare(dump, other, crop, m_workers);
    const std::vector<std::string> names = ChannelNames(dump, m_options.bayer);
    Print(m_options.wantsJson ? "{\"file\": " + Quote(dump.Path()) + ", \"other\": " + Quote(other.Path()) +
                                    ", \"channels\": {" + DifferenceJson(names, channels, dump.LargestSample()) + "}}\n"
                              : dump.Path() + "  " + other.Path() + "  " + dump.Describe() + "\n" +
                                    DifferenceTable(names, channels, dump.LargestSample()));
    if (!png.empty()) {
        WritePng(png, Part(DrawDifference(dump, other, channels), crop, 1), m_workers);
        Print(png + "\n");
    }
    return std::any_of(channels.begin(), channels.end(), [](const Difference& one) { return one.differing > 0; });
}

void View::ShowPicture(const Dump& dump, const Rect& crop, const std::string& png) {
    const WantedLevels& wanted = m_options.levels;
    Look look{m_options.isBt709, m_options.isLimitedRange, m_options.bayer, {}};
    const uint32_t bits = dump.Layout().bits;
    const double black = look.isLimitedRange ? 16u << (bits - 8) : 0;
    const double span = look.isLimitedRange ? 219u << (bits - 8) : dump.LargestSample();
    look.levels = Resolve(wanted, wanted.IsAuto() ? CountsOf(dump, crop) : m_counts, look.bayer, black, span);
    const Levels& levels = look.levels;
    const Picture picture(dump, look);
    WritePng(png, Part(picture.AllRows(), crop, m_options.divisor), m_workers);
    m_workers.Clear();
    if (wanted.IsAuto()) {
        std::fprintf(stderr, "zytview: %s: --black %.0f --gain %.4g", dump.Path().c_str(), levels.black, levels.gain);
        if (look.bayer)
            std::fprintf(stderr, " --white %.4g,%.4g,%.4g", levels.white[0], levels.white[1], levels.white[2]);
        std::fputc('\n', stderr);
    }
    if (picture.ExcessiveSamples() > 0) {
        std::fprintf(stderr, "zytview: %s: samples of more than %u bits, shown as the largest value: %llu\n",
                     dump.Path().c_str(), bits, Long(picture.ExcessiveSamples()));
    }
    Print(png + (m_options.dumps.size() > 1 ? "  " + dump.Describe() : "") + "\n");
}

int Report(const char* what, int code) {
    std::fprintf(stderr, "zytview: %s\n", what);
    return code;
}

int Run(int argc, char** argv) {
    const Options options = ParseOptions(argc, argv);
    View view(options);
    int worst = 0;
    for (const std::string& dump : options.dumps) {
        int code = 0;
        try {
            code = view.Show(dump);
        } catch (const BadInput& bad) {
            code = Report(bad.what(), 2);
        } catch (const WriteError& failure) {
            code = Report(failure.what(), 1);
        }
        worst = std::max(worst, code);
    }
    return std::fflush(stdout) == 0 ? worst : Report("cannot write the standard output", std::max(worst, 1));
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Run(argc, argv);
    } catch (const BadInput& bad) {
        return Report(bad.what(), 2);
    } catch (const std::bad_alloc&) {
        return Report("out of memory", 1);
    }
}
