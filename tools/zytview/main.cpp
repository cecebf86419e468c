// A raw dump as a picture that a person can look at.
#include <getopt.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "dump.h"
#include "picture.h"
#include "pngfile.h"

namespace {

constexpr const char* kUsage =
    "usage: zytview [options] DUMP [PNG]\n"
    "\n"
    "Turns a raw dump into a PNG, DUMP's name with .png unless another is given, and prints its name. Size and format\n"
    "come from the dump's name, such as night_4000x3000_RawMipi10.raw, where no option tells them; of several the "
    "last.\n"
    "\n"
    "  --size WxH               pixels\n"
    "  --format NAME            YUV420NV12, YUV420NV21 (or NV12, NV21), YUV_P010 (or P010), Y16,\n"
    "                           RawMipi10, RawMipi12, RawMipi14, Raw10, Raw12, Raw14, Raw16\n"
    "  --stride BYTES           from row to row, for a file that kept the slack behind its rows\n"
    "  --slice-height ROWS      from the first plane to the second, for a file that kept the rows between them\n"
    "  --matrix bt601|bt709     of YUV formats; bt601 unless told otherwise\n"
    "  --range full|limited     of YUV formats; full unless told otherwise\n"
    "  --bayer rggb|grbg|gbrg|bggr\n"
    "                           raw formats in colour, without white balance; in grey unless told so\n"
    "  --crop WxH+X+Y           that part only, in the dump's pixels\n"
    "  --scale 1/1|1/2|1/4|1/8  each pixel the mean of a square of pixels\n"
    "  -h, --help, --version\n"
    "\n"
    "All but 8-bit YUV becomes a 16-bit PNG. Raw samples lie in its upper bits, so that a shift gives each back. Exit "
    "codes:\n"
    "0 for success, 1 when the PNG cannot be written, 2 for a mistake in what was given.\n";

constexpr uint32_t kMaxNumber = 999999999;

struct Rect {
    uint32_t x = 0;
    uint32_t y = 0;
    uint32_t width = 0;
    uint32_t height = 0;
};

struct Options {
    std::string dump;
    std::string png;
    Geometry geometry;
    Look look;
    bool hasYuvOption = false;
    Rect crop;  // the whole picture while it has no width
    uint32_t divisor = 1;
};

// The index of the word that was given.
uint32_t Choice(const std::string& option, const std::string& value, const std::vector<std::string>& words) {
    const auto found = std::find(words.begin(), words.end(), value);
    if (found != words.end()) return static_cast<uint32_t>(found - words.begin());
    std::string list;
    for (const std::string& word : words) list += (list.empty() ? "" : " or ") + word;
    throw BadInput("--" + option + " is " + list + ", not '" + value + "'");
}

uint32_t Number(const std::string& option, const std::string& value) {
    uint32_t number = 0;
    if (ParseNumber(value, kMaxNumber, number) && number > 0) return number;
    throw BadInput("--" + option + " is a number from 1 to " + std::to_string(kMaxNumber) + ", not '" + value + "'");
}

Rect Crop(const std::string& value) {
    Rect crop;
    const size_t first = value.find('+');
    const size_t second = value.find('+', first + 1);
    if (first != value.npos && second != value.npos && ParseSize(value.substr(0, first), crop.width, crop.height) &&
        ParseNumber(value.substr(first + 1, second - first - 1), kMaxNumber, crop.x) &&
        ParseNumber(value.substr(second + 1), kMaxNumber, crop.y)) {
        return crop;
    }
    throw BadInput("--crop is WxH+X+Y, such as 640x480+100+50, not '" + value + "'");
}

void SetOption(Options& options, const std::string& name, const std::string& value) {
    Geometry& geometry = options.geometry;
    if (name == "size" && !ParseSize(value, geometry.width, geometry.height)) {
        throw BadInput("--size is WxH, such as 4000x3000, not '" + value + "'");
    }
    if (name == "format" && (geometry.layout = FindFormat(value)) == nullptr) {
        throw BadInput("unknown format '" + value + "'; --help lists them");
    }
    if (name == "stride") geometry.stride = Number(name, value);
    if (name == "slice-height") geometry.sliceHeight = Number(name, value);
    if (name == "matrix") options.look.isBt709 = Choice(name, value, {"bt601", "bt709"}) == 1;
    if (name == "range") options.look.isLimitedRange = Choice(name, value, {"full", "limited"}) == 1;
    if (name == "bayer") options.look.bayer = Choice(name, value, {"rggb", "grbg", "gbrg", "bggr"});
    if (name == "crop") options.crop = Crop(value);
    if (name == "scale") options.divisor = 1u << Choice(name, value, {"1/1", "1/2", "1/4", "1/8"});
    options.hasYuvOption |= name == "matrix" || name == "range";
}

Options Parse(int argc, char** argv) {
    static const option kOptions[] = {
        {"size", required_argument, nullptr, 0},   {"format", required_argument, nullptr, 0},
        {"stride", required_argument, nullptr, 0}, {"slice-height", required_argument, nullptr, 0},
        {"matrix", required_argument, nullptr, 0}, {"range", required_argument, nullptr, 0},
        {"bayer", required_argument, nullptr, 0},  {"crop", required_argument, nullptr, 0},
        {"scale", required_argument, nullptr, 0},  {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'v'},    {},
    };
    Options options;
    int index = 0;
    for (int found = 0; (found = getopt_long(argc, argv, "h", kOptions, &index)) != -1;) {
        if (found == '?') std::exit(2);  // getopt_long has said why
        if (found == 'h') std::exit(std::fputs(kUsage, stdout) < 0);
        if (found == 'v') std::exit(std::puts("zytview " ZYTVIEW_VERSION) < 0);
        SetOption(options, kOptions[index].name, optarg);
    }
    if (argc - optind < 1 || argc - optind > 2) {
        throw BadInput("wants a dump, and perhaps the name of a PNG; --help tells more");
    }
    options.dump = argv[optind];
    options.png = argc - optind == 2 ? std::string(argv[optind + 1])
                                     : std::filesystem::path(options.dump).replace_extension(".png").string();
    return options;
}

// What is still missing or does not go together once the file's name is known.
void Complete(Options& options) {
    Geometry& geometry = options.geometry;
    FillFromName(geometry, options.dump);
    if (geometry.width == 0)
        throw BadInput("no size such as 4000x3000 in the name of " + options.dump + ", nor --size");
    if (geometry.layout == nullptr) throw BadInput("no format in the name of " + options.dump + ", nor --format");
    const std::string name = geometry.layout->name;
    if (options.look.bayer && geometry.layout->kind != zyt::FormatKind::kRaw) {
        throw BadInput("--bayer is for raw formats, and " + name + " is none");
    }
    if (options.hasYuvOption && !geometry.layout->HasChroma()) {
        throw BadInput("--matrix and --range are for YUV formats, and " + name + " is none");
    }
    // Two dumps on the command line must not cost the second one its content.
    const std::filesystem::path png = options.png;
    std::error_code error;
    const bool isDevice = std::filesystem::is_other(png, error);
    if (png.extension() != ".png" && !isDevice) throw BadInput(options.png + " is no name for a PNG, such as x.png");
    if (std::filesystem::equivalent(options.dump, png, error)) throw BadInput("the PNG would replace the dump");
}

void CheckCrop(Rect& crop, const Dump& dump) {
    if (crop.width == 0) crop = {0, 0, dump.Width(), dump.Height()};
    if (uint64_t{crop.x} + crop.width <= dump.Width() && uint64_t{crop.y} + crop.height <= dump.Height()) return;
    throw BadInput("the crop reaches out of the picture's " + std::to_string(dump.Width()) + "x" +
                   std::to_string(dump.Height()));
}

// Writes the part of the picture that is wanted, each pixel the mean of divisor * divisor, or of what is left at the
// end.
void Write(Picture& picture, const Rect& crop, uint32_t divisor, const std::string& path) {
    const uint32_t channels = picture.Channels();
    const uint32_t width = (crop.width + divisor - 1) / divisor;
    const uint32_t height = (crop.height + divisor - 1) / divisor;
    std::vector<uint16_t> row(size_t{picture.Width()} * channels);
    std::vector<uint32_t> sums(size_t{width} * channels);
    WritePng(path, {width, height, channels, picture.Depth()}, [&](uint32_t y, uint16_t* values) {
        const uint32_t rows = std::min(divisor, crop.height - y * divisor);
        std::fill(sums.begin(), sums.end(), 0);
        for (uint32_t i = 0; i < rows; ++i) {
            picture.ReadRow(crop.y + y * divisor + i, row.data());
            const uint16_t* next = &row[size_t{crop.x} * channels];
            for (uint32_t x = 0; x < crop.width; ++x) {
                for (uint32_t channel = 0; channel < channels; ++channel)
                    sums[size_t{x / divisor} * channels + channel] += *next++;
            }
        }
        for (uint32_t x = 0; x < width; ++x) {
            const uint32_t pixels = rows * std::min(divisor, crop.width - x * divisor);
            for (uint32_t channel = 0; channel < channels; ++channel) {
                const size_t i = size_t{x} * channels + channel;
                values[i] = Mean(sums[i], pixels);
            }
        }
    });
}

void Run(Options options) {
    Complete(options);
    const Dump dump(options.dump, options.geometry);
    CheckCrop(options.crop, dump);
    Picture picture(dump, options.look);
    Write(picture, options.crop, options.divisor, options.png);
    if (dump.Width() < options.geometry.width) {
        std::fprintf(stderr, "zytview: %s holds the left %u of %u columns, as the library dumps Y16\n",
                     options.dump.c_str(), dump.Width(), options.geometry.width);
    }
    if (picture.ExcessiveSamples() > 0) {
        std::fprintf(stderr, "zytview: samples of more than %u bits, shown as the largest value: %llu\n",
                     dump.Layout().bits, static_cast<unsigned long long>(picture.ExcessiveSamples()));
    }
    std::puts(options.png.c_str());
}

}  // namespace

int main(int argc, char** argv) {
    try {
        Run(Parse(argc, argv));
    } catch (const BadInput& bad) {
        std::fprintf(stderr, "zytview: %s\n", bad.what());
        return 2;
    } catch (const WriteError& failure) {
        std::fprintf(stderr, "zytview: %s\n", failure.what());
        return 1;
    }
    return 0;
}
