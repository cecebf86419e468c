#include "options.h"

#include <getopt.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "errors.h"
#include "nodekit/dumpname.h"
#include "outputfile.h"

namespace {

constexpr const char* kUsage =
    "usage: zytview [options] DUMP [PNG]\n"
    "       zytview [options] DUMP...\n"
    "\n"
    "Converts a raw dump to a PNG and prints the PNG's name: DUMP's name with .png unless PNG is given; - is the\n"
    "standard output. Size and format are taken from the options, otherwise from the dump's name, such as\n"
    "night_4000x3000_RawMipi10.raw; the last size and the last format in the name win.\n"
    "\n"
    "Layout of the dump\n"
    "  --size WxH               in pixels, each side from 1 to 131072\n"
    "  --format NAME            YUV420NV12, YUV420NV21 (or NV12, NV21), YUV_P010 (or P010), Y16,\n"
    "                           RawMipi10, RawMipi12, RawMipi14, Raw10, Raw12, Raw14, Raw16\n"
    "  --stride BYTES           bytes from row to row, for a file with padded rows\n"
    "  --slice-height ROWS      rows from the first plane to the second, for a file with padded planes\n"
    "  --matrix bt601|bt709     for YUV formats; default: bt601\n"
    "  --range full|limited     for YUV formats; default: full\n"
    "\n"
    "Picture\n"
    "  --bayer rggb|grbg|gbrg|bggr\n"
    "                           shows raw formats in colour; default: grey\n"
    "  --white R,G,B|auto       colour gains, with --bayer; auto makes the picture grey on average\n"
    "  --black N                sample shown as black; default: 0, or 16 of 255 in the limited range\n"
    "  --gain X|auto            brightness factor; auto makes the lightest thousandth of the samples white, and the\n"
    "                           darkest thousandth black unless --black is given\n"
    "  --crop WxH+X+Y           shows a part, in pixels of the dump\n"
    "  --scale 1/1|1/2|1/4|1/8  each pixel is the mean of a square of pixels\n"
    "\n"
    "Numbers; with these a picture is written only when PNG is given\n"
    "  --stats                  minimum, maximum, mean, standard deviation and clipped samples of each channel;\n"
    "                           samples of 0 and of the format's largest value or above count as clipped. Bayer\n"
    "                           channels are named column,row without --bayer\n"
    "  --pixel X,Y              the samples at and around a pixel\n"
    "  --diff OTHER             differences from another dump of the same size and format; PNG shows them, the\n"
    "                           largest white and all others at least dark grey. The exit code is 1 when they differ\n"
    "  --histogram PNG          histogram of the samples; heights are square roots, clipped samples are red\n"
    "  --json                   prints --stats and --diff as JSON, one object per line\n"
    "  -h, --help, --version\n"
    "\n"
    "8-bit YUV becomes an 8-bit PNG, every other format a 16-bit PNG. Raw samples are in the upper bits, so a right\n"
    "shift restores them. Exit codes: 0 for success, 1 when writing failed or --diff found a difference, 2 for an\n"
    "invalid argument or dump. With several dumps an invalid one is reported and the others are processed.\n";

constexpr uint32_t kMaxNumber = 999999999;

// Returns the index of value in words.
uint32_t Choice(const std::string& option, const std::string& value, const std::vector<std::string>& words) {
    const auto found = std::find(words.begin(), words.end(), value);
    if (found != words.end()) return static_cast<uint32_t>(found - words.begin());
    std::string list;
    for (const std::string& word : words) list += (list.empty() ? "" : " or ") + word;
    throw BadInput("--" + option + " is " + list + ", not '" + value + "'");
}

// Parses text as a number from least to largest. Returns false, and leaves number unchanged, for any other text.
template <typename Number>
bool ReadNumber(std::string_view text, Number least, Number largest, Number& number) {
    Number value = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || stop != end || !(value >= least && value <= largest)) return false;
    number = value;
    return true;
}

