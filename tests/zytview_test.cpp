// Compares zytview with ffmpeg, which reads most of the formats and all of zytview's pictures.
#include <algorithm>
#include <array>
#include <random>
#include <sstream>

#include "nodekit/dumpname.h"
#include "nodekit/rawpixels.h"
#include "support.h"

using testing::HasSubstr;
using zyttest::ChildResult;
using zyttest::ReadFile;

namespace {

using Samples = std::vector<unsigned int>;

constexpr unsigned int kWidth = 48, kHeight = 32;

// Returns the bytes of a row, or of an image whose rows have no padding.
std::string Pack(const Samples& samples, ZYTFormat format = ZYT_FORMAT_RAW16) {
    const std::vector<uint16_t> row(samples.begin(), samples.end());
    const auto width = static_cast<uint32_t>(row.size());
    std::string bytes(static_cast<size_t>(zyt::FindFormatLayout(format)->RowBytes(width)), 0);
    zyt::PackRow(format, row.data(), width, reinterpret_cast<unsigned char*>(bytes.data()));
    return bytes;
}

// Parses numbers separated by blanks.
Samples Numbers(const std::string& text) {
    std::istringstream words(text);
    return {std::istream_iterator<unsigned int>(words), {}};
}

class ZytView : public testing::Test {
protected:
    static ChildResult Run(const std::string& arguments) {
        return zyttest::RunBuilt("tools/zytview/zytview " + arguments);
    }

    // Returns the values that ffmpeg reads, of 8 or 16 bits.
    Samples Decode(const std::string& arguments, bool isWide) {
        const std::string out = m_dir / "decoded", command = "ffmpeg -v error -y -filter_threads 1 ";
        const ChildResult result = zyttest::RunCommand(command + arguments + " -f rawvideo " + out);
        EXPECT_EQ(result.exitCode, 0) << arguments << result.output;
        std::istringstream file(ReadFile(out));
        Samples values;
        for (int byte; (byte = file.get()) != EOF;) values.emplace_back(isWide ? byte << 8 | file.get() : byte);
        return values;
    }

    std::string NewDump(const std::string& name, const std::string& content) {
        zyttest::WriteFile(m_dir / name, content);
        return m_dir / name;
    }

    // Creates the dump of a row. Returns zytview's arguments, in which @ is the dumps' directory, and the expectation.
    std::pair<std::string, std::string> Prepare(const std::string& row) {
        std::vector<std::string> fields;
        std::istringstream text(row);
        for (std::string field; std::getline(text, field, '|');) fields.push_back(field);
        const Samples numbers = Numbers(fields[2].substr(1));
        NewDump(fields[0], fields[2][0] == 'w' ? Pack(numbers) : std::string(numbers.begin(), numbers.end()));
        std::string arguments = fields[1] + " @" + fields[0];
        for (size_t at = 0; (at = arguments.find('@', at)) != arguments.npos;) arguments.replace(at, 1, m_dir / "");
        return {arguments, fields[3]};
    }

    Samples RandomSamples(size_t count, unsigned int least, unsigned int largest) {
        Samples samples(count);
        for (unsigned int& sample : samples) sample = std::uniform_int_distribution(least, largest)(m_random);
        return samples;
    }

    zyttest::TempDir m_dir;
    const std::string m_png = m_dir / "view.png";
    std::mt19937 m_random{7};
};

}  // namespace

