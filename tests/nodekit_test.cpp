#include <gmock/gmock.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "nodekit/dumpname.h"
#include "nodekit/rawpixels.h"
#include "support.h"

namespace {

// Bit `bit` of pixel x in a packed row: the upper 8 of each pixel of a group come first, then the lower ones of all.
size_t PlaceOfBit(size_t bits, size_t x, size_t bit) {
    const size_t pixels = bits == 12 ? 2 : 4;
    const size_t lows = bits - 8;
    const size_t group = x / pixels * pixels * bits;
    if (bit >= lows) return group + x % pixels * 8 + bit - lows;
    return group + pixels * 8 + x % pixels * lows + bit;
}

}  // namespace

TEST(RawPixels, AreEqualBitByBitInRowsOfAnyLength) {
    std::mt19937 random(3);
    for (int f = 0; f <= ZYT_FORMAT_RAW16; ++f) {
        const auto format = static_cast<ZYTFormat>(f);
        const zyt::FormatLayout& layout = *zyt::FindFormatLayout(format);
        for (uint32_t width = 0; width < 70; ++width) {
            SCOPED_TRACE(std::string(layout.name) + " of " + std::to_string(width));
            std::vector<uint16_t> samples(width);
            for (uint16_t& sample : samples) sample = static_cast<uint16_t>(random());
            // On the heap and at their exact lengths, so that a sanitizer sees one byte too far.
            std::vector<unsigned char> row(static_cast<size_t>(layout.RowBytes(width)), 0xa5);
            std::vector<unsigned char> expected(row.size());
            std::vector<uint16_t> kept(width);
            for (size_t x = 0; x < width; ++x) {
                const unsigned int sample = std::min<unsigned int>(samples[x], (1u << layout.bits) - 1);
                for (size_t bit = 0; bit < layout.bits; ++bit) {
                    const size_t container = 8 * layout.rowNumerator;
                    const size_t shift = layout.kind == zyt::FormatKind::kP010 ? 6 : 0;
                    const size_t place =
                        layout.IsPacked() ? PlaceOfBit(layout.bits, x, bit) : x * container + bit + shift;
                    if (place / 8 >= row.size() || (sample >> bit & 1) == 0) continue;
                    expected[place / 8] = static_cast<unsigned char>(expected[place / 8] | 1u << place % 8);
                    kept[x] = static_cast<uint16_t>(kept[x] | 1u << bit);
                }
            }
            ASSERT_TRUE(zyt::PackRow(format, samples.data(), width, row.data()));
            EXPECT_EQ(row, expected);
            std::fill(samples.begin(), samples.end(), uint16_t{0xffff});
            ASSERT_TRUE(zyt::UnpackRow(format, row.data(), width, samples.data()));
            EXPECT_EQ(samples, kept);
        }
    }
    uint16_t untouched = 7;
    unsigned char byte = 9;
    EXPECT_FALSE(zyt::UnpackRow(static_cast<ZYTFormat>(11), &byte, 1, &untouched));
    EXPECT_FALSE(zyt::PackRow(static_cast<ZYTFormat>(-1), &untouched, 1, &byte));
    EXPECT_EQ(untouched + byte, 16);
}

TEST(DumpName, TellsSizeAndFormat) {
    using zyt::ParseDumpName;
    for (int format = 0; format <= ZYT_FORMAT_RAW16; ++format) {
        const zyt::DumpInfo info =
            ParseDumpName("/1x1_Y16/" + zyt::DumpName(zyttest::Image(format, 4000, 3000, 0, 0), "640x480 nv21"));
        EXPECT_EQ(info.format, format);
        EXPECT_EQ(info.width * 10000 + info.height, 40003000u);
    }
    EXPECT_EQ(ParseDumpName("a-4X3.P010").format, ZYT_FORMAT_YUV_P010);
    EXPECT_EQ(ParseDumpName("a-4X3.P010").height, 3u);
    for (const char* name : {"", "a", "x", "4x", "x3", "4x3x2", "0x3", "4x0", "+4x3", "4x-3", "4 x 3", "131073x1",
                             "99999999999x1", "4x3/a", "rawmipi1", "rawmipi100"}) {
        EXPECT_EQ(ParseDumpName(name).width, 0u) << name;
        EXPECT_EQ(ParseDumpName(name).format, std::nullopt) << name;
    }
}