// Like above for a fraction, which from_chars of libc++ 14 does not support.
bool ReadNumber(const std::string& text, double least, double largest, double& number) {
    if (text.find_first_not_of("0123456789.e-") != std::string::npos) return false;
    char* stop = nullptr;
    const double value = std::strtod(text.c_str(), &stop);
    if (text.empty() || *stop != '\0' || !(value >= least && value <= largest)) return false;
    number = value;
    return true;
}

uint32_t Number(const std::string& option, const std::string& value) {
    uint32_t number = 0;
    if (ReadNumber(value, 1u, kMaxNumber, number)) return number;
    throw BadInput("--" + option + " is a number from 1 to " + std::to_string(kMaxNumber) + ", not '" + value + "'");
}

Rect Crop(const std::string& value) {
    Rect crop;
    const size_t first = value.find('+');
    const size_t second = value.find('+', first + 1);
    if (first != value.npos && second != value.npos &&
        zyt::ParseSize(value.substr(0, first), crop.width, crop.height) &&
        ReadNumber(value.substr(first + 1, second - first - 1), 0u, kMaxNumber, crop.x) &&
        ReadNumber(value.substr(second + 1), 0u, kMaxNumber, crop.y)) {
        return crop;
    }
    throw BadInput("--crop is WxH+X+Y, such as 640x480+100+50, not '" + value + "'");
}

Rect Pixel(const std::string& value) {
    Rect pixel{0, 0, 1, 1};
    const size_t comma = value.find(',');
    if (comma != value.npos && ReadNumber(value.substr(0, comma), 0u, kMaxNumber, pixel.x) &&
        ReadNumber(value.substr(comma + 1), 0u, kMaxNumber, pixel.y)) {
        return pixel;
    }
    throw BadInput("--pixel is X,Y, such as 100,50, not '" + value + "'");
}

void SetLevels(WantedLevels& levels, const std::string& name, const std::string& value) {
    constexpr double kMaxGain = 65535;
    if (name == "black") {
        uint32_t black = 0;
        if (!ReadNumber(value, 0u, 65534u, black)) {
            throw BadInput("--black is a sample from 0 to 65534, not '" + value + "'");
        }
        levels.black = black;
    } else if (name == "gain") {
        levels.isGainAuto = value == "auto";
        if (!levels.isGainAuto && !ReadNumber(value, 0.0, kMaxGain, levels.gain)) {
            throw BadInput("--gain is auto or a number from 0 to 65535, not '" + value + "'");
        }
    } else {
        levels.isWhiteAuto = value == "auto";
        const size_t first = value.find(',');
        const size_t second = value.find(',', first + 1);
        if (!levels.isWhiteAuto &&
            (first == value.npos || second == value.npos ||
             !ReadNumber(value.substr(0, first), 0.0, kMaxGain, levels.white[0]) ||
             !ReadNumber(value.substr(first + 1, second - first - 1), 0.0, kMaxGain, levels.white[1]) ||
             !ReadNumber(value.substr(second + 1), 0.0, kMaxGain, levels.white[2]))) {
            throw BadInput("--white is auto or R,G,B, such as 1.9,1,1.6, not '" + value + "'");
        }
    }
}

void SetOption(Options& options, const std::string& name, const std::string& value) {
    Geometry& geometry = options.geometry;
    if (name == "size" && !zyt::ParseSize(value, geometry.width, geometry.height)) {
        throw BadInput("--size is WxH, each from 1 to 131072, such as 4000x3000, not '" + value + "'");
    }
    if (name == "format" && !(geometry.format = zyt::FindFormat(value))) {
        throw BadInput("unknown format '" + value + "'; --help lists them");
    }
    if (name == "stride") geometry.stride = Number(name, value);
    if (name == "slice-height") geometry.sliceHeight = Number(name, value);
    if (name == "matrix") options.isBt709 = Choice(name, value, {"bt601", "bt709"}) == 1;
    if (name == "range") options.isLimitedRange = Choice(name, value, {"full", "limited"}) == 1;
    options.hasYuvOption |= name == "matrix" || name == "range";
    if (name == "bayer") options.bayer = Choice(name, value, {"rggb", "grbg", "gbrg", "bggr"});
    if (name == "black" || name == "gain" || name == "white") SetLevels(options.levels, name, value);
    if (name == "white") options.hasWhite = true;
    if (name == "crop") options.crop = Crop(value);
    if (name == "scale") options.divisor = 1u << Choice(name, value, {"1/1", "1/2", "1/4", "1/8"});
    if (name == "pixel") options.pixel = Pixel(value);
    if (name == "diff") options.other = value;
    if (name == "histogram") options.histogram = value;
    options.wantsStatistics |= name == "stats";
    options.wantsJson |= name == "json";
}