TEST_F(ZytView, ShowsColoursAsFfmpegDoes) {
    std::vector<std::array<std::string, 4>> looks;  // format, zytview's options, ffmpeg's
    for (const std::string order : {"rggb", "grbg", "gbrg", "bggr"}) {
        looks.push_back({"Raw16", "--bayer " + order, "bayer_" + order + "16le", "-sws_flags accurate_rnd"});
        for (const auto& [format, peer] : {std::pair("NV12", "nv12"), {"NV21", "nv21"}, {"P010", "p010le"}}) {
            const std::string matrix = order[0] == 'g' ? "bt709" : "bt601";  // each matrix with each range
            const std::string range = order.find('r') < 2 ? "full" : "limited";
            const std::string scale = "scale=in_color_matrix=" + matrix + ":in_range=" + range;
            looks.push_back({format, "--matrix " + matrix + " --range " + range, peer,
                             "-sws_flags neighbor+accurate_rnd+full_chroma_int+full_chroma_inp -vf " + scale});
        }
    }
    for (const auto& [format, options, peerFormat, peerOptions] : looks) {
        const ZYTFormat kind = *zyt::FindFormat(format);
        const bool isBayer = kind == ZYT_FORMAT_RAW16, isWide = kind == ZYT_FORMAT_YUV_P010 || isBayer;
        const unsigned int unit = 1u << (zyt::FindFormatLayout(kind)->bits - 8);
        const Samples samples = RandomSamples(kWidth * kHeight * (isBayer ? 2 : 3) / 2, 16 * unit, 235 * unit);
        const std::string dump = NewDump("c_48x32_" + format + ".raw", Pack(samples, kind));
        const std::string input = "-f rawvideo -s 48x32 -pix_fmt " + peerFormat + " -i " + dump + " " + peerOptions;
        EXPECT_EQ(Run(options + " " + dump + " " + m_png).output, m_png + "\n");
        const Samples seen = Decode("-i " + m_png, isWide);
        const Samples peer = Decode(input + " -pix_fmt " + (isWide ? "rgb48be" : "rgb24"), isWide);
        ASSERT_EQ(seen.size(), kWidth * kHeight * 3);
        for (size_t i = 0; i < seen.size(); ++i) {
            // For Bayer, ffmpeg truncates means and copies pixels at the edges. It reduces the 10 bits of P010.
            const size_t x = i / 3 % kWidth, y = i / 3 / kWidth;
            if (isBayer && (x < 2 || y < 2 || x >= kWidth - 2 || y >= kHeight - 2)) continue;
            ASSERT_NEAR(seen[i], peer[i], isBayer || !isWide ? 1 : 256) << input << " " << i;
        }
    }
}

// Rows of: a dump's name, options, the dump's bytes (b) or 16-bit words (w), all values of the picture.
constexpr const char* kShown[] = {
    "half_4x2_Y16.raw||b 1 2 3 4 5 6 7 8|513 1027 1541 2055",
    "high_3x1_Raw10.raw||w 100 1024 1023|6406 65535 65535",
    "cut_3x1_RawMipi10.raw||b 1 2 255|256 512 65343",
    "slack_1x2_Raw16.raw|--stride 5|b 49 50 9 9 9 51 52|12849 13363",
    // At an edge only existing neighbours count.
    "edge_3x1_Raw16.raw|--bayer rggb|w 100 200 300|100 200 100 200 200 200 300 200 300",
    "edge_3x3_Raw16.raw|--bayer gbrg|w 10 200 35 400 51 600 72 800 99|400 10 200 500 32 200 600 35 200 400 44 500 500 "
    "51 500 600 62 500 400 72 800 500 74 800 600 99 800",
    // A cropped picture has the colours of the whole picture, also at its edges.
    "edge_3x3_Raw16.raw|--bayer gbrg --crop 2x1+1+1|w 10 200 35 400 51 600 72 800 99|500 51 500 600 62 500",
    // An odd column or row has its neighbour's chroma, unless the file has chroma for the row.
    "odd_3x1_NV12.raw|--size 3x3 --crop 2x1+1+2|b 128 128 128 128 128 128 128 128 128 255 128 1|128 84 255 128 84 255",
    "odd_3x3_NV12.raw|--crop 1x1+2+2|b 128 128 128 128 128 128 128 128 128 255 128 1 128 255 1|255 37 128",
    "dot_1x1_NV12.raw||b 128|128 128 128",
    // The chroma ends with the last pixel, with half of the first plane's bytes, or with half of its rows.
    "s_4x1_NV21.raw|--size 2x2 --stride 3 --slice-height 3|b 1 2 0 3 4 0 0 0 0 128 128|1 1 1 2 2 2 3 3 3 4 4 4",
    "s_4x1_NV21.raw|--size 2x2 --stride 3 --slice-height 3|b 1 2 0 3 4 0 0 0 0 128 128 0 0|1 1 1 2 2 2 3 3 3 4 4 4",
    "s_4x1_NV21.raw|--size 2x2 --stride 3 --slice-height 3|b 1 2 0 3 4 0 0 0 0 128 128 0 0 0 0|1 1 1 2 2 2 3 3 3 4 4 4",
    // In a scaled picture the last column and row are the mean of the existing pixels.
    "scale_3x3_Y16.raw|--scale 1/2|w 10 20 31 30 41 50 61 70 90|25 41 66 90",
    "scale_4x4_Y16.raw|--scale 1/2 --crop 2x2+1+2|w 9 9 9 9 9 9 9 9 9 1 2 9 9 3 4 9|3",
    "night_2x3_Raw12.raw|--size 3X1 --format raw16|w 1 2 3|1 2 3",
    "l_5x1_Y16.raw|--gain auto --black 500 --crop 4x1+1+0|w 0 1000 1000 2000 9999|3450 3450 10349 65535",
    "l_2x2_NV12.raw|--black 10 --gain 2|b 10 60 110 20 128 128|0 0 0 100 100 100 200 200 200 20 20 20",
    "l_2x2_NV12.raw|--range limited --gain auto|b 10 60 110 20 128 128|0 0 0 128 128 128 255 255 255 26 26 26",
    "c_6x1_Raw10.raw|--black 1 --gain 2.5 --curve srgb|w 0 2 3 256 512 1023|0 2069 3927 53169 65535 65535",
    // Saturated samples are white; red and blue would be brighter than green otherwise.
    "w_4x2_Raw10.raw|--black 64 --bayer rggb --white auto --gain auto|w 264 464 1023 1023 464 364 1023 1023|"
    "16026 27335 22129 40781 27335 22129 65535 52802 43832 65535 65535 65535 "
    "16026 27335 22129 40781 40068 22129 65535 65535 43832 65535 65535 65535",
    // Red 100, green 200 and 400, blue 600.
    "w_2x2_Raw10.raw|--black 64 --bayer rggb --white 3,1,0.5 --gain auto|w 164 264 464 664|"
    "49151 49152 49151 49151 32768 49151 49151 65535 49151 49151 49152 49151",
};

