// zytview beside ffmpeg, which reads most of the formats too, and which reads all of zytview's pictures back.
#include <gmock/gmock.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <random>

#include "nodekit/dumpname.h"
#include "nodekit/rawpixels.h"
#include "support.h"
#include "zytbuffermanager/zytbufferutil.h"

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using zyttest::ChildResult;
using zyttest::ReadFile;
using zyttest::TempDir;
using zyttest::WriteFile;

namespace {

using Samples = std::vector<unsigned int>;

constexpr unsigned int kWidth = 48;
constexpr unsigned int kHeight = 32;

// A row's bytes, or an image's where rows have none to spare.
std::string Pack(const Samples& samples, ZYTFormat format = ZYT_FORMAT_RAW16) {
    const std::vector<uint16_t> row(samples.begin(), samples.end());
    const auto width = static_cast<uint32_t>(row.size());
    std::string bytes(static_cast<size_t>(zyt::FindFormatLayout(format)->RowBytes(width)), 0);
    zyt::PackRow(format, row.data(), width, reinterpret_cast<unsigned char*>(bytes.data()));
    return bytes;
}

class ZytView : public testing::Test {
protected:
    static ChildResult Run(const std::string& arguments) {
        return zyttest::RunBuilt("tools/zytview/zytview " + arguments);
    }

    // The picture's channels, one after the other.
    Samples View(const std::string& dump, const std::string& pixelFormat, const std::string& options = "") {
        const std::string png = m_dir / "view.png";
        const ChildResult result = Run(options + " " + dump + " " + png);
        EXPECT_EQ(result.exitCode, 0) << result.output;
        EXPECT_THAT(result.output, EndsWith(png + "\n"));
        m_notes = result.output;
        return Decode("-i " + png, pixelFormat);
    }

    // What ffmpeg reads, in channels of 8 bits or of 16.
    Samples Decode(const std::string& input, const std::string& pixelFormat) {
        const ChildResult result = zyttest::RunCommand("ffmpeg -v error -y -filter_threads 1 " + input + " -pix_fmt " +
                                                       pixelFormat + " -f rawvideo " + (m_dir / "decoded"));
        EXPECT_EQ(result.exitCode, 0) << input << result.output;
        const std::string bytes = ReadFile(m_dir / "decoded");
        const size_t size = pixelFormat.substr(pixelFormat.size() - 2) == "le" ? 2 : 1;
        Samples samples;
        for (size_t i = 0; i < bytes.size(); i += size) {
            samples.push_back(static_cast<unsigned char>(bytes[i]));
            if (size == 2) samples.back() |= static_cast<unsigned int>(static_cast<unsigned char>(bytes[i + 1])) << 8;
        }
        return samples;
    }

    std::string NewDump(const std::string& name, const std::string& content) {
        WriteFile(m_dir / name, content);
        return m_dir / name;
    }

    Samples RandomSamples(size_t count, unsigned int least, unsigned int largest) {
        Samples samples(count);
        for (unsigned int& sample : samples) sample = std::uniform_int_distribution(least, largest)(m_random);
        return samples;
    }

    TempDir m_dir;
    std::string m_notes;
    std::mt19937 m_random{7};
};

// Compares all but the outermost `edge` pixels.
void ExpectNear(const Samples& seen, const Samples& expected, unsigned int tolerance, size_t channels, size_t edge,
                const std::string& what) {
    ASSERT_EQ(seen.size(), kWidth * kHeight * channels) << what;
    ASSERT_EQ(expected.size(), seen.size()) << what;
    for (size_t i = 0; i < seen.size(); ++i) {
        const size_t x = i / channels % kWidth;
        const size_t y = i / channels / kWidth;
        if (std::min(x, kWidth - 1 - x) < edge || std::min(y, kHeight - 1 - y) < edge) continue;
        ASSERT_LE(std::max(seen[i], expected[i]) - std::min(seen[i], expected[i]), tolerance) << what << x << "," << y;
    }
}

}  // namespace

