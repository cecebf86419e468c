// zytview beside ffmpeg, which reads most of the formats too, and which reads all of zytview's pictures back.
#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>
#include <random>

#include "support.h"
#include "zytbuffermanager/zytbufferutil.h"

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

// Bits of a packed row as the interface between sensor and processor sends them: the upper 8 of each pixel of a group,
// then the lower ones of all, from the first pixel's lowest bit on.
std::string Pack(const Samples& samples, unsigned int bits) {
    const size_t groupPixels = bits == 12 ? 2 : 4;
    std::string packed;
    for (size_t first = 0; first < samples.size(); first += groupPixels) {
        std::vector<bool> lows;
        for (size_t i = first; i < first + groupPixels; ++i) {
            packed += static_cast<char>(samples[i] >> (bits - 8));
            for (unsigned int bit = 0; bit < bits - 8; ++bit) lows.push_back(samples[i] >> bit & 1);
        }
        for (size_t i = 0; i < lows.size(); i += 8) {
            unsigned int byte = 0;
            for (size_t bit = 0; bit < 8; ++bit) byte |= static_cast<unsigned int>(lows[i + bit]) << bit;
            packed += static_cast<char>(byte);
        }
    }
    return packed;
}

std::string Containers(const Samples& samples) {
    std::string bytes;
    for (const unsigned int sample : samples) bytes += {static_cast<char>(sample), static_cast<char>(sample >> 8)};
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

    static void ExpectRefusal(const std::string& arguments, const std::string& reason) {
        const std::string output = zyttest::ExpectRefusal("tools/zytview/zytview " + arguments, reason);
        EXPECT_EQ(output.find('\n'), output.size() - 1) << "in one line";
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
                bytes = Containers(samples);
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
    for (const unsigned int bits : {10u, 12u, 14u, 16u}) {
        Samples samples = RandomSamples(kWidth * kHeight, 0, (1u << bits) - 1);
        samples[5] = (1u << bits) - 1;
        const std::string number = std::to_string(bits);
        std::vector<std::string> dumps = {NewDump("s_48x32_Raw" + number + ".raw", Containers(samples))};
        dumps.push_back(bits == 16 ? NewDump("s_48x32_Y16.raw", Containers(samples))
                                   : NewDump("s_48x32_RawMipi" + number + ".raw", Pack(samples, bits)));
        for (const std::string& dump : dumps) {
            Samples seen = View(dump, "gray16le");
            EXPECT_EQ(seen[5], 65535u) << "white is white";
            for (unsigned int& sample : seen) sample >>= 16 - bits;
            EXPECT_EQ(seen, samples) << dump;
        }
    }
    // The library's dump of Y16 has one byte a pixel: half of each row.
    const Samples half = View(NewDump("half_4x2_Y16.raw", {1, 2, 3, 4, 5, 6, 7, 8}), "gray16le");
    EXPECT_EQ(half, (Samples{0x0201, 0x0403, 0x0605, 0x0807}));
    EXPECT_THAT(m_notes, HasSubstr("left 2 of 4 columns"));
    Samples samples(kWidth * kHeight, 1023);
    samples[7] = 1024;
    EXPECT_EQ(View(NewDump("high_48x32_Raw10.raw", Containers(samples)), "gray16le")[7], 65535u);
    for (const char* options : {"", "--bayer bggr"}) {
        View(m_dir / "high_48x32_Raw10.raw", "gray16le", options);
        EXPECT_THAT(m_notes, HasSubstr("samples of more than 10 bits, shown as the largest value: 1\n"));
    }
}

TEST_F(ZytView, ShowsBayerAsFfmpegDoes) {
    const std::string dump = NewDump("bayer_48x32_Raw16.raw", Containers(RandomSamples(kWidth * kHeight, 0, 65535)));
    for (const std::string order : {"rggb", "grbg", "gbrg", "bggr"}) {
        const std::string input =
            "-f rawvideo -s 48x32 -pix_fmt bayer_" + order + "16le -i " + dump + " -sws_flags accurate_rnd";
        // ffmpeg drops the fraction of a mean, and copies at the edges.
        ExpectNear(View(dump, "rgb48le", "--bayer " + order), Decode(input, "rgb48le"), 1, 3, 2, order);
    }
    // At the edges only what there is counts. One row: R 100, G 200, R 300.
    EXPECT_EQ(View(NewDump("edge_3x1_Raw16.raw", Containers({100, 200, 300})), "rgb48le", "--bayer rggb"),
              (Samples{100, 200, 100, 200, 200, 200, 300, 200, 300}));
}

TEST_F(ZytView, ReadsWhatTheLibraryDumps) {
    const Samples samples = RandomSamples(16 * kHeight, 0, 65535);
    std::string memory = Containers(samples);
    for (int format = ZYT_FORMAT_YUV420NV12; format <= ZYT_FORMAT_RAW16; ++format) {
        ZYTImageBuffer image{};
        image.format = static_cast<ZYTFormat>(format);
        image.width = 13;
        image.height = 7;
        image.planeStride = 32;
        image.numberOfPlanes = 2;
        for (auto& address : image.pAddr) address = reinterpret_cast<unsigned char*>(memory.data());
        const std::string name = ZYTBufferUtil::GetBufferFormatString(&image);
        const std::string dump = m_dir / "lib_13x7_" + name + ".raw";
        ASSERT_TRUE(ZYTBufferUtil::ZYTBufferDump(&image, dump.c_str()));
        const bool isHalf = format == ZYT_FORMAT_Y16;
        const Samples seen = View(dump, "gray16le");
        ASSERT_EQ(seen.size(), (isHalf ? 6u : 13u) * 7) << name;
        if (isHalf) {
            EXPECT_EQ(Samples(seen.end() - 6, seen.end()), Samples(&samples[6 * 16], &samples[6 * 16 + 6]));
        }
        EXPECT_EQ(m_notes.find("left 6 of 13 columns") != std::string::npos, isHalf) << m_notes;
    }
}

TEST_F(ZytView, GivesOddSizesTheirNeighboursChroma) {
    // Full range, so that chroma 128 is grey. Two columns and rows have chroma of their own, the third ones have not.
    const std::string luma(9, '\x80');
    const Samples full = View(NewDump("odd_3x3_NV12.raw", luma + "\xff\x80" + "\x01"), "rgb24");
    ASSERT_EQ(full.size(), 27u);
    for (size_t pixel = 0; pixel < 9; ++pixel) EXPECT_EQ(full[3 * pixel + 2], 255u) << pixel;
    // A file with a row of chroma for the odd row.
    const Samples whole = View(NewDump("odd_3x3_NV12.raw", luma + "\xff\x80\x01" + "\x80\x80\x01"), "rgb24");
    EXPECT_EQ(whole[2], 255u);
    EXPECT_EQ(whole[26], 128u);
    EXPECT_EQ(View(NewDump("dot_1x1_NV12.raw", "\x80"), "rgb24"), (Samples{128, 128, 128}));
    // Rows that end within a group have lost the lower bits: 3 pixels of 10 bits are 3 bytes.
    EXPECT_EQ(View(NewDump("cut_3x1_RawMipi10.raw", "\x01\x02\xff"), "gray16le"), (Samples{256, 512, 0xff3f}));
}

TEST_F(ZytView, SkipsTheSlackOfRowsAndPlanes) {
    const std::string luma = {1, 2, 3, 4, 5, 6, 7, 8};
    const std::string chroma = {100, 120, 30, 40};
    const Samples tight = View(NewDump("t_4x2_NV21.raw", luma + chroma), "rgb24");
    const std::string rows = luma.substr(0, 4) + "xx" + luma.substr(4) + "xx";
    const std::string slack = "--stride 6 --slice-height 3 ";
    // Up to the last pixel, the last row's slack, half of the first plane, and as many rows as belong to its rows.
    const std::string padded = rows + "zzzzzz" + chroma;
    for (const size_t length : {22u, 24u, 27u, 30u}) {
        const std::string dump = NewDump("s_4x2_NV21.raw", padded + std::string(length - padded.size(), 'y'));
        EXPECT_EQ(View(dump, "rgb24", slack), tight) << length;
    }
    ExpectRefusal(slack + NewDump("s_4x2_NV21.raw", padded + "y"),
                  "expected 22 or 24 or 27 or 30 bytes for 4x2 YUV420NV21, found 23");
    const std::string raw = Containers({10, 20, 30, 40});
    EXPECT_EQ(View(NewDump("r_2x2_Raw16.raw", raw.substr(0, 4) + "abc" + raw.substr(4)), "gray16le", "--stride 7"),
              (Samples{10, 20, 30, 40}));
}

TEST_F(ZytView, CropsAndScales) {
    const Samples samples = RandomSamples(kWidth * kHeight, 0, 65535);
    const std::string dump = NewDump("c_48x32_Raw16.raw", Containers(samples));
    Samples part;
    for (size_t y = 3; y < 8; ++y) part.insert(part.end(), &samples[y * kWidth + 5], &samples[y * kWidth + 5] + 6);
    EXPECT_EQ(View(dump, "gray16le", "--crop 6x5+5+3"), part);

    // The mean of what there is: the last column and row of the scaled picture have less.
    const Samples eighth = View(dump, "gray16le", "--crop 9x9+0+0 --scale 1/8");
    unsigned int sum = 0;
    for (size_t y = 0; y < 8; ++y) sum += samples[y * kWidth + 8];
    ASSERT_EQ(eighth.size(), 4u);
    EXPECT_EQ(eighth[1], (sum + 4) / 8);
    EXPECT_EQ(eighth[3], samples[8 * kWidth + 8]);

    EXPECT_EQ(View(NewDump("m_2x1_Raw16.raw", Containers({1, 2})), "gray16le", "--scale 1/2"), Samples{2});

    // Colours come from the whole picture, also beside the cut.
    const Samples colours = View(dump, "rgb48le", "--bayer gbrg");
    EXPECT_EQ(
        View(dump, "rgb48le", "--bayer gbrg --crop 1x1+7+9"),
        (Samples{colours[(9 * kWidth + 7) * 3], colours[(9 * kWidth + 7) * 3 + 1], colours[(9 * kWidth + 7) * 3 + 2]}));
}

TEST_F(ZytView, TakesSizeAndFormatFromTheNameUnlessTold) {
    const std::string bytes = Containers({1, 2, 3, 4, 5, 6});
    for (const std::string name : {"night_3x2_Raw12.raw", "a-9x9-raw10_3x2-RAW12.bin", "3x2.raw12"}) {
        EXPECT_EQ(View(NewDump(name, bytes), "gray16le"), (Samples{16, 32, 48, 64, 80, 96})) << name;
    }
    const std::string dump = NewDump("night_3x2_Raw12.raw", bytes);
    EXPECT_EQ(View(dump, "gray16le", "--size 2x3 --format raw16"), (Samples{1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(Run(dump).output, m_dir / "night_3x2_Raw12.png\n");
    ExpectRefusal(NewDump("night_Raw12.raw", bytes), "no size such as");
    ExpectRefusal(NewDump("night_3x2_Raw121.raw", bytes), "no format in the name");
    ExpectRefusal(NewDump("night_0x2_Raw12.raw", bytes), "no size such as");
}

TEST_F(ZytView, SaysWhatIsWrongAndLosesNothing) {
    const std::string dump = NewDump("x_4x3_NV12.raw", std::string(17, 'x'));
    ExpectRefusal(dump, "expected 16 or 20 bytes for 4x3 YUV420NV12, found 17\n");
    const std::string raw = NewDump("x_4x3_Raw10.raw", std::string(24, '\0'));
    for (const auto& [options, reason] : std::vector<std::pair<std::string, std::string>>{
             {"--format Y16 --size 4x4", "expected 16 or 32 bytes"},
             {"--size 4x2", "expected 16 bytes for 4x2 Raw10, found 24; --stride and --slice-height"},
             {"--format Y16 --size 1x24", "holds half a pixel a row"},
             {"--stride 7", "a stride of 7 is less than the picture's 8"},
             {"--slice-height 2", "a slice height of 2 is less than the picture's 3"},
             {"--stride 8x", "--stride is a number from 1"},
             {"--size 4", "--size is WxH"},
             {"--size 4x999999", "--size is WxH"},
             {"--size 4x0", "--size is WxH"},
             {"--format Raw11", "unknown format 'Raw11'"},
             {"--scale 1/3", "--scale is 1/1 or 1/2 or 1/4 or 1/8, not '1/3'"},
             {"--crop 2x2", "--crop is WxH+X+Y"},
             {"--crop 2x2+3+0", "the crop reaches out of the picture's 4x3"},
             {"--crop 2x2+0+4294967295", "--crop is WxH+X+Y"},
             {"--bayer rgbg", "--bayer is rggb or"},
             {"--format Y16 --bayer rggb", "--bayer is for raw formats"},
             {"--range full", "--matrix and --range are for YUV formats"},
             {"--gamma 2", "--gamma"},
         }) {
        ExpectRefusal(options + " " + raw, reason);
    }
    ExpectRefusal("", "wants a dump");
    ExpectRefusal(raw + " " + dump, "x_4x3_NV12.raw is no name for a PNG");
    ExpectRefusal(NewDump("x_4x3_Raw10.png", std::string(24, '\0')), "the PNG would replace the dump");
    ExpectRefusal(m_dir / "missing_4x3_Raw10.raw", "No such file or directory");
    ExpectRefusal(m_dir.Path() + " --size 4x3 --format Raw10", "Is a directory");
    EXPECT_EQ(ReadFile(dump).size(), 17u);
    EXPECT_EQ(ReadFile(m_dir / "x_4x3_Raw10.png").size(), 24u);

    for (const std::string& png : {m_dir / "missing/x.png", std::string("/dev/full")}) {
        const ChildResult result = Run(raw + " " + png);
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_THAT(result.output, HasSubstr("cannot write " + png));
    }
    WriteFile(m_dir / "old.png", "an older picture");
    std::filesystem::create_directory(m_dir / "old.png.part");
    EXPECT_EQ(Run(raw + " " + (m_dir / "old.png")).exitCode, 1);
    EXPECT_EQ(ReadFile(m_dir / "old.png"), "an older picture");
}