TEST_F(ZytView, ShowsEachValue) {
    for (const char* row : kShown) {
        const auto [arguments, expected] = Prepare(row);
        EXPECT_EQ(Run(arguments + " " + m_png).exitCode, 0) << row;
        const bool isWide = arguments.find("_NV") == std::string::npos;
        EXPECT_EQ(Decode("-i " + m_png, isWide), Numbers(expected)) << row;
    }
}

// The last field is part of the output.
constexpr const char* kTold[] = {
    "n_2x2_NV21.raw|--json|b 1 2 3 4 100 50|"
    R"("max": 4, "mean": 2.500000, "stddev": 1.118034, "clipped_low": 0, "clipped_high": 0}, "U": {"samples": 1, "min")",
    "n_2x2_NV21.raw|--stats --crop 1x1+1+1|b 1 2 3 4 100 50|\nU             50      50      50.00 ",
    "n_4x2_Raw10.raw|--stats --crop 3x2+1+0|w 0 100 10 1023 7 512 9 513|"
    "\n1,0          100    1023     561.50     461.50         0 (  0.00%)         1 ( 50.00%)"
    "\n0,1            9       9 ",
    "n_8x2_Y16.raw|--stats|b 0 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15|left 4 of 8 columns",
    "n_4x2_Raw10.raw|--pixel 2,1 --bayer grbg|w 0 100 10 1023 7 512 9 513|B at 2,1 is 9\n"
    "              0       1       2       3\n      0      0     100      10    1023\n      1      7     512      [9] "
    " ",
    "n_9x1_Y16.raw|--histogram @bars.PNG|w 0 0 650 650 650 650 6500 65535 65535|bars.PNG\n",
    // The red 1024 is cut, and the green 1025 is not.
    "n_2x1_Raw10|--black 4 --bayer rggb --white 2,1,1|w 1024 1025|more than 10 bits, shown as the largest value: 1\n",
    "n_3x3_NV21.raw|--pixel 1,1|b 0 1 2 3 4 5 6 7 8 60 50 9|"
    "U at 0,0 is 50\n              0       2\n      0    [50]      -\n      2      -       -\n",
    "n_3x3_NV12.raw|--pixel 2,2 --json|b 0 1 2 3 4 5 6 7 8 50 60 9|"
    R"(NV12.raw", "x": 2, "y": 2, "channel": "Y", "samples": {"Y": 8, "U": null, "V": null}})",
    "n_5x2_Y16.raw|--profile columns|w 100 101 160 100 100 100 101 100 100 100|"
    "\nY            106.20      0.741         1\nY column 2: mean 130.00, +30.00 from its neighbours\n",
    "n_2x6_Raw10.raw|--profile rows --json|w 1 2 3 4 3 4 3 4 1 5 9 9|"
    R"("0,1": {"mean": 5.000000, "spread": 4.447800, "outliers": [], "at": [1, 3, 5], "means": [3.000000, 3.000000, )"
    R"(9.000000], "differences": [-3.000000, -3.000000, 6.000000]})",
    "\xff\"_2x1_Y16.raw|--json|w 1 2|\uFFFD\\\"_2x1_Y16.raw\", \"width\": 2",
    "d_4x4_Raw10.raw|--diff @d_4x4_Raw10.raw --bayer grbg|w 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16|"
    "\nGr                 0 (  0.00%)         0     +0.00             -       inf\nR ",
    // 10 * log10(1023^2 * 4 / (40^2 + 60^2)).
    "e_4x4_Raw10.raw|--diff @d_4x4_Raw10.raw --bayer grbg --json|w 1 2 3 4 45 6 67 68 9 10 11 12 13 74 15 16|"
    R"("largest": 0, "mean": 0.000000, "at": null, "psnr": null}, "B": {"samples": 4, "differing": 2, "largest": 60, )"
    R"("mean": 25.000000, "at": [2, 1], "psnr": 29.058079}, "Gb": {)",
    "d_4x4_Raw10.raw|--diff @e_4x4_Raw10.raw --tolerance 60|w 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16|"
    "\n0,1                0 (  0.00%)        60    -25.00           2,1     29.06",
    // Bits below the sample of P010.
    "n_1x1_P010.raw|--stats|w 64|channel",
    "zz_1x1_P010.raw|--diff @n_1x1_P010.raw|w 65|\nY                  1 (100.00%)         0     +0.00           0,0  ",
    "y_2x4_NV12.raw|--stats|b 1 1 1 1 1 1 1 1 5 5 5 5|channel",
    "z.bin|--diff @y_2x4_NV12.raw --size 2x4 --format nv12 --crop 2x3+0+1|b 1 1 1 1 1 1 1 1 5 7 5 5|"
    "\nV                  1 ( 50.00%)         2     +1.00           0,0     45.12\n",
};