TEST_F(ZytView, ShowsYuvAsFfmpegDoes) {
    for (const std::string format : {"YUV420NV12", "YUV420NV21", "YUV_P010"}) {
        for (const std::string range : {"full", "limited"}) {
            const bool isWide = format == "YUV_P010";
            Samples samples = range == "full" ? RandomSamples(kWidth * kHeight * 3 / 2, 0, 255)
                                              : RandomSamples(kWidth * kHeight * 3 / 2, 16, 235);
            std::string bytes(samples.begin(), samples.end());
            if (isWide) {
                for (unsigned int& sample : samples) sample = sample << 8 | RandomSamples(1, 0, 3)[0] << 6;
                bytes = Pack(samples);
            }
            const std::string dump = NewDump("yuv_48x32_" + format + ".raw", bytes);
            for (const std::string matrix : {"bt601", "bt709"}) {
                const std::string pixels = isWide ? "p010le" : format.substr(6) == "NV12" ? "nv12" : "nv21";
                const std::string input = "-f rawvideo -s 48x32 -pix_fmt " + pixels + " -i " + dump +
                                          " -sws_flags neighbor+accurate_rnd+full_chroma_int+full_chroma_inp" +
                                          " -vf scale=in_color_matrix=" + matrix + ":in_range=" + range;
                const std::string out = isWide ? "rgb48le" : "rgb24";
                ExpectNear(View(dump, out, "--matrix " + matrix + " --range " + range), Decode(input, out),
                           isWide ? 256 : 1, 3, 0, input);
            }
        }
    }
}

TEST_F(ZytView, KeepsEveryBitOfGreyAndRawSamples) {
    for (const std::string format :
         {"Raw10", "Raw12", "Raw14", "Raw16", "RawMipi10", "RawMipi12", "RawMipi14", "Y16"}) {
        const ZYTFormat kind = *zyt::FindFormat(format);
        const unsigned int bits = zyt::FindFormatLayout(kind)->bits;
        Samples samples = RandomSamples(kWidth * kHeight, 0, (1u << bits) - 1);
        samples[5] = (1u << bits) - 1;
        Samples seen = View(NewDump("s_48x32_" + format + ".raw", Pack(samples, kind)), "gray16le");
        EXPECT_EQ(seen[5], 65535u) << "white is white";
        for (unsigned int& sample : seen) sample >>= 16 - bits;
        EXPECT_EQ(seen, samples) << format;
    }
}

TEST_F(ZytView, ShowsBayerAsFfmpegDoes) {
    const std::string dump = NewDump("bayer_48x32_Raw16.raw", Pack(RandomSamples(kWidth * kHeight, 0, 65535)));
    for (const std::string order : {"rggb", "grbg", "gbrg", "bggr"}) {
        const std::string input =
            "-f rawvideo -s 48x32 -pix_fmt bayer_" + order + "16le -i " + dump + " -sws_flags accurate_rnd";
        // ffmpeg drops the fraction of a mean, and copies at the edges.
        const Samples colours = View(dump, "rgb48le", "--bayer " + order);
        ExpectNear(colours, Decode(input, "rgb48le"), 1, 3, 2, order);
        // Colours come from the whole picture, also beside the cut.
        EXPECT_EQ(View(dump, "rgb48le", "--crop 1x1+7+9 --bayer " + order),
                  Samples(&colours[(9 * kWidth + 7) * 3], &colours[(9 * kWidth + 7) * 3 + 3]));
    }
}

TEST_F(ZytView, ReadsWhatTheLibraryDumps) {
    std::string memory(32 * 11, 'm');
    for (int format = ZYT_FORMAT_YUV420NV12; format <= ZYT_FORMAT_RAW16; ++format) {
        ZYTImageBuffer image = zyttest::Image(format, 13, 7, 32, 7);
        image.numberOfPlanes = 2;
        for (auto& address : image.pAddr) address = reinterpret_cast<unsigned char*>(memory.data());
        const std::string dump = m_dir / zyt::DumpName(image, "lib");
        ASSERT_TRUE(ZYTBufferUtil::ZYTBufferDump(&image, dump.c_str()));
        // Of Y16 the library dumps one byte a pixel: half of each row.
        const bool isHalf = format == ZYT_FORMAT_Y16;
        EXPECT_EQ(View(dump, "gray16le").size(), (isHalf ? 6u : 13u) * 7) << dump;
        EXPECT_EQ(m_notes.find("left 6 of 13 columns") != std::string::npos, isHalf) << m_notes;
    }
}

