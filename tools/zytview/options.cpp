#include "options.h"

#include <getopt.h>
#include <strings.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <sstream>

#include "nodekit/dumpname.h"
#include "outputfile.h"
#include "text.h"

namespace {

constexpr const char* kUsage = R"(usage: zytview [options] DUMP [PNG]
       zytview [options] DUMP...

Converts a raw dump to a PNG and prints the PNG's name: DUMP's name with .png unless PNG is given; - is the
standard output. Size and format are taken from the options, otherwise from the dump's name, such as
night_4000x3000_RawMipi10.raw; the last size and the last format in the name win.

Layout of the dump
  --size WxH               in pixels, each side from 1 to 131072
  --format NAME            YUV420NV12, YUV420NV21 (or NV12, NV21), YUV_P010 (or P010), Y16,
                           RawMipi10, RawMipi12, RawMipi14, Raw10, Raw12, Raw14, Raw16
  --stride BYTES           bytes from row to row, for a file with padded rows
  --slice-height ROWS      rows from the first plane to the second, for a file with padded planes
  --matrix bt601|bt709     for YUV formats; default: bt601
  --range full|limited     for YUV formats; default: full

Picture
  --bayer ORDER            rggb, grbg, gbrg or bggr: shows raw formats in colour; default: grey
  --white R,G,B|auto       colour gains, with --bayer; auto makes the picture grey on average
  --black N                sample shown as black; default: 0, or 16 of 255 in the limited range
  --gain X|auto            brightness factor; auto makes the lightest thousandth of the samples white, and the
                           darkest thousandth black unless --black is given
  --curve none|srgb        encodes raw formats and Y16, which are linear, as a screen expects; default: none
  --crop WxH+X+Y           shows a part, in pixels of the dump
  --scale 1/1|1/2|1/4|1/8  each pixel is the mean of a square of pixels

Numbers; with these a picture is written only when PNG is given
  --stats                  minimum, maximum, mean, standard deviation and clipped samples (0, or the format's
                           largest value or more) of each channel; column,row names a channel without --bayer
  --pixel X,Y              the samples at and around a pixel; - where the file has no chroma
  --diff OTHER             differences from another dump of the same size and format: DUMP less OTHER; PNG shows
                           them, the largest white and all others at least dark grey
  --tolerance N            differences up to N do not count as differing, but in the largest, mean and PSNR
  --profile rows|columns   the mean of each row or column less the median of its nearest four of the same colour, and
                           the outliers: beyond one percent of the mean and five spreads (a spread is 1.4826 times the
                           median of the amounts). PNG shows a curve for each channel
  --histogram PNG          histogram of the samples; heights are square roots, clipped samples are red
  --npy FILE               the samples in NumPy's format: height x width, or the planes Y, U and V one by one
  --json                   prints numbers as JSON, one object per line; by default those of --stats
  -h, --help, --version

8-bit YUV becomes an 8-bit PNG, every other format a 16-bit PNG. Raw samples are in the upper bits, so a right
shift restores them. Of several dumps an invalid one is reported, and the others are processed.
Exit codes: 0 for success, 1 when writing failed, 2 for an invalid argument or dump; with --diff 1 for a difference
and 2 for any failure.
)";

constexpr uint32_t kMaxNumber = 999999999;

// Parses text as a number from least to largest. Returns false, and leaves number unchanged, for any other text.
template <typename Result>
bool ReadNumber(std::string_view text, uint32_t least, uint32_t largest, Result& number) {
    uint32_t value = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || stop != end || !(value >= least && value <= largest)) return false;
    number = value;
    return true;
}

// Like above for a fraction, which from_chars of libc++ 14 does not support.
bool ReadFraction(const std::string& text, double& number) {
    if (text.find_first_not_of("0123456789.e-") != std::string::npos) return false;
    char* stop = nullptr;
    const double value = std::strtod(text.c_str(), &stop);
    if (text.empty() || *stop != '\0' || !(value >= 0 && value <= 65535)) return false;
    number = value;
    return true;
}

// Returns the parts of text between separators, one more than there are separators; missing ones are empty.
std::vector<std::string> Split(std::string text, const std::string& separators) {
    std::vector<std::string> parts;
    for (const char separator : separators) {
        const size_t at = std::min(text.find(separator), text.size());
        parts.push_back(text.substr(0, at));
        text.erase(0, at + 1);
    }
    parts.push_back(text);
    return parts;
}