TEST_F(ZytView, TellsNumbers) {
    for (const char* row : kTold) {
        const auto [arguments, expected] = Prepare(row);
        const bool isDifferent = row[0] == 'e' || row[0] == 'z';
        const ChildResult result = Run(arguments + (isDifferent ? " " + m_png + row[0] + ".png" : ""));
        EXPECT_EQ(result.exitCode, isDifferent ? 1 : 0) << arguments << result.output;
        EXPECT_THAT(result.output, HasSubstr(expected));
    }
    EXPECT_EQ(Decode("-i " + m_png + "z.png", false), Numbers("255 255 0 0 0 0"));
    EXPECT_EQ(Decode("-i " + m_png + "e.png", false), Numbers("0 0 0 0 191 0 255 255 0 0 0 0 0 255 0 0"));
    EXPECT_EQ(ReadFile(m_dir / "n_2x2_NV21.png"), "") << "no picture was asked for";
    // The bars: clipped samples in the margins, between them a column per 64 values; heights are square roots.
    const Samples drawn = Decode("-i " + (m_dir / "bars.PNG -pix_fmt gray"), false);
    for (const auto& [x, height] : {std::pair(24, 114), {36, 0}, {46, 160}, {137, 80}, {138, 0}, {1062, 114}}) {
        int seen = 0;
        for (int y = 36; y < 196; ++y) seen += drawn[static_cast<size_t>(y * 1096 + x)] > 60;
        EXPECT_EQ(seen, height) << x;
    }
    // The second darkest and second lightest of 1536 samples become black and white.
    Samples many(kWidth * kHeight, 500);
    std::copy_n(Samples{0, 1000, 1000, 100, 100, 1023}.begin(), 6, &many[40]);
    EXPECT_THAT(Run("--gain auto " + NewDump("g_48x32_Raw10.raw", Pack(many)) + " " + m_png).output,
                HasSubstr("g_48x32_Raw10.raw: --black 100 --gain 1.137\n"));
}

