#include "zytbuffermanager/zytbufferutil.h"

#include "rules.h"
#include "support.h"

using zyttest::Image;
using zyttest::ReadFile;
using zyttest::TempDir;

TEST(CopyAndDump, MoveThePixelsOfEveryFormatAndNothingElse) {
    const TempDir dir;
    for (uint64_t seed = 0; seed < 10000; ++seed) {
        zytrule::RandomChoices choices(seed);
        ASSERT_TRUE(zytrule::MovesByRule(choices, dir / "dump.raw")) << "seed " << seed;
    }
}

TEST(Copy, EndsTheProcessOnImpossibleSizes) {
    for (const ZYTFormat format : {ZYT_FORMAT_RAW16, ZYT_FORMAT_RAWMIPI10}) {
        ZYTImageBuffer wide = Image(format, 0x40000000, 1, 0, 0);
        EXPECT_ABORT(ZYTBufferUtil::ZYTBufferCopy(&wide, &wide));
    }
    unsigned char bytes[16] = {};
    ZYTImageBuffer far = Image(ZYT_FORMAT_YUV420NV12, 8, 2, 8, 0x20000000);
    far.pAddr[0] = bytes;
    EXPECT_ABORT(ZYTBufferUtil::ZYTBufferCopy(&far, &far));
}

TEST(Copy, MovesPlanesUpwardsToo) {
    const unsigned char rows[] = {1, 2, 3};
    unsigned char upwards[3] = {};
    ZYTBufferUtil::ZYTCopyPlane(upwards, rows + 2, 1, 3, 1, -1);
    ZYTBufferUtil::ZYTCopyPlane(upwards, nullptr, 1, -1, 1, 1);
    EXPECT_TRUE(upwards[0] == 3 && upwards[1] == 2 && upwards[2] == 1);
}

TEST(Dump, TruncatesAndReportsOnlyAFileItCannotOpen) {
    TempDir dir;
    zyttest::WriteFile(dir / "dump.raw", std::string(100, 'x'));
    unsigned char bytes[] = "12345678";
    ZYTImageBuffer one = Image(ZYT_FORMAT_YUV420NV12, 8, 1, 16, 2);
    one.pAddr[0] = bytes;
    EXPECT_TRUE(ZYTBufferUtil::ZYTBufferDump(&one, (dir / "dump.raw").c_str()));
    EXPECT_EQ(ReadFile(dir / "dump.raw"), "12345678");
    EXPECT_FALSE(ZYTBufferUtil::ZYTBufferDump(&one, (dir / "missing/dump.raw").c_str()));
    EXPECT_TRUE(ZYTBufferUtil::ZYTBufferDump(&one, "/dev/full")) << "write errors are not reported";
    one.width = 0x80000000;
    one.format = ZYT_FORMAT_Y16;
    EXPECT_ABORT(ZYTBufferUtil::ZYTBufferDump(&one, "/dev/null"));
}

TEST(OffScreen, DescribesAnImage) {
    unsigned char planes[4] = {};
    ZYTImageBuffer image = Image(ZYT_FORMAT_YUV420NV21, 8, 4, 16, 4);
    for (int i = 0; i < 4; ++i) image.pAddr[i] = planes + i;
    ASVL_OFFSCREEN offscreen{};
    ZYTBufferUtil::ZYTBufferToASVLOffScreen(&image, &offscreen);
    EXPECT_EQ(offscreen.u32PixelArrayFormat, 0x802u);
    EXPECT_EQ(offscreen.i32Width, 8);
    EXPECT_EQ(offscreen.i32Height, 4);
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(offscreen.ppu8Plane[i], image.pAddr[i]);
        EXPECT_EQ(offscreen.pi32Pitch[i], 16);
    }
    image.format = ZYT_FORMAT_YUV420NV12;
    ZYTBufferUtil::ZYTBufferToASVLOffScreen(&image, &offscreen);
    EXPECT_EQ(offscreen.u32PixelArrayFormat, 0x801u);
    image.format = ZYT_FORMAT_RAW10;
    offscreen.u32PixelArrayFormat = 5;
    ZYTBufferUtil::ZYTBufferToASVLOffScreen(&image, &offscreen);
    EXPECT_EQ(offscreen.u32PixelArrayFormat, 5u) << "raw callers set it themselves";
}

TEST(OffScreen, KnowsTheVendorsRawCodes) {
    // The first of each format's four consecutive codes; all that are not listed have the one of Raw10.
    const std::pair<int, unsigned int> cases[] = {
        {ZYT_FORMAT_RAW10, 0xD09},     {ZYT_FORMAT_RAW12, ASVL_PAF_RAW12_RGGB_16B},
        {ZYT_FORMAT_RAW14, 0xD41},     {ZYT_FORMAT_RAW16, 0xD21},
        {ZYT_FORMAT_RAWMIPI10, 0xD09}, {99, 0xD09}};
    for (const auto& [value, first] : cases) {
        const auto format = static_cast<ZYTFormat>(value);
        for (const int pattern : {0, 1, 2, 3}) {
            EXPECT_EQ(ZYTBufferUtil::GetASVLOffScreenRawFormat(format, pattern),
                      first + static_cast<unsigned int>(pattern));
        }
        for (const int pattern : {4, -1}) EXPECT_EQ(ZYTBufferUtil::GetASVLOffScreenRawFormat(format, pattern), 0u);
    }
}

TEST(FormatName, IsSpelledAsLogsKnowIt) {
    const char* const names[] = {"Unknow",    "YUV420NV12", "YUV420NV21", "RawMipi10", "RawMipi12",
                                 "RawMipi14", "YUV_P010",   "Y16",        "Raw10",     "Raw12",
                                 "Raw14",     "Raw16",      "Unknow"};
    for (int format = -1; format <= 11; ++format) {
        ZYTImageBuffer image{};
        image.format = static_cast<ZYTFormat>(format);
        EXPECT_EQ(ZYTBufferUtil::GetBufferFormatString(&image), names[format + 1]);
    }
}