// Sets the index of value among words, which are separated by '|'.
template <typename Index>
bool Choose(const std::string& value, const std::string& words, Index& index) {
    std::istringstream stream(words);
    uint32_t i = 0;
    for (std::string word; std::getline(stream, word, '|'); ++i) {
        if (word != value) continue;
        index = i;
        return true;
    }
    return false;
}

bool SetWhite(Look& look, const std::string& value) {
    look.isWhiteAuto = value == "auto";
    const std::vector<std::string> gains = Split(value, ",,");
    return look.isWhiteAuto || (ReadFraction(gains[0], look.white[0]) && ReadFraction(gains[1], look.white[1]) &&
                                ReadFraction(gains[2], look.white[2]));
}

// Sets the corner of a rectangle.
bool SetCorner(Rect& rect, const std::string& x, const std::string& y) {
    return ReadNumber(x, 0, kMaxNumber, rect.x) && ReadNumber(y, 0, kMaxNumber, rect.y);
}

bool SetCrop(Rect& crop, const std::string& value) {
    const std::vector<std::string> parts = Split(value, "++");
    return zyt::ParseSize(parts[0], crop.width, crop.height) && SetCorner(crop, parts[1], parts[2]);
}

bool SetPixel(Rect& pixel, const std::string& value) {
    const std::vector<std::string> parts = Split(value, ",");
    pixel.width = pixel.height = 1;
    return SetCorner(pixel, parts[0], parts[1]);
}

// Returns true when the path has a PNG's name or is a device, a pipe or the standard output.
bool IsPngName(const std::string& path) {
    const std::string extension = std::filesystem::path(path).extension();
    std::error_code error;
    return strcasecmp(extension.c_str(), ".png") == 0 || IsStandardOutput(path) ||
           std::filesystem::is_other(path, error);
}

using Value = const std::string&;

struct Known {
    const char* name;
    const char* argument;                        // null when it has none
    bool (*set)(Options& options, Value value);  // returns false for an invalid value
};

const Known kKnown[] = {
    {"size", "WxH, each from 1 to 131072, such as 4000x3000",
     [](Options& o, Value v) { return zyt::ParseSize(v, o.geometry.width, o.geometry.height); }},
    {"format", "a name that --help lists",
     [](Options& o, Value v) { return (o.geometry.format = zyt::FindFormat(v)).has_value(); }},
    {"stride", "a number from 1 to 999999999",
     [](Options& o, Value v) { return ReadNumber(v, 1, kMaxNumber, o.geometry.stride); }},
    {"slice-height", "a number from 1 to 999999999",
     [](Options& o, Value v) { return ReadNumber(v, 1, kMaxNumber, o.geometry.sliceHeight); }},
    {"matrix", "bt601|bt709", [](Options& o, Value v) { return Choose(v, "bt601|bt709", o.look.isBt709); }},
    {"range", "full|limited", [](Options& o, Value v) { return Choose(v, "full|limited", o.look.isLimitedRange); }},
    {"bayer", "rggb|grbg|gbrg|bggr",
     [](Options& o, Value v) { return Choose(v, "rggb|grbg|gbrg|bggr", o.look.bayer); }},
    {"white", "auto or R,G,B, such as 1.9,1,1.6", [](Options& o, Value v) { return SetWhite(o.look, v); }},
    {"black", "a sample from 0 to 65534",
     [](Options& o, Value v) { return o.look.isBlackGiven = ReadNumber(v, 0, 65534, o.look.black); }},
    {"gain", "auto or a number from 0 to 65535",
     [](Options& o, Value v) { return (o.look.isGainAuto = v == "auto") || ReadFraction(v, o.look.gain); }},
    {"curve", "none|srgb", [](Options& o, Value v) { return Choose(v, "none|srgb", o.look.isSrgb); }},
    {"crop", "WxH+X+Y, such as 640x480+100+50", [](Options& o, Value v) { return SetCrop(o.crop, v); }},
    {"scale", "1/1|1/2|1/4|1/8", [](Options& o, Value v) { return Choose(v, "1/1|1/2|1/4|1/8", o.scale); }},
    {"pixel", "X,Y, such as 100,50", [](Options& o, Value v) { return SetPixel(o.pixel, v); }},
    {"diff", "a dump", [](Options& o, Value v) { return !(o.other = v).empty(); }},
    {"tolerance", "a number from 0 to 65535", [](Options& o, Value v) { return ReadNumber(v, 0, 65535, o.tolerance); }},
    {"profile", "rows|columns", [](Options& o, Value v) { return Choose(v, "rows|columns", o.ofColumns); }},
    {"histogram", "a name for a PNG, such as x.png", [](Options& o, Value v) { return IsPngName(o.histogram = v); }},
    {"npy", "a file, or - for the standard output", [](Options& o, Value v) { return !(o.npy = v).empty(); }},
    {"stats", nullptr, nullptr},
    {"json", nullptr, nullptr},
};

