// Shows raw dumps as pictures and as numbers.
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <map>
#include <new>
#include <utility>

#include "encode.h"
#include "options.h"
#include "outputfile.h"
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
    std::filesystem::path path = dump;
    const std::string ending = path.extension();
    const auto isPart = [](unsigned char c) { return std::isalnum(c) != 0; };
    const bool hasEnding = ending.size() > 1 && std::isalpha(static_cast<unsigned char>(ending[1])) != 0 &&
                           std::all_of(ending.begin() + 1, ending.end(), isPart);
    return hasEnding ? path.replace_extension(".png").string() : dump + ".png";
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
        m_dump.emplace(path, geometry);
        m_names = ChannelNames(*m_dump, m_options.look.bayer);
        m_crop = Crop();
        if (m_dump->Width() < geometry.width) {
            Remark(Text(" holds the left %u of %u columns, as the library dumps Y16", m_dump->Width(), geometry.width));
        }
        ShowNumbers();
        if (m_options.Has("diff")) return ShowDifference(geometry, png);
        if (m_options.Has("profile")) {
            ShowProfiles(png);
        } else if (!png.empty()) {
            ShowPicture(png);
        }
        return 0;
    }

private:
    Rect Crop() const {
        const Dump& dump = *m_dump;
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
    void PrintNumbers(const std::string& json, const std::string& text) {
        m_dump->Check();
        Print(m_numbers, m_options.Has("json") ? "{\"file\": " + Quote(m_dump->Path()) + ", " + json + "}\n" : text);
    }

    // Prints a table of all channels after other members, or after the names of the dumps and `what`.
    void PrintTable(const std::string& json, const std::string& what, const std::vector<std::vector<Cell>>& cells,
                    const std::string& rest = "") {
        const std::string names = m_dump->Path() + "  " + (m_other ? m_other->Path() + "  " : "");
        PrintNumbers(json + ", \"channels\": " + Json(m_names, cells),
                     names + m_dump->Describe() + what + "\n" + Table(m_names, cells) + rest);
    }

    // Writes a file and prints its name.
    void Write(const std::string& name, const std::function<void(OutputFile& file)>& write) {
        RefuseUsed(name);
        OutputFile file(name);
        write(file);
        m_dump->Check();
        if (m_other) m_other->Check();
        file.Commit();
        if (const FileId id = IdOf(name)) m_files[id] = "what was written as " + name;
        const std::string remark = m_options.dumps.size() > 1 ? "  " + m_dump->Describe() : "";
        if (!IsStandardOutput(name)) Print(m_options.Has("json") ? stderr : m_numbers, name + remark + "\n");
    }

    void WriteRows(const std::string& png, const Rows& rows) {
        if (!png.empty()) Write(png, [&](OutputFile& file) { WritePng(file, rows, m_workers); });
    }

    const std::vector<Counts>& CountsOnce() {
        if (m_counts.empty()) m_counts = CountSamples(*m_dump, m_crop, m_workers);
        return m_counts;
    }

    void ShowNumbers() {
        const bool hasOwnJson = m_options.Has("pixel") || m_options.Has("diff") || m_options.Has("profile");
        if (m_options.Has("stats") || (m_options.Has("json") && !hasOwnJson)) {
            std::vector<std::vector<Cell>> cells;
            for (const Counts& counts : CountsOnce())
                cells.push_back(Describe(counts, m_dump->LargestSample()).Cells());
            PrintTable(Text(R"("width": %u, "height": %u, "format": "%s")", m_dump->Width(), m_dump->Height(),
                            m_dump->Layout().name),
                       "", cells);
        }
        if (m_options.Has("pixel")) {
            const auto numbers = DescribePixel(*m_dump, m_names, m_options.pixel.x, m_options.pixel.y);
            PrintNumbers(numbers.json, numbers.text);
        }
        if (m_options.Has("histogram")) {
            WriteRows(m_options.histogram, DrawHistogram(m_names, CountsOnce(), m_dump->LargestSample()));
        }
        if (m_options.Has("npy")) {
            Write(m_options.npy, [&](OutputFile& file) { WriteNpy(file, *m_dump, m_crop, m_workers); });
        }
    }

    int ShowDifference(const Geometry& geometry, const std::string& png) {
        m_other.emplace(m_options.other, Complete(m_options, m_options.other, geometry));
        const std::vector<Difference> differences = Compare(*m_dump, *m_other, m_crop, m_options.tolerance, m_workers);
        m_other->Check();
        std::vector<std::vector<Cell>> cells;
        bool isDifferent = false;
        for (const Difference& difference : differences) {
            cells.push_back(difference.Cells(m_dump->LargestSample()));
            isDifferent |= difference.differing > 0;
        }
        PrintTable("\"other\": " + Quote(m_other->Path()), "", cells);
        WriteRows(png, Part(DrawDifference(*m_dump, *m_other, differences, m_options.tolerance), m_crop, 1));
        return isDifferent ? 1 : 0;
    }

    void ShowProfiles(const std::string& png) {
        const char* const kind = m_options.ofColumns ? "column" : "row";
        const std::vector<Profile> profiles = MakeProfiles(*m_dump, m_crop, m_options.ofColumns, m_workers);
        std::vector<std::vector<Cell>> cells;
        std::string outliers;
        for (const Profile& profile : profiles) {
            for (size_t i = 0; i < profile.at.size(); ++i) {
                if (!profile.IsOutlier(i)) continue;
                outliers += Text("%s %s %u: mean %.2f, %+.2f from its neighbours\n", m_names[cells.size()].c_str(),
                                 kind, profile.at[i], profile.means[i], profile.differences[i]);
            }
            cells.push_back(profile.Cells());
        }
        PrintTable(Text("\"profile\": \"%ss\"", kind), Text(" %ss", kind), cells, outliers);
        WriteRows(png, DrawProfiles(m_names, profiles));
    }

    void ShowPicture(const std::string& png) {
        Look look = m_options.look;
        SetLevels(look, *m_dump, look.IsAuto() ? CountsOnce() : m_counts);
        WriteRows(png, Part(DrawDump(*m_dump, look), m_crop, 1u << m_options.scale));
        if (look.IsAuto()) {
            std::string chosen = Text(": --black %.0f --gain %.4g", look.black, look.gain);
            if (look.bayer) chosen += Text(" --white %.4g,%.4g,%.4g", look.white[0], look.white[1], look.white[2]);
            Remark(chosen);
        }
        const zyt::FormatLayout& layout = m_dump->Layout();
        if (layout.HasChroma() || layout.IsPacked() || layout.bits == 16) return;  // no sample exceeds the largest one
        const uint64_t cut = CountCut(CountsOnce(), look, m_dump->LargestSample());
        const std::string what = Text(": samples of more than %u bits, shown as the largest value: ", layout.bits);
        if (cut > 0) Remark(what + std::to_string(cut));
    }

    void Remark(const std::string& text) const { Print(stderr, "zytview: " + m_dump->Path() + text + "\n"); }

    const Options& m_options;
    Workers m_workers;
    std::optional<Dump> m_dump;        // the current one
    std::optional<Dump> m_other;       // to compare with
    std::vector<std::string> m_names;  // of the dump's channels
    Rect m_crop;
    std::vector<Counts> m_counts;           // of the dump, computed on first use
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