// The last field is part of the only line.
constexpr const char* kRefused[] = {
    "x_4x3_NV12.raw||b 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17|expected 16 or 20 bytes for 4x3 YUV420NV12, found 17",
    "x_2x1_Raw10.raw||b 1 2 3 4 5|expected 4 bytes for 2x1 Raw10, found 5; if the file is padded, give --stride",
    "x_2x1_Raw10.raw|--stride 3|w 1 2|x_2x1_Raw10.raw: a stride of 3 is less than the 4 bytes of a row",
    "x_2x1_Raw10.raw|--stride 8x|w 1 2|--stride is a number from 1",
    "x_2x1_Raw10.raw|--size 4x131073|w 1 2|--size is WxH, each from 1 to 131072",
    "x_2x1_Raw10.raw|--crop 2x1+1+0|w 1 2|x_2x1_Raw10.raw: the crop is outside the picture's 2x1",
    "x_2x1_Raw10.raw|--pixel 1,1|w 1 2|x_2x1_Raw10.raw: the pixel is outside the picture's 2x1",
    "x_2x1_Raw10.raw|--white auto|w 1 2|--white needs --bayer",
    "x_2x1_Raw10.raw|--gain nan|w 1 2|--gain is auto or a number",
    "y_1x2_Raw10.raw|--diff @x_2x1_Raw10.raw|w 1 2|is 1x2 Raw10, and ",
    "x_2x1_Raw10.raw|--histogram @y_1x2_Raw10.raw|w 1 2|--histogram is a name for a PNG",
    "x_2x1_Raw10.raw|--pixel 0,0 @y_1x2_Raw10.raw|w 1 2|--pixel is for one dump",
    "x_Raw12.raw||w 1|no size such as",
    "x_1x1_Raw121.raw||w 1|no format in the name",
    "x_2x1_Raw10.raw|@missing_2x1_Raw10.raw --diff|w 1 2|missing_2x1_Raw10.raw: No such file or directory",
    "x_2x1_Raw10.raw|--diff=|w 1 2|--diff is a dump, not ''",
    "x_2x1_Raw10.raw|--histogram=|w 1 2|--histogram is a name for a PNG, such as x.png, not ''",
    "x_2x1_Raw10.raw|--npy=|w 1 2|--npy is a file",
    "x_2x1_Raw10.raw|--tolerance 1|w 1 2|--tolerance needs --diff",
    "x_2x1_Raw10.raw|--profile both|w 1 2|--profile is rows|columns, not 'both'",
    "x_2x1_Raw10.raw|--profile rows --diff @x_2x1_Raw10.raw|w 1 2|--diff and --profile exclude each other",
    "x_2x1_Raw10.raw|--json --curve srgb|w 1 2|--curve is for a picture",
    "y_1x1_NV12.raw|--curve srgb|b 1|y_1x1_NV12.raw: --curve is for raw formats and Y16, not for YUV420NV12",
    "y_1x1_NV12.raw|--bayer rggb|b 1|y_1x1_NV12.raw: --bayer is for raw formats, not for YUV420NV12",
    "x_2x1_Raw10.raw|--histogram - --npy -|w 1 2|only one file can be written to the standard output",
    "x_2x1_Raw10.raw|--npy @./x_2x1_Raw10.raw|w 1 2|/./x_2x1_Raw10.raw would replace the dump",
    "x_1x1_Y16.raw||b 1|expected 2 bytes for 1x1 Y16, found 1",
};

TEST_F(ZytView, SaysWhatIsWrongAndLosesNothing) {
    for (const char* row : kRefused) {
        const auto [arguments, reason] = Prepare(row);
        const std::string output = zyttest::ExpectRefusal("tools/zytview/zytview " + arguments, reason);
        EXPECT_EQ(output.find('\n'), output.size() - 1) << "in one line";
    }
    const std::string raw = m_dir / "x_2x1_Raw10.raw";
    EXPECT_EQ(ReadFile(raw), Pack({1, 2}));
    for (const std::string& png : {m_dir / "missing/x.png", std::string("/dev/full")}) {
        const ChildResult result = Run(raw + " " + png);
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_THAT(result.output, HasSubstr("cannot write " + png));
    }
    // An invalid dump takes no name and does not stop the others; no dump overwrites the PNG of another.
    const ChildResult several = Run(NewDump("y_1x2_Raw10.bin", "") + " " + NewDump("y_1x2_Raw10.raw", "1234") + " " +
                                    NewDump("y_1x2_Raw10.dat", "1234") + " " + NewDump("y_0.1_1x1_Y16", "12"));
    EXPECT_EQ(several.exitCode, 2);
    EXPECT_THAT(several.output, testing::AllOf(HasSubstr("found 0\n"), HasSubstr("/y_1x2_Raw10.png  1x2 Raw10\n"),
                                               HasSubstr("/y_1x2_Raw10.png would replace what was written"),
                                               HasSubstr("/y_0.1_1x1_Y16.png  1x1")));
    // Names are those of files.
    EXPECT_THAT(Run("--npy " + m_png + " " + raw + " " + (m_dir / "./view.png")).output,
                HasSubstr("/./view.png would replace what was written"));
}

