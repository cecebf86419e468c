#include "zytbuffermanager/zytbufferutil.h"

#include "support.h"

using zyttest::ReadFile;
using zyttest::TempDir;

namespace {

constexpr unsigned char kSlack = 0xee;

// An image over memory of its own: one buffer a plane, or one for both. Each byte differs from its neighbours, and the
// slack of the source differs from that of the destination.
struct OwnedImage {
    OwnedImage(int format, uint32_t width, uint32_t height, uint32_t stride, uint32_t slice, uint32_t planes,
               bool isSource)
        : m_first(stride * slice * (planes == 1 ? 2 : 1), kSlack), m_second(stride * slice, kSlack) {
        image = zyttest::Image(format, width, height, stride, slice);
        image.numberOfPlanes = planes;
        image.pAddr[0] = m_first.data();
        if (planes > 1) image.pAddr[1] = m_second.data();
        if (!isSource) return;
        for (size_t i = 0; i < m_first.size(); ++i) m_first[i] = static_cast<unsigned char>(i * 7 + i / 251);
        for (size_t i = 0; i < m_second.size(); ++i) m_second[i] = static_cast<unsigned char>(i * 11 + 3 + i / 251);
    }

    const unsigned char* Row(uint32_t plane, uint32_t y) const {
        const bool isApart = plane == 1 && image.numberOfPlanes > 1;
        const uint32_t start = plane == 1 && !isApart ? image.planeStride * image.sliceHeight : 0;
        return (isApart ? m_second : m_first).data() + start + y * image.planeStride;
    }

    ZYTImageBuffer image{};

private:
    std::vector<unsigned char> m_first;
    std::vector<unsigned char> m_second;
};

// The pixels that a plane is expected to have: rows of bytes.
std::string Pixels(const OwnedImage& owned, uint32_t plane, uint32_t rows, uint32_t rowBytes) {
    std::string pixels;
    for (uint32_t y = 0; y < rows; ++y) pixels.append(reinterpret_cast<const char*>(owned.Row(plane, y)), rowBytes);
    return pixels;
}

size_t BytesWritten(const OwnedImage& owned) {
    size_t written = 0;
    const uint32_t rows = owned.image.sliceHeight;
    for (const uint32_t plane : {0u, 1u}) {
        for (const char c : Pixels(owned, plane, rows, owned.image.planeStride)) {
            written += static_cast<unsigned char>(c) != kSlack;
        }
    }
    return written;
}

struct PlaneCase {
    int format;
    uint32_t copyRowBytes;
    uint32_t dumpRowBytes;
    bool hasChroma;
};

// For a width of 21 pixels.
constexpr PlaneCase kPlaneCases[] = {
    {0, 21, 21, true},   {1, 21, 21, true},  {2, 26, 26, false}, {3, 31, 31, false}, {4, 36, 36, false},
    {5, 42, 42, true},   {6, 42, 21, false}, {7, 42, 42, false}, {8, 42, 42, false}, {9, 42, 42, false},
    {10, 42, 42, false}, {11, 42, 0, false}, {-1, 42, 0, false},
};

}  // namespace

TEST(Copy, MovesThePixelsOfEveryFormatAndNothingElse) {
    for (const PlaneCase& c : kPlaneCases) {
        for (const uint32_t srcPlanes : {1u, 2u}) {
            for (const uint32_t dstPlanes : {1u, 2u}) {
                if (c.format == 5 && (srcPlanes == 1 || dstPlanes == 1)) continue;  // P010 always has two addresses
                SCOPED_TRACE(testing::Message() << c.format << " " << srcPlanes << "->" << dstPlanes);
                const OwnedImage src(c.format, 21, 9, 48, 9, srcPlanes, true);
                OwnedImage dst(c.format, 21, 9, 64, 12, dstPlanes, false);
                EXPECT_TRUE(ZYTBufferUtil::ZYTBufferCopy(&dst.image, &src.image));
                EXPECT_EQ(Pixels(dst, 0, 9, c.copyRowBytes), Pixels(src, 0, 9, c.copyRowBytes));
                const uint32_t chromaRows = c.hasChroma ? 4 : 0;
                EXPECT_EQ(Pixels(dst, 1, chromaRows, c.copyRowBytes), Pixels(src, 1, chromaRows, c.copyRowBytes));
                EXPECT_LE(BytesWritten(dst), (9 + chromaRows) * c.copyRowBytes);
            }
        }
    }
}

TEST(Copy, BetweenFormatsMovesTheFirstPlaneAs16Bit) {
    const OwnedImage nv12(ZYT_FORMAT_YUV420NV12, 8, 4, 32, 4, 2, true);
    OwnedImage mipi(ZYT_FORMAT_RAWMIPI10, 8, 4, 32, 4, 2, false);
    EXPECT_TRUE(ZYTBufferUtil::ZYTBufferCopy(&mipi.image, &nv12.image));
    EXPECT_EQ(Pixels(mipi, 0, 4, 16), Pixels(nv12, 0, 4, 16));
    EXPECT_LE(BytesWritten(mipi), 64u);

    const OwnedImage p010(ZYT_FORMAT_YUV_P010, 8, 4, 32, 4, 2, true);
    OwnedImage raw(ZYT_FORMAT_RAW16, 8, 4, 32, 4, 2, false);
    EXPECT_TRUE(ZYTBufferUtil::ZYTBufferCopy(&raw.image, &p010.image));
    EXPECT_EQ(Pixels(raw, 1, 2, 16), Pixels(p010, 1, 2, 16)) << "a P010 source is never compared";
}