// Takes the PNG from the dumps, and throws BadInput for names and options that exclude each other.
void Check(Options& options) {
    std::vector<std::string>& dumps = options.dumps;
    const auto refuse = [](bool isRefused, const std::string& why) {
        if (isRefused) throw BadInput(why);
    };
    refuse(dumps.empty(), "no dump is given; --help tells more");
    refuse(std::count(dumps.begin(), dumps.end(), "") > 0, "the name of a dump or PNG is empty");
    if (dumps.size() > 1 && IsPngName(dumps.back())) {
        options.png = dumps.back();
        dumps.pop_back();
    }
    const auto outputs = {options.png, options.histogram, options.npy};
    refuse(std::count_if(outputs.begin(), outputs.end(), IsStandardOutput) > 1,
           "only one file can be written to the standard output");
    for (const char* name : {"pixel", "diff", "profile", "histogram", "npy"}) {
        refuse(dumps.size() > 1 && options.Has(name), Text("--%s is for one dump", name));
    }
    refuse(dumps.size() > 1 && !options.png.empty(), "the name of a PNG is for one dump");
    for (const char* name : {"matrix", "range", "white", "black", "gain", "curve", "scale"}) {
        refuse(options.Has(name) && !options.ShowsDump(),
               Text("--%s is for a picture of the dump, and none is written", name));
    }
    refuse(options.Has("diff") && options.Has("profile"), "--diff and --profile exclude each other");
    refuse(options.Has("tolerance") && !options.Has("diff"), "--tolerance needs --diff");
    refuse(options.Has("white") && !options.look.bayer, "--white needs --bayer");
}

}  // namespace

bool Options::ShowsDump() const {
    for (const char* numbers : {"stats", "json", "pixel", "histogram", "npy"}) {
        if (Has(numbers) && png.empty()) return false;
    }
    return !Has("diff") && !Has("profile");
}

Options ParseOptions(int argc, char** argv) {
    std::vector<option> known;
    for (const Known& one : kKnown) {
        known.push_back({one.name, one.argument == nullptr ? no_argument : required_argument, nullptr, 0});
    }
    known.insert(known.end(), {{"help", no_argument, nullptr, 'h'}, {"version", no_argument, nullptr, 'v'}, {}});
    Options options;
    int index = 0;
    for (int found = 0; (found = getopt_long(argc, argv, "h", known.data(), &index)) != -1;) {
        if (found == '?') std::exit(2);  // getopt_long has reported the error
        if (found != 0) {
            Print(stdout, found == 'h' ? kUsage : "zytview " ZYTVIEW_VERSION "\n");
            std::exit(0);
        }
        const Known& one = kKnown[index];
        options.given.insert(one.name);
        if (one.argument == nullptr || one.set(options, optarg)) continue;
        throw BadInput(Text("--%s is %s, not '%s'", one.name, one.argument, optarg));
    }
    options.dumps.assign(argv + optind, argv + argc);
    Check(options);
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
    const auto refuse = [&](const char* option, bool isRefused, const char* kinds) {
        if (!isRefused || !options.Has(option)) return;
        throw BadInput(dump + Text(": --%s is for %s, not for %s", option, kinds, layout.name));
    };
    refuse("bayer", layout.kind != zyt::FormatKind::kRaw, "raw formats");
    refuse("matrix", !layout.HasChroma(), "YUV formats");
    refuse("range", !layout.HasChroma(), "YUV formats");
    refuse("curve", layout.HasChroma(), "raw formats and Y16");
    return geometry;
}