// Each step prints its status. While nobody reads the pipe, zytview cannot end.
constexpr const char* kSteps = R"sh(
view=$(dirname "$(readlink /proc/$PPID/exe)")/../tools/zytview/zytview
noise() { head -c 4194304 /dev/urandom >noise_2048x1024_Raw16.raw; }
mkfifo pipe && noise
"$view" noise_2048x1024_Raw16.raw pipe & { head -c 9; : >noise_2048x1024_Raw16.raw; cat; } <pipe >/dev/null
wait $!; echo "shortened $?"; noise
(trap '' TERM; exec "$view" --npy pipe noise_2048x1024_Raw16.raw) & { head -c 9; kill -TERM $!; cat; } <pipe >/dev/null
wait $!; echo "ignored $?"
ulimit -c 0; set -m; truncate -s 1G long_131072x4096_Raw16.raw
"$view" long_131072x4096_Raw16.raw & until compgen -G '.zytview-*' >/dev/null; do sleep 0.01; done; kill -QUIT $!
wait $! 2>/dev/null; echo "quit $? $(compgen -G '.zytview-*')"
(trap '' XFSZ; ulimit -f 1; exec "$view" noise_2048x1024_Raw16.raw); echo "full $? $(compgen -G '.zytview-*')"
"$view" --help >/dev/full; echo "lost $?"
"$view" --diff noise_2048x1024_Raw16.raw noise_2048x1024_Raw16.raw >/dev/full; echo "lost $?"
"$view" --json noise_2048x1024_Raw16.raw x.png | grep -cv '^{'
)sh";

TEST_F(ZytView, EndsAsAProgramShould) {
    zyttest::WriteFile(m_dir / "steps", "cd " + m_dir.Path() + kSteps);
    EXPECT_EQ(zyttest::RunCommand("bash " + (m_dir / "steps")).output,
              "zytview: noise_2048x1024_Raw16.raw became shorter while it was read\nshortened 2\npipe\nignored 0\n"
              "quit 131 \nzytview: cannot write noise_2048x1024_Raw16.png: File too large\nfull 1 \n"
              "zytview: cannot write the standard output: No space left on device\nlost 1\n"
              "zytview: cannot write the standard output: No space left on device\nlost 2\nx.png\n0\n");
}

TEST_F(ZytView, ReadsRandomDumpsInEveryMode) {
    for (const zyt::FormatLayout& layout : zyt::kFormatLayouts) {
        const Samples sides = RandomSamples(2, 1, 19);
        const unsigned int width = 4 * sides[0], height = 2 * sides[1], luma = width * height;
        const unsigned int chroma = layout.HasChroma() ? luma / 4 : 0;
        Samples samples = RandomSamples(luma + 2 * chroma, 0, (1u << layout.bits) - 1);
        const std::string dump = NewDump(std::to_string(width) + "x" + std::to_string(height) + "_" + layout.name,
                                         Pack(samples, *zyt::FindFormat(layout.name)));
        EXPECT_EQ(Run("--diff " + dump + " " + dump).exitCode, 0);
        const std::string npy = m_dir / "npy", files = " --histogram " + m_png + " --npy " + npy + " ";
        const ChildResult result =
            Run("--json --stats --pixel 1,1 --profile columns" + files + dump + " " + m_png + "1.png");
        EXPECT_EQ(std::count(result.output.begin(), result.output.end(), '\n'), 6) << "three objects, three files";
        const Samples pairs(samples.begin() + luma, samples.end());
        for (unsigned int i = 0; i < 2 * chroma; ++i) {
            const bool isV = (i % 2 == 1) == (std::string(layout.name) != "YUV420NV21");
            samples[luma + i / 2 + (isV ? chroma : 0)] = pairs[i];
        }
        const std::string body = layout.bits > 8 ? Pack(samples) : std::string(samples.begin(), samples.end());
        const std::string shape =
            chroma > 0 ? zyttest::Text("%zu,", samples.size()) : zyttest::Text("%u, %u", height, width);
        const std::string head = zyttest::Text("{'descr': '%s', 'fortran_order': False, 'shape': (%s), }",
                                               layout.bits > 8 ? "<u2" : "|u1", shape.c_str());
        const std::string start("\x93NUMPY\1\0\x76\0", 10);
        EXPECT_TRUE(ReadFile(npy) == start + zyttest::Text("%-117s\n", head.c_str()) + body) << dump;
    }
}
