#include "zytbuffermanager/zytbufferutil.h"

#include "rules.h"
#include "support.h"

using zyttest::Image;
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
    EXPECT_EQ(zyttest::ReadFile(dir / "dump.raw"), "12345678");
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
    EXPECT_THAT(offscreen,
                testing::FieldsAre(testing::_, 8, 4, testing::ElementsAreArray(image.pAddr), testing::Each(16)));
}

TEST(Formats, HaveTheNamesAndRawCodesThatOthersKnow) {
    const struct {
        const char* name;
        unsigned int code = 0xD09;  // of pattern 0; those of the other patterns follow
    } formats[] = {{"Unknow"},       {"YUV420NV12"},   {"YUV420NV21"}, {"RawMipi10"}, {"RawMipi12"},
                   {"RawMipi14"},    {"YUV_P010"},     {"Y16"},        {"Raw10"},     {"Raw12", 0xD11},
                   {"Raw14", 0xD41}, {"Raw16", 0xD21}, {"Unknow"}};
    for (int number = -1; number <= 11; ++number) {
        const auto format = static_cast<ZYTFormat>(number);
        EXPECT_EQ(ZYTBufferUtil::GetBufferFormatString(format), formats[number + 1].name);
        EXPECT_EQ(ZYTBufferUtil::GetASVLOffScreenRawFormat(format, 0), formats[number + 1].code);
        EXPECT_EQ(ZYTBufferUtil::GetASVLOffScreenRawFormat(format, 3), formats[number + 1].code + 3);
        for (const int pattern : {4, -1}) EXPECT_EQ(ZYTBufferUtil::GetASVLOffScreenRawFormat(format, pattern), 0u);
    }
    const ZYTImageBuffer image = Image(ZYT_FORMAT_RAW16, 1, 1, 1, 1);
    EXPECT_EQ(ZYTBufferUtil::GetBufferFormatString(&image), "Raw16");
}