// Small dumps, each value by hand.
TEST_F(ZytView, ShowsEachValue) {
    const auto level = [](double sample) { return static_cast<unsigned int>(std::lround(sample * 65535 / 1023)); };
    const std::string grey(9, '\x80'), luma = {1, 2, 3, 4, 5, 6, 7, 8}, chroma = {100, 120, 30, 40};
    const std::string padded = "\1\2\3\4xx\5\6\7\10xxzzzzzz" + chroma;
    const Samples tight = View(NewDump("t_4x2_NV21.raw", luma + chroma), "rgb24");
    const std::string slack = "--stride 6 --slice-height 3", high = Pack({100, 1024, 1023});
    const std::string dark = Pack({64, 100, 500, 1023, 0, 200, 164, 90}), yuv = {10, 60, 110, 20, char(128), char(128)};
    const std::string red = Pack({164, 264, 464, 664}), blue = Pack({664, 464, 264, 164});
    Samples many(kWidth * kHeight, 1500);  // of 1536 the second darkest and the second lightest count
    std::copy_n(Samples{0, 1000, 1000, 2000, 2000, 65535}.begin(), 6, &many[0]);
    const double mean = 300.01;  // of the greens, once these are rounded
    const auto colours = [&](double r, const std::vector<double>& greens, double b) {
        Samples pixels;
        for (const double green : greens) pixels.insert(pixels.end(), {level(r), level(green), level(b)});
        return pixels;
    };
    struct Row {
        std::string name, bytes, options, pixels;
        Samples expected;  // the first ones
    };
    for (const Row& row : std::vector<Row>{
             {"half_4x2_Y16.raw", luma, "", "gray16le", {0x0201, 0x0403, 0x0605, 0x0807}},
             {"high_3x1_Raw10.raw", high, "", "gray16le", {level(100), 65535, 65535}},
             {"cut_3x1_RawMipi10.raw", "\1\2\xff", "", "gray16le", {256, 512, 0xff3f}},
             {"slack_2x2_Raw16.raw", "12345678", "--stride 4", "gray16le", {0x3231, 0x3433, 0x3635, 0x3837}},
             {"slack_1x2_Raw16.raw", "12abc34", "--stride 5", "gray16le", {0x3231, 0x3433}},
             // Only what there is counts at an edge.
             {"edge_3x1_Raw16.raw",
              Pack({100, 200, 300}),
              "--bayer rggb",
              "rgb48le",
              {100, 200, 100, 200, 200, 200, 300, 200, 300}},
             {"edge_2x2_Raw16.raw",
              Pack({1, 3, 8, 5}),
              "--bayer gbrg",
              "rgb48le",
              {8, 1, 3, 8, 3, 3, 8, 3, 3, 8, 5, 3}},
             // An odd column and row have their neighbour's chroma, unless the file has some for the row.
             {"odd_3x3_NV12.raw", grey + "\xff\x80\1", "", "rgb24", {128, 84, 255, 128, 84, 255, 128, 84, 255, 128}},
             {"odd_3x3_NV12.raw", grey + "\xff\x80\1\x80\xff\1", "--crop 1x1+2+2", "rgb24", {255, 37, 128}},
             {"dot_1x1_NV12.raw", "\x80", "", "rgb24", {128, 128, 128}},
             // Up to the last pixel, the last row's slack, half of the first plane, as many rows as belong to its rows.
             {"s_4x2_NV21.raw", padded, slack, "rgb24", tight},
             {"s_4x2_NV21.raw", padded + "yy", slack, "rgb24", tight},
             {"s_4x2_NV21.raw", padded + "yyyyy", slack, "rgb24", tight},
             {"s_4x2_NV21.raw", padded + "yyyyyyyy", slack, "rgb24", tight},
             {"crop_4x2_Y16.raw", Pack({1, 2, 3, 4, 5, 6, 7, 8}), "--crop 2x1+1+1", "gray16le", {6, 7}},
             // The last column and row of a scaled picture are the mean of what there is.
             {"scale_3x3_Y16.raw",
              Pack({10, 20, 31, 30, 41, 50, 61, 70, 90}),
              "--scale 1/2",
              "gray16le",
              {25, 41, 66, 90}},
             {"night_9x9_raw10_3X2-RAW12.bin",
              Pack({1, 2, 3}) + Pack({4, 5, 6}),
              "",
              "gray16le",
              {16, 32, 48, 64, 80, 96}},
             {"night_2x3_Raw12.raw", Pack({1, 2, 3}), "--size 3X1 --format raw16", "gray16le", {1, 2, 3}},
             {"l_4x2_Raw10.raw",
              dark,
              "--black 64",
              "gray16le",
              {0, level(36), level(436), level(959), 0, level(136), level(100), level(26)}},
             {"l_4x2_Raw10.raw", dark, "--gain 2.5", "gray16le", {level(160), level(250), 65535, 65535, 0, level(500)}},
             {"l_48x32_Raw16.raw", Pack(many), "--gain auto", "gray16le", {0, 0, 0, 65535, 65535, 65535, 32768}},
             {"l_48x32_Raw16.raw",
              Pack(many),
              "--gain auto --black 500 --crop 4x1+1+0",
              "gray16le",
              {21845, 21845, 65535}},
             {"l_2x2_NV12.raw",
              yuv,
              "--black 10 --gain 2",
              "rgb24",
              {0, 0, 0, 100, 100, 100, 200, 200, 200, 20, 20, 20}},
             {"l_2x2_NV12.raw",
              yuv,
              "--range limited --gain auto",
              "rgb24",
              {0, 0, 0, 128, 128, 128, 255, 255, 255, 26}},
             // Red 100, green 200 and 400, blue 600.
             {"w_2x2_Raw10.raw", red, "--black 64 --bayer rggb --white 2,1,0.5", "rgb48le",
              colours(200, {mean, 200, 400}, 300)},
             {"w_2x2_Raw10.raw", blue, "--black 64 --bayer bggr --white auto", "rgb48le",
              colours(300, {mean, 400, 200}, 300)},
             {"w_2x2_Raw10.raw", red, "--black 64 --bayer rggb --white 3,1,0.5 --gain auto", "rgb48le",
              colours(767.25, {767.26, 511.5, 1023}, 767.25)},
         }) {
        const Samples seen = View(NewDump(row.name, row.bytes), row.pixels, row.options);
        ASSERT_GE(seen.size(), row.expected.size()) << row.name;
        EXPECT_EQ(Samples(seen.begin(), seen.begin() + static_cast<long>(row.expected.size())), row.expected)
            << row.name << row.options;
    }
    View(NewDump("high_3x1_Raw10.raw", high), "rgb48le", "--bayer bggr");
    EXPECT_THAT(m_notes, HasSubstr("samples of more than 10 bits, shown as the largest value: 1\n"));
}