void CheckNames(Options& options) {
    std::vector<std::string>& dumps = options.dumps;
    if (dumps.empty()) throw BadInput("wants a dump, and perhaps the name of a PNG; --help tells more");
    if (dumps.size() > 1 && IsPngName(dumps.back())) {
        if (dumps.size() > 2) throw BadInput("the name of a PNG goes with one dump; PNGs of several have their names");
        options.png = dumps.back();
        dumps.pop_back();
    }
    const bool isForOne = options.pixel || !options.other.empty() || !options.histogram.empty();
    if (dumps.size() > 1 && isForOne) throw BadInput("--pixel, --diff and --histogram go with one dump");
    if (!options.histogram.empty() && !IsPngName(options.histogram)) {
        throw BadInput(options.histogram + " is no name for a PNG, such as x.png");
    }
    if (!options.other.empty() && options.divisor > 1) throw BadInput("--diff does not go with --scale");
    if (options.hasWhite && !options.bayer) throw BadInput("--white goes with --bayer");
    if (options.wantsJson && options.other.empty()) options.wantsStatistics = true;
}

}  // namespace

bool IsPngName(const std::string& path) {
    std::string extension = std::filesystem::path(path).extension();
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    std::error_code error;
    return extension == ".png" || IsStandardOutput(path) || std::filesystem::is_other(path, error);
}

Options ParseOptions(int argc, char** argv) {
    static std::vector<option> known;
    for (const char* name : {"size", "format", "stride", "slice-height", "matrix", "range", "bayer", "white", "black",
                             "gain", "crop", "scale", "pixel", "diff", "histogram"}) {
        known.push_back({name, required_argument, nullptr, 0});
    }
    for (const char* name : {"stats", "json"}) known.push_back({name, no_argument, nullptr, 0});
    known.insert(known.end(), {{"help", no_argument, nullptr, 'h'}, {"version", no_argument, nullptr, 'v'}, {}});
    Options options;
    int index = 0;
    for (int found = 0; (found = getopt_long(argc, argv, "h", known.data(), &index)) != -1;) {
        if (found == '?') std::exit(2);  // getopt_long has reported the error
        if (found == 'h') std::exit(std::fputs(kUsage, stdout) < 0);
        if (found == 'v') std::exit(std::puts("zytview " ZYTVIEW_VERSION) < 0);
        SetOption(options, known[static_cast<size_t>(index)].name, optarg != nullptr ? optarg : "");
    }
    options.dumps.assign(argv + optind, argv + argc);
    CheckNames(options);
    return options;
}

Geometry Complete(const Options& options, const std::string& dump, const Geometry& another) {
    Geometry geometry = options.geometry;
    const zyt::DumpInfo info = zyt::ParseDumpName(dump);
    if (!geometry.format) geometry.format = info.format ? info.format : another.format;
    if (geometry.width == 0) {
        geometry.width = info.width > 0 ? info.width : another.width;
        geometry.height = info.width > 0 ? info.height : another.height;
    }
    if (geometry.width == 0) {
        throw BadInput("no size such as 4000x3000, each side from 1 to 131072, in the name of " + dump +
                       ", nor --size");
    }
    if (!geometry.format) throw BadInput("no format in the name of " + dump + ", nor --format");
    const zyt::FormatLayout& layout = *zyt::FindFormatLayout(*geometry.format);
    const std::string name = layout.name;
    if (options.bayer && layout.kind != zyt::FormatKind::kRaw) {
        throw BadInput("--bayer is for raw formats, and " + name + " is none");
    }
    if (options.hasYuvOption && !layout.HasChroma()) {
        throw BadInput("--matrix and --range are for YUV formats, and " + name + " is none");
    }
    return geometry;
}
