// Shows raw dumps as pictures and as numbers.
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>
#include <new>
#include <regex>
#include <utility>

#include "chart.h"
#include "diff.h"
#include "npyfile.h"
#include "options.h"
#include "outputfile.h"
#include "pngfile.h"
#include "text.h"

namespace {

// Identifies a file by its device and number; empty when there is none, and for pipes and devices.
using FileId = std::optional<std::pair<dev_t, ino_t>>;

FileId IdOf(const std::string& path) {
    struct stat status {};
    if (IsStandardOutput(path) || stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return {};
    return std::pair(status.st_dev, status.st_ino);
}

// Returns the name of a dump's picture. An ending is letters and digits, such as ".raw"; "_0.1_640x480" has none.
std::string PngOf(const std::string& dump) {
    return std::regex_replace(dump, std::regex("([^/])\\.[A-Za-z][A-Za-z0-9]*$"), "$1") + ".png";
}

// Executes one command line.
class View {
public:
    explicit View(const Options& options) : m_options(options) {
        for (const std::string& dump : options.dumps) m_files[IdOf(dump)] = "the dump " + dump;
        m_files[IdOf(options.other)] = "the dump " + options.other;
        m_files.erase(FileId{});
        const auto names = {options.png, options.histogram, options.npy};
        if (std::any_of(names.begin(), names.end(), IsStandardOutput)) m_numbers = stderr;
    }

    // Processes one dump. Returns the exit code. Throws BadInput and WriteError.
    int Show(const std::string& path) {
        m_counts.clear();
        const Geometry geometry = Complete(m_options, path);
        const std::string png = m_options.png.empty() && m_options.ShowsDump() ? PngOf(path) : m_options.png;
        for (const std::string& name : {png, m_options.histogram, m_options.npy}) RefuseUsed(name);
        m_workers.Begin(path);
        const Dump dump(path, geometry);
        const Rect crop = Crop(dump);
        if (dump.Width() < geometry.width) {
            Print(stderr, Text("zytview: %s holds the left %u of %u columns, as the library dumps Y16\n", path.c_str(),
                               dump.Width(), geometry.width));
        }
        const std::vector<std::string> names = ChannelNames(dump, m_options.bayer);
        ShowNumbers(dump, names, crop);
        if (m_options.Has("diff")) return ShowDifference(dump, names, geometry, crop, png);
        if (m_options.Has("profile")) {
            ShowProfiles(dump, names, crop, png);
        } else if (!png.empty()) {
            ShowPicture(dump, crop, png);
        }
        return 0;
    }

private:
    Rect Crop(const Dump& dump) const {
        const auto lies = [&](const Rect& part) {
            return uint64_t{part.x} + part.width <= dump.Width() && uint64_t{part.y} + part.height <= dump.Height();
        };
        const Rect crop = m_options.Has("crop") ? m_options.crop : Rect{0, 0, dump.Width(), dump.Height()};
        const char* outside = !lies(crop) ? "crop" : !lies(m_options.pixel) ? "pixel" : nullptr;
        if (outside == nullptr) return crop;
        throw BadInput(dump.Path() +
                       Text(": the %s is outside the picture's %ux%u", outside, dump.Width(), dump.Height()));
    }

    void RefuseUsed(const std::string& name) const {
        const auto used = m_files.find(IdOf(name));
        if (used != m_files.end()) throw BadInput(name + " would replace " + used->second);
    }

    // Prints the members of a JSON object, or text.
    void PrintNumbers(const Dump& dump, const std::string& json, const std::string& text) {
        dump.Check();
        Print(m_numbers, m_options.Has("json") ? "{\"file\": " + Quote(dump.Path()) + ", " + json + "}\n" : text);
    }

    // Writes a file and prints its name.
    void Write(const std::string& name, const Dump& dump, const std::function<void(OutputFile& file)>& write) {
        RefuseUsed(name);
        OutputFile file(name);
        write(file);
        dump.Check();
        file.Commit();
        if (const FileId id = IdOf(name)) m_files[id] = "what was written as " + name;
        const std::string remark = m_options.dumps.size() > 1 ? "  " + dump.Describe() : "";
        if (!IsStandardOutput(name)) Print(m_options.Has("json") ? stderr : m_numbers, name + remark + "\n");
    }

    void WriteRows(const std::string& png, const Dump& dump, const Rows& rows) {
        if (!png.empty()) Write(png, dump, [&](OutputFile& file) { WritePng(file, rows, m_workers); });
    }

    const std::vector<Counts>& CountsOf(const Dump& dump, const Rect& crop) {
        if (m_counts.empty()) m_counts = CountSamples(dump, crop, m_workers);
        return m_counts;
    }

    void ShowNumbers(const Dump& dump, const std::vector<std::string>& names, const Rect& crop) {
        const bool hasOwnJson = m_options.Has("pixel") || m_options.Has("diff") || m_options.Has("profile");
        if (m_options.Has("stats") || (m_options.Has("json") && !hasOwnJson)) {
            std::vector<std::vector<Cell>> cells;
            for (const Counts& counts : CountsOf(dump, crop)) {
                cells.push_back(Describe(counts, dump.LargestSample()).Cells());
            }
            PrintNumbers(dump,
                         Text(R"("width": %u, "height": %u, "format": "%s", "channels": )", dump.Width(), dump.Height(),
                              dump.Layout().name) +
                             Json(names, cells),
                         dump.Path() + "  " + dump.Describe() + "\n" + Table(names, cells));
        }
        if (m_options.Has("pixel")) {
            const auto& [x, y, width, height] = m_options.pixel;
            PrintNumbers(dump, PixelJson(dump, x, y, m_options.bayer), PixelText(dump, x, y, m_options.bayer));
        }
        if (m_options.Has("histogram")) {
            WriteRows(m_options.histogram, dump, DrawHistogram(names, CountsOf(dump, crop), dump.LargestSample()));
        }
        if (m_options.Has("npy")) {
            Write(m_options.npy, dump, [&](OutputFile& file) { WriteNpy(file, dump, crop, m_workers); });
        }
    }

    int ShowDifference(const Dump& dump, const std::vector<std::string>& names, const Geometry& geometry,
                       const Rect& crop, const std::string& png) {
        const Dump other(m_options.other, Complete(m_options, m_options.other, geometry));
        const std::vector<Difference> differences = Compare(dump, other, crop, m_options.tolerance, m_workers);
        std::vector<std::vector<Cell>> cells;
        bool isDifferent = false;
        for (const Difference& difference : differences) {
            cells.push_back(difference.Cells(dump.LargestSample()));
            isDifferent |= difference.differing > 0;
        }
        other.Check();
        PrintNumbers(dump, "\"other\": " + Quote(other.Path()) + ", \"channels\": " + Json(names, cells),
                     dump.Path() + "  " + other.Path() + "  " + dump.Describe() + "\n" + Table(names, cells));
        if (!png.empty()) {
            Write(png, dump, [&](OutputFile& file) {
                WritePng(file, Part(DrawDifference(dump, other, differences, m_options.tolerance), crop, 1), m_workers);
                other.Check();
            });
        }
        return isDifferent ? 1 : 0;
    }

    void ShowProfiles(const Dump& dump, const std::vector<std::string>& names, const Rect& crop,
                      const std::string& png) {
        const char* const kind = m_options.profile == 1 ? "column" : "row";
        const std::vector<Profile> profiles = MakeProfiles(dump, crop, m_options.profile == 1, m_workers);
        std::vector<std::vector<Cell>> cells;
        std::string outliers;
        for (const Profile& profile : profiles) {
            for (size_t i = 0; i < profile.at.size(); ++i) {
                if (!profile.IsOutlier(i)) continue;
                outliers += Text("%s %s %u: mean %.2f, %+.2f from its neighbours\n", names[cells.size()].c_str(), kind,
                                 profile.at[i], profile.means[i], profile.differences[i]);
            }
            cells.push_back(profile.Cells());
        }
        PrintNumbers(dump, Text("\"profile\": \"%ss\", \"channels\": ", kind) + Json(names, cells),
                     dump.Path() + "  " + dump.Describe() + " " + kind + "s\n" + Table(names, cells) + outliers);
        WriteRows(png, dump, DrawProfiles(names, profiles));
    }

    void ShowPicture(const Dump& dump, const Rect& crop, const std::string& png) {
        const WantedLevels& wanted = m_options.levels;
        const zyt::FormatLayout& layout = dump.Layout();
        Look look{m_options.matrix == 1, m_options.range == 1, m_options.bayer, {}, m_options.curve == 1};
        const double black = look.isLimitedRange ? 16u << (layout.bits - 8) : 0;
        const double span = look.isLimitedRange ? 219u << (layout.bits - 8) : dump.LargestSample();
        look.levels = Resolve(wanted, wanted.IsAuto() ? CountsOf(dump, crop) : m_counts, look.bayer, black, span);
        const auto& [blackLevel, gain, white] = look.levels;
        const Picture picture(dump, look);
        WriteRows(png, dump, Part(picture.AllRows(), crop, 1u << m_options.scale));
        const std::string prefix = "zytview: " + dump.Path() + ": ";
        if (wanted.IsAuto()) {
            std::string chosen = Text("--black %.0f --gain %.4g", blackLevel, gain);
            if (look.bayer) chosen += Text(" --white %.4g,%.4g,%.4g", white[0], white[1], white[2]);
            Print(stderr, prefix + chosen + "\n");
        }
        if (layout.HasChroma() || layout.IsPacked() || layout.bits == 16) return;  // no sample exceeds the largest
        const uint64_t cut = CountCut(CountsOf(dump, crop), look.levels, look.bayer, dump.LargestSample());
        if (cut == 0) return;
        Print(stderr, prefix + Text("samples of more than %u bits, shown as the largest value: ", layout.bits) +
                          std::to_string(cut) + "\n");
    }

    const Options& m_options;
    Workers m_workers;
    std::vector<Counts> m_counts;           // of the current dump, computed on first use
    std::map<FileId, std::string> m_files;  // that must not be replaced, and what they are
    FILE* m_numbers = stdout;               // stderr when a file is written to the standard output
};

// Returns the exit code of work, or of its failure, which is reported in one line.
int Try(int codeOfLoss, const std::function<int()>& work) {
    const auto report = [](const char* what, int code) {
        std::fprintf(stderr, "zytview: %s\n", what);
        return code;
    };
    try {
        return work();
    } catch (const BadInput& bad) {
        return report(bad.what(), 2);
    } catch (const WriteError& failure) {
        return report(failure.what(), codeOfLoss);
    } catch (const std::bad_alloc&) {
        return report("out of memory", 2);
    }
}

}  // namespace

int main(int argc, char** argv) {
    RemoveUnfinishedAtSignals();
    return Try(1, [&] {
        const Options options = ParseOptions(argc, argv);
        View view(options);
        int worst = 0;
        for (const std::string& dump : options.dumps) {
            worst = std::max(worst, Try(options.Has("diff") ? 2 : 1, [&] { return view.Show(dump); }));
        }
        return worst;
    });
}