TEST_F(ZytView, TellsNumbers) {
    const std::string raw = NewDump("n_4x2_RawMipi10.raw", Pack({0, 100, 10, 1023}, ZYT_FORMAT_RAWMIPI10) +
                                                               Pack({7, 512, 9, 513}, ZYT_FORMAT_RAWMIPI10));
    const std::string nv21 = NewDump("n_2x2_NV21.raw", {1, 2, 3, 4, 100, 50});
    const std::string y16 = NewDump("h_9x1_Y16.raw", Pack({0, 0, 650, 650, 650, 650, 6500, 65535, 65535}));
    Samples one = RandomSamples(kWidth * kHeight, 100, 900);
    const std::string dump = NewDump("d_48x32_Raw10.raw", Pack(one));
    one[3 * kWidth + 6] += 40;
    one[3 * kWidth + 8] -= 60;
    one[20 * kWidth + 10] += 60;
    const std::string other = NewDump("reference.bin", Pack(one)), png = m_dir / "difference.png";
    const std::string nv12 = NewDump("d_2x4_NV12.raw", std::string(12, 'x'));
    const std::string nv12Other = NewDump("e_2x4_NV12.raw", std::string(11, 'x') + "z");
    struct Row {
        std::string arguments;
        int exitCode;
        std::string expected;  // a part of the output
    };
    for (const Row& row : std::vector<Row>{
             {"--json " + nv21, 0,
              R"("format": "YUV420NV21", "channels": {"Y": {"samples": 4, "min": 1, "max": 4, )"
              R"("mean": 2.500000, "stddev": 1.118034, "clipped_low": 0, "clipped_high": 0}, )"
              R"("U": {"samples": 1, "min": 50, "max": 50)"},
             {"--stats --crop 3x2+1+0 " + raw, 0,
              "\n0,0           10      10      10.00       0.00         0 (  0.00%)         0 (  0.00%)"
              "\n1,0          100    1023     561.50     461.50         0 (  0.00%)         1 ( 50.00%)"
              "\n0,1            9       9       9.00       0.00         0 (  0.00%)         0 (  0.00%)"
              "\n1,1          512     513     512.50       0.50         0 (  0.00%)         0 (  0.00%)\n"},
             {"--stats --bayer bggr " + raw, 0, "\nB              0      10       5.00       5.00         1 ( 50.00%)"},
             {"--pixel 1,1 --bayer grbg " + raw, 0,
              "Gb at 1,1 is 512\n"
              "              0       1       2       3\n"
              "      0      0     100      10    1023 \n"
              "      1      7    [512]      9     513 \n"},
             {"--pixel 1,0 " + nv21, 0, "U at 0,0 is 50\n"},
             {"--histogram " + (m_dir / "bars.PNG") + " " + y16, 0, "bars.PNG\n"},
             // 10 * log10(1023^2 * 384 / (40^2 + 60^2)), and without the first.
             {"--diff " + other + " --bayer grbg " + dump + " " + png, 1,
              "\nGr                 1 (  0.26%)        60           10,20       50.48"
              "\nR                  0 (  0.00%)         0               -         inf"
              "\nB                  2 (  0.52%)        60             8,3       48.88"
              "\nGb                 0 (  0.00%)         0               -         inf\n"},
             {"--diff " + other + " --json --crop 7x9+0+0 " + dump, 1,
              R"("0,1": {"samples": 16, "differing": 1, "largest": 40, "at": [6, 3], "psnr": 40.197513}, )"
              R"("1,1": {"samples": 12, "differing": 0, "largest": 0, "at": null, "psnr": null}}})"},
             {"--diff " + other + " --crop 48x3+0+0 " + dump, 0, " inf\n"},
             {"--diff " + nv12Other + " " + nv12 + " " + (m_dir / "chroma.png"), 1,
              "\nV                  1 ( 50.00%)         2             0,2       45.12\n"},
         }) {
        const ChildResult result = Run(row.arguments);
        EXPECT_EQ(result.exitCode, row.exitCode) << result.output;
        EXPECT_THAT(result.output, HasSubstr(row.expected));
    }
    EXPECT_FALSE(std::filesystem::exists(m_dir / "n_2x2_NV21.png")) << "no picture was asked for";
    Samples expected(kWidth * kHeight);
    expected[3 * kWidth + 6] = 64 + 191 * 40 / 60;
    expected[3 * kWidth + 8] = expected[20 * kWidth + 10] = 255;
    EXPECT_EQ(Decode("-i " + png, "gray"), expected);
    EXPECT_EQ(Decode("-i " + (m_dir / "chroma.png"), "gray"), (Samples{0, 0, 0, 0, 255, 255, 255, 255}));
    // Heights of the bars: clipped samples in the margins, between them a column for 64 values; square roots.
    const Samples bars = Decode("-i " + (m_dir / "bars.PNG"), "gray");
    for (const auto& [x, height] :
         std::vector<std::pair<size_t, long>>{{24, 114}, {46, 160}, {137, 80}, {138, 0}, {1062, 114}}) {
        long seen = 0;
        for (size_t y = 36; y < 196; ++y) seen += bars[y * 1096 + x] > 60;
        EXPECT_EQ(seen, height) << x;
    }
}