TEST(Copy, WantsEqualOrTransposedSizes) {
    const OwnedImage src(ZYT_FORMAT_YUV420NV12, 16, 8, 16, 8, 2, true);
    OwnedImage transposed(ZYT_FORMAT_YUV420NV12, 8, 16, 16, 16, 2, false);
    EXPECT_TRUE(ZYTBufferUtil::ZYTBufferCopy(&transposed.image, &src.image));
    EXPECT_EQ(Pixels(transposed, 0, 8, 16), Pixels(src, 0, 8, 16)) << "by the source's rows, not rotated";
    OwnedImage other(ZYT_FORMAT_YUV420NV12, 16, 9, 16, 9, 2, false);
    EXPECT_FALSE(ZYTBufferUtil::ZYTBufferCopy(&other.image, &src.image));
    EXPECT_EQ(BytesWritten(other), 0u);
}

TEST(Copy, KnowsSmallAndImpossibleHeights) {
    OwnedImage dst(ZYT_FORMAT_YUV420NV12, 8, 1, 8, 4, 1, false);
    const OwnedImage src(ZYT_FORMAT_YUV420NV12, 8, 1, 8, 4, 1, true);
    EXPECT_TRUE(ZYTBufferUtil::ZYTBufferCopy(&dst.image, &src.image));
    EXPECT_LE(BytesWritten(dst), 8u) << "no chroma row for a single luma row";

    ZYTImageBuffer none{};
    EXPECT_TRUE(ZYTBufferUtil::ZYTBufferCopy(&none, &none));
    const unsigned char rows[] = {1, 2, 3};
    unsigned char upwards[3] = {};
    ZYTBufferUtil::ZYTCopyPlane(upwards, rows + 2, 1, 3, 1, -1);
    ZYTBufferUtil::ZYTCopyPlane(upwards, nullptr, 1, -1, 1, 1);
    EXPECT_TRUE(upwards[0] == 3 && upwards[1] == 2 && upwards[2] == 1);

    for (const ZYTFormat format : {ZYT_FORMAT_RAW16, ZYT_FORMAT_RAWMIPI10}) {
        const ZYTImageBuffer wide = zyttest::Image(format, 0x40000000, 1, 0, 0);
        ZYTImageBuffer copy = wide;
        EXPECT_ABORT(ZYTBufferUtil::ZYTBufferCopy(&copy, &wide));
    }
    OwnedImage far(ZYT_FORMAT_YUV420NV12, 8, 2, 8, 4, 1, true);
    far.image.sliceHeight = 0x20000000;
    EXPECT_ABORT(ZYTBufferUtil::ZYTBufferCopy(&far.image, &far.image));
}

TEST(Dump, WritesThePixelsOfEveryFormatBackToBack) {
    TempDir dir;
    for (const PlaneCase& c : kPlaneCases) {
        for (const uint32_t planes : {1u, 2u}) {
            if (c.format == 5 && planes == 1) continue;
            SCOPED_TRACE(testing::Message() << c.format << " planes " << planes);
            const OwnedImage src(c.format, 21, 9, 48, 10, planes, true);
            EXPECT_TRUE(ZYTBufferUtil::ZYTBufferDump(&src.image, (dir / "dump.raw").c_str()));
            const uint32_t rows = c.dumpRowBytes == 0 ? 0 : 9;
            const uint32_t chromaRows = c.hasChroma ? 4 : 0;
            EXPECT_EQ(ReadFile(dir / "dump.raw"),
                      Pixels(src, 0, rows, c.dumpRowBytes) + Pixels(src, 1, chromaRows, c.dumpRowBytes));
        }
    }
}

TEST(Dump, TruncatesAndReportsOnlyAFileItCannotOpen) {
    TempDir dir;
    zyttest::WriteFile(dir / "dump.raw", std::string(100, 'x'));
    OwnedImage one(ZYT_FORMAT_YUV420NV12, 8, 1, 16, 2, 1, true);
    EXPECT_TRUE(ZYTBufferUtil::ZYTBufferDump(&one.image, (dir / "dump.raw").c_str()));
    EXPECT_EQ(ReadFile(dir / "dump.raw"), Pixels(one, 0, 1, 8));
    one.image.height = 0;
    EXPECT_TRUE(ZYTBufferUtil::ZYTBufferDump(&one.image, (dir / "dump.raw").c_str()));
    EXPECT_EQ(ReadFile(dir / "dump.raw"), "");
    EXPECT_FALSE(ZYTBufferUtil::ZYTBufferDump(&one.image, (dir / "missing/dump.raw").c_str()));
    EXPECT_TRUE(ZYTBufferUtil::ZYTBufferDump(&one.image, "/dev/full")) << "write errors are not reported";
}

TEST(OffScreen, DescribesAnImage) {
    OwnedImage nv21(ZYT_FORMAT_YUV420NV21, 8, 4, 16, 4, 2, true);
    ASVL_OFFSCREEN offscreen{};
    ZYTBufferUtil::ZYTBufferToASVLOffScreen(&nv21.image, &offscreen);
    EXPECT_EQ(offscreen.u32PixelArrayFormat, 0x802u);
    EXPECT_EQ(offscreen.i32Width, 8);
    EXPECT_EQ(offscreen.i32Height, 4);
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(offscreen.ppu8Plane[i], nv21.image.pAddr[i]);
        EXPECT_EQ(offscreen.pi32Pitch[i], 16);
    }
    nv21.image.format = ZYT_FORMAT_YUV420NV12;
    ZYTBufferUtil::ZYTBufferToASVLOffScreen(&nv21.image, &offscreen);
    EXPECT_EQ(offscreen.u32PixelArrayFormat, 0x801u);
    nv21.image.format = ZYT_FORMAT_RAW10;
    offscreen.u32PixelArrayFormat = 5;
    ZYTBufferUtil::ZYTBufferToASVLOffScreen(&nv21.image, &offscreen);
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
