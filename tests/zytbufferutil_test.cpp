#include "zytbuffermanager/zytbufferutil.h"

#include "rules.h"
#include "support.h"

using zyttest::Image;
using zyttest::ReadFile;
using zyttest::TempDir;

TEST(CopyAndDump, MoveThePixelsOfEveryFormatAndNothingElse) {
    EXPECT_TRUE(zytrule::Holds(zytrule::MovesByRule, 1500, TempDir().Path()));
}

TEST(Copy, EndsTheProcessOnImpossibleSizes) {
    ZYTImageBuffer wide = Image(ZYT_FORMAT_RAW16, 0x40000000, 1, 0, 0);
    EXPECT_ABORT("bytes of a row: 2147483648 does not fit in 31 bits", ZYTBufferUtil::ZYTBufferCopy(&wide, &wide));
    wide.format = ZYT_FORMAT_RAWMIPI10;
    EXPECT_ABORT("bits or bytes of a row: 1073741824 * 10 ", ZYTBufferUtil::ZYTBufferCopy(&wide, &wide));
    unsigned char bytes[16] = {};
    ZYTImageBuffer far = Image(ZYT_FORMAT_YUV420NV12, 8, 2, 8, 0x20000000);
    far.pAddr[0] = bytes;
    EXPECT_ABORT("planeStride * sliceHeight: 8 * 536870912 ", ZYTBufferUtil::ZYTBufferCopy(&far, &far));
}

TEST(Copy, MovesPlanesUpwardsToo) {
    const unsigned char rows[] = {1, 2, 3};
    unsigned char upwards[3] = {};
    ZYTBufferUtil::ZYTCopyPlane(upwards, rows + 2, 1, 3, 1, -1);
    ZYTBufferUtil::ZYTCopyPlane(upwards, nullptr, 1, -1, 1, 1);
    EXPECT_THAT(upwards, testing::ElementsAre(3, 2, 1));
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
    EXPECT_ABORT("bytes of a row: 2147483648 ", ZYTBufferUtil::ZYTBufferDump(&one, "/dev/null"));
}

TEST(OffScreen, DescribesAnImage) {
    unsigned char planes[4] = {};
    ZYTImageBuffer image = Image(ZYT_FORMAT_YUV420NV21, 8, 4, 16, 4);
    for (int i = 0; i < 4; ++i) image.pAddr[i] = planes + i;
    ASVL_OFFSCREEN offscreen{};
    for (int format = -1; format <= 11; ++format) {
        image.format = static_cast<ZYTFormat>(format);
        offscreen.u32PixelArrayFormat = 7;  // callers set the codes of other formats
        ZYTBufferUtil::ZYTBufferToASVLOffScreen(&image, &offscreen);
        EXPECT_EQ(offscreen.u32PixelArrayFormat, format == 0 ? 0x801u : format == 1 ? 0x802u : 7u) << format;
    }
    EXPECT_EQ(offscreen.i32Width, 8);
    EXPECT_EQ(offscreen.i32Height, 4);
    EXPECT_THAT(offscreen.pi32Pitch, testing::Each(16));
    EXPECT_THAT(offscreen.ppu8Plane, testing::ElementsAreArray(image.pAddr));
}

TEST(OffScreen, KnowsTheVendorsRawCodes) {
    // The first of the four consecutive codes of each format. All others have that of Raw10.
    std::map<int, unsigned int> firsts = {
        {ZYT_FORMAT_RAW12, 0xD11}, {ZYT_FORMAT_RAW14, 0xD41}, {ZYT_FORMAT_RAW16, 0xD21}};
    for (int format = -1; format <= 11; ++format) {
        const unsigned int first = firsts.emplace(format, 0xD09).first->second;
        for (const int pattern : {0, 3, 4, -1}) {
            EXPECT_EQ(ZYTBufferUtil::GetASVLOffScreenRawFormat(static_cast<ZYTFormat>(format), pattern),
                      pattern == 0   ? first
                      : pattern == 3 ? first + 3
                                     : 0);
        }
    }
}

TEST(FormatName, IsSpelledAsLogsKnowIt) {
    std::string names;
    for (int format = -1; format <= 11; ++format) {
        const ZYTImageBuffer image = Image(format, 1, 1, 1, 1);
        names += ZYTBufferUtil::GetBufferFormatString(&image) + " ";
    }
    EXPECT_EQ(
        names,
        "Unknow YUV420NV12 YUV420NV21 RawMipi10 RawMipi12 RawMipi14 YUV_P010 Y16 Raw10 Raw12 Raw14 Raw16 Unknow ");
}