TEST_F(ZytView, SaysWhatIsWrongAndLosesNothing) {
    const std::string dump = NewDump("x_4x3_NV12.raw", std::string(17, 'x'));
    const std::string raw = NewDump("x_4x3_Raw10.raw", std::string(24, '\0'));
    for (const auto& [arguments, reason] : std::vector<std::pair<std::string, std::string>>{
             {dump, "expected 16 or 20 bytes for 4x3 YUV420NV12, found 17\n"},
             {"--stride 6 --slice-height 3 --size 4x2 --format NV21 " + dump, "22 or 24 or 27 or 30 bytes for 4x2"},
             {"--format Y16 --size 4x4 " + raw, "expected 16 or 32 bytes"},
             {"--size 4x2 " + raw, "expected 16 bytes for 4x2 Raw10, found 24; --stride and --slice-height"},
             {"--format Y16 --size 1x24 " + raw, "holds half a pixel a row"},
             {"--stride 7 " + raw, "a stride of 7 is less than the picture's 8"},
             {"--slice-height 2 " + raw, "a slice height of 2 is less than the picture's 3"},
             {"--stride 8x " + raw, "--stride is a number from 1"},
             {"--size 4x131073 " + raw, "--size is WxH, each from 1 to 131072"},
             {"--format Raw11 " + raw, "unknown format 'Raw11'"},
             {"--scale 1/3 " + raw, "--scale is 1/1 or 1/2 or 1/4 or 1/8, not '1/3'"},
             {"--crop 2x2 " + raw, "--crop is WxH+X+Y"},
             {"--crop 2x2+3+0 " + raw, "the crop reaches out of the picture's 4x3"},
             {"--crop 2x2+0+4294967295 " + raw, "--crop is WxH+X+Y"},
             {"--pixel 1,3 " + raw, "the pixel reaches out of the picture's 4x3"},
             {"--format Y16 --bayer rggb " + raw, "--bayer is for raw formats"},
             {"--range full " + raw, "--matrix and --range are for YUV formats"},
             {"--white 1,2 --bayer rggb " + raw, "--white is auto or R,G,B"},
             {"--white auto " + raw, "--white goes with --bayer"},
             {"--gain nan " + raw, "--gain is auto or a number"},
             {"--diff " + dump + " " + raw, "x_4x3_NV12.raw: expected"},
             {"--diff " + raw + " --scale 1/2 " + raw, "--diff does not go with --scale"},
             {"--histogram " + dump + " " + raw, "x_4x3_NV12.raw is no name for a PNG"},
             {"--pixel 0,0 " + raw + " " + raw, "go with one dump"},
             {"--gamma 2 " + raw, "--gamma"},
             {"", "wants a dump"},
             {NewDump("x_Raw12.raw", "x"), "no size such as"},
             {NewDump("x_1x1_Raw121.raw", "x"), "no format in the name"},
             {NewDump("x_4x3_Raw10.png", std::string(24, '\0')), "the PNG would replace the dump"},
             {m_dir / "missing_4x3_Raw10.raw", "No such file or directory"},
             {m_dir.Path() + " --size 4x3 --format Raw10", "is no regular file"},
         }) {
        const std::string output = zyttest::ExpectRefusal("tools/zytview/zytview " + arguments, reason);
        EXPECT_EQ(output.find('\n'), output.size() - 1) << "in one line";
    }
    EXPECT_EQ(ReadFile(m_dir / "x_4x3_Raw10.png").size(), 24u);
    for (const std::string& png : {m_dir / "missing/x.png", std::string("/dev/full")}) {
        const ChildResult result = Run(raw + " " + png);
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_THAT(result.output, HasSubstr("cannot write " + png));
    }
    // Several dumps: a bad one does not keep the others from being done, nor does one take another's PNG.
    const ChildResult several =
        Run(raw + " " + dump + " " + NewDump("y_1x2_Raw10.raw", "1234") + " " +
            NewDump("x_4x3_Raw10.bin", ReadFile(raw)) + " " + NewDump("y_1x2_Raw10.bin", "abcd"));
    EXPECT_EQ(several.exitCode, 2);
    EXPECT_THAT(several.output, AllOf(HasSubstr("/y_1x2_Raw10.png  1x2 Raw10\n"),
                                      HasSubstr("/y_1x2_Raw10.png is written already"), HasSubstr("found 17\n")));
    // A file that is called like a temporary one is none, and what is not finished leaves nothing.
    const std::string part = NewDump("new.png.part", ReadFile(raw));
    EXPECT_EQ(Run("--size 4x3 --format raw10 " + part + " " + (m_dir / "new.png")).output, m_dir / "new.png\n");
    EXPECT_EQ(ReadFile(part), ReadFile(raw));
    for (const auto& entry : std::filesystem::directory_iterator(m_dir.Path()))
        EXPECT_EQ(entry.path().filename().string().find(".zytview"), std::string::npos);
}
