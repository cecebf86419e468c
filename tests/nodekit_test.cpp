#include <fcntl.h>
#include <hostdevice/hostdevice.h>
#include <sys/stat.h>
#include <unistd.h>

#include <future>
#include <random>
#include <thread>

#include "nodekit/connection.h"
#include "nodekit/dumpfile.h"
#include "nodekit/importedimage.h"
#include "nodekit/logflush.h"
#include "nodekit/rawpixels.h"
#include "support.h"

using hostdevice::Fault;
using testing::HasSubstr;
using zyt::CpuAccess;
using zyt::Describe;
using zyt::Image;
using zyttest::LogCapture;

namespace {

// Calls step once for each `operator new` of this thread in it, which fails, and once with none failing.
template <typename Step>
void WithEachNewFailing(const Step& step) {
    for (uint64_t n = 1; !FaultPending(zyttest::Call::kNew); ++n) {
        SCOPED_TRACE(n);
        FailNth(zyttest::Call::kNew, n);
        step();
    }
    FailNth(zyttest::Call::kNew, 0);
}

constexpr ZYTFormat kNv12 = ZYT_FORMAT_YUV420NV12;
constexpr ZYTBufferType kTypes[] = {ZYT_BUFFER_TYPE_MALLOC, ZYT_BUFFER_TYPE_DMABUF, ZYT_BUFFER_TYPE_GRALLOC};

// Returns the bytes from row to row and the rows from plane to plane.
auto Pitches(const ZYTImageBuffer& image) { return std::pair(image.planeStride, image.sliceHeight); }

uint64_t CountLiveMemory() {
    const auto [descriptors, mappings, buffers, graphicDescriptors, graphicMappings] = hostdevice::CountLive();
    return descriptors + mappings + buffers + graphicDescriptors + graphicMappings;
}

// Returns the number of errors logged for an object of that name since the last call.
int CountErrors(LogCapture& log, const std::string& name) {
    int count = 0;
    for (const std::string& line : log.Take()) count += line.rfind("E [" + name + "] ", 0) == 0;
    return count;
}

// Writes all memory that the record describes, chroma included.
void Fill(Image& image) {
    CpuAccess access(CPU_SYNC_WRITE, "nodekit", image);
    int row = 0;
    zyt::detail::EachRow(*image,
                         [&](unsigned char* pixels, size_t bytes) { return std::memset(pixels, ++row, bytes); });
}

// Returns the position of a bit of pixel x in a row. A packed group has the upper 8 bits of its pixels, then the lower.
size_t PlaceOfBit(const zyt::FormatLayout& layout, size_t x, size_t bit) {
    if (!layout.IsPacked()) return x * 8 * layout.rowNumerator + bit + (layout.kind == zyt::FormatKind::kP010 ? 6 : 0);
    const size_t pixels = layout.bits == 12 ? 2 : 4, lows = layout.bits - 8;
    const size_t group = x / pixels * pixels * layout.bits;
    return bit >= lows ? group + x % pixels * 8 + bit - lows : group + pixels * 8 + x % pixels * lows + bit;
}

// Discards queued tasks like FlushTask(), but without the leak of the kit's notices.
void Flush(ZYTThreadPool& pool) {
    using Work = zyt::detail::SharedWork;
    const zyt::Lock lock(pool.m_taskListLock);
    for (const ZYTThreadPoolTask& task : pool.m_taskList) {
        if (task.func == Work::RunNotice) (*static_cast<Work**>(task.data))->Release(1);
        std::free(task.data);
    }
    pool.m_taskList.clear();
}

}  // namespace

TEST(RawPixels, AreEqualBitByBitInRowsOfAnyLength) {
    std::mt19937 random(3);
    for (int format = 0; format <= ZYT_FORMAT_RAW16; ++format) {
        const zyt::FormatLayout& layout = zyt::kFormatLayouts[format];
        for (uint32_t width = 0; width < 70; ++width) {
            SCOPED_TRACE(std::string(layout.name) + " of " + std::to_string(width));
            // Heap blocks of the exact length, so that a sanitizer sees an access beyond the end.
            std::vector<unsigned char> row(static_cast<size_t>(layout.RowBytes(width)), 0xa5), expected(row.size());
            std::vector<uint16_t> samples(width), kept(width);
            for (size_t x = 0; x < width; ++x) {
                samples[x] = static_cast<uint16_t>(random());
                const unsigned int sample = std::min<unsigned int>(samples[x], (1u << layout.bits) - 1);
                for (size_t bit = 0; bit < layout.bits; ++bit) {
                    const size_t place = PlaceOfBit(layout, x, bit);
                    if (place / 8 >= row.size() || (sample >> bit & 1) == 0) continue;
                    expected[place / 8] = static_cast<unsigned char>(expected[place / 8] | 1u << place % 8);
                    kept[x] = static_cast<uint16_t>(kept[x] | 1u << bit);
                }
            }
            EXPECT_TRUE(zyt::PackRow(static_cast<ZYTFormat>(format), samples.data(), width, row.data()));
            EXPECT_EQ(row, expected);
            EXPECT_TRUE(zyt::UnpackRow(static_cast<ZYTFormat>(format), row.data(), width, samples.data()));
            EXPECT_EQ(samples, kept);
        }
    }
    EXPECT_FALSE(zyt::UnpackRow(static_cast<ZYTFormat>(11), nullptr, 1, nullptr));
    EXPECT_FALSE(zyt::PackRow(static_cast<ZYTFormat>(-1), nullptr, 1, nullptr));
}

TEST(DumpName, TellsSizeAndFormat) {
    const auto parse = [](const std::string& name) {
        const zyt::DumpInfo info = zyt::ParseDumpName(name);
        return zyttest::Text("%ux%u %d", info.width, info.height, info.format ? *info.format : -1);
    };
    for (int format = 0; format <= ZYT_FORMAT_RAW16; ++format) {
        EXPECT_EQ(parse("/1x1_Y16/" + zyt::DumpName(zyttest::Image(format, 131072, 3000, 0, 0), "640x480 nv21")),
                  "131072x3000 " + std::to_string(format));
    }
    EXPECT_EQ(zyt::DumpName(zyttest::Image(0, 131073, 1, 0, 0), "a"), "") << "which no parser reads";
    EXPECT_EQ(zyt::DumpName(zyttest::Image(0, 1, 131073, 0, 0), "a"), "");
    EXPECT_EQ(parse("a-4X3.P010"), "4x3 " + std::to_string(ZYT_FORMAT_YUV_P010));
    for (const char* name : {"", "a", "x", "4x", "x3", "4x3x2", "0x3", "4x0", "+4x3", "4x-3", "131073x1",
                             "99999999999x1", "4x3/a", "rawmipi1", "rawmipi100"}) {
        EXPECT_EQ(parse(name), "0x0 -1") << name;
    }
}

TEST(Describe, RoundsRowsToWholeGroupsAndSlicesToWholeChromaRows) {
    EXPECT_EQ(Pitches(Describe(ZYT_FORMAT_RAWMIPI10, 5, 5)), std::pair(10u, 5u));
    EXPECT_EQ(Pitches(Describe(ZYT_FORMAT_RAWMIPI12, 5, 5)), std::pair(9u, 5u));
    EXPECT_EQ(Pitches(Describe(ZYT_FORMAT_RAWMIPI14, 5, 5)), std::pair(14u, 5u));
    EXPECT_EQ(Pitches(Describe(ZYT_FORMAT_YUV_P010, 5, 5)), std::pair(12u, 6u));
    EXPECT_EQ(Pitches(Describe(kNv12, 5, 5)), std::pair(6u, 6u));
    EXPECT_EQ(Pitches(Describe(kNv12, 5, 5, 64, 32)), std::pair(64u, 32u));
}

TEST(Plane, ViewsSamplesOfAnyImage) {
    alignas(2) unsigned char memory[400];
    const auto where = [&](const auto& plane) {
        const auto at = reinterpret_cast<const unsigned char*>(plane.data) - memory;
        return zyttest::Text("%ux%u at %td, then %u", plane.width, plane.height, plane ? at : -1, plane.stride);
    };
    ZYTImageBuffer image = Describe(ZYT_FORMAT_YUV_P010, 10, 6, 32, 8);
    image.pAddr[image.numberOfPlanes++] = memory;
    EXPECT_FALSE(zyt::PlaneOf<uint16_t>(image, 1)) << "P010's chroma has an address of its own";
    image.pAddr[image.numberOfPlanes++] = memory + 200;
    const auto chroma = zyt::PlaneOf<const uint16_t>(image, 1);
    EXPECT_EQ(where(chroma), "10x3 at 200, then 32");
    EXPECT_EQ(where(chroma.Crop(1, 7, 3, 2)), "3x2 at 246, then 32") << "top, left, width, height";
    EXPECT_FALSE(chroma.Crop(1, 7, 4, 2));
    EXPECT_FALSE(chroma.Crop(2, 7, 3, 2));
    EXPECT_FALSE(chroma.Crop(0, 0xffffffff, 2, 1));

    image.format = kNv12;
    image.numberOfPlanes = 1;
    EXPECT_EQ(where(zyt::PlaneOf<uint8_t>(image, 1)), "10x3 at 256, then 32") << "behind the slice height";
    EXPECT_FALSE(zyt::PlaneOf<uint8_t>(image, 2));
    EXPECT_FALSE(zyt::PlaneOf<uint32_t>(image, 0)) << "10 bytes";
    image.planeStride = 33;
    EXPECT_FALSE(zyt::PlaneOf<uint16_t>(image, 0));
    image.planeStride = 32;
    for (void* address : {static_cast<void*>(memory + 1), static_cast<void*>(nullptr), MAP_FAILED}) {
        image.pAddr[0] = static_cast<unsigned char*>(address);
        EXPECT_FALSE(zyt::PlaneOf<uint16_t>(image, 0));
    }
    image = Describe(ZYT_FORMAT_RAWMIPI10, 8, 1);
    image.pAddr[image.numberOfPlanes++] = memory;
    EXPECT_EQ(where(zyt::PlaneOf<uint8_t>(image, 0)), "10x1 at 0, then 10");
    EXPECT_FALSE(zyt::PlaneOf<uint16_t>(image, 0));
}

TEST(Image, OwnsMemoryForItsWholeGeometryAndGivesItBackOnce) {
    Image late;
    {
        ZYTBufferManager manager("Node");
        for (const ZYTBufferType type : kTypes) {
            for (const uint32_t side : {1u, 2u, 65u}) {
                Image image(manager, Describe(kNv12, side, side, 3), type);
                ASSERT_TRUE(image) << type;
                EXPECT_EQ(zyt::WhatIsWrong(*image), nullptr);
                EXPECT_EQ(image->planeStride % (type == ZYT_BUFFER_TYPE_GRALLOC ? 64 : 3), 0u);
                EXPECT_EQ(image->sliceHeight % (type == ZYT_BUFFER_TYPE_GRALLOC ? 32 : 2), 0u) << "as gralloc has it";
                Fill(image);
                void* address = image->pAddr[0];
                Image other(std::move(image));
                EXPECT_FALSE(image);  // NOLINT(bugprone-use-after-move)
                EXPECT_EQ(std::exchange(other->pAddr[0], nullptr), address) << "the caller's to change";
                if (type == ZYT_BUFFER_TYPE_GRALLOC) late = std::move(other);
            }
        }
        EXPECT_EQ(zyt::ReadPool().busy->size(), 1u) << "the late one";
    }
    late.Reset();
    EXPECT_EQ(zyt::ReadPool().clients, 0u);
    EXPECT_EQ(hostdevice::CountLive().graphicMappings, 3u) << "as the pool's own clean-up leaves them";
    EXPECT_EQ(CountLiveMemory(), 3u);
}

TEST(Image, HasTheLayoutThatGrallocReports) {
    alignas(65536) static unsigned char memory[65536];
    const android_ycbcr nv12 = {memory, memory + 6400, memory + 6401, 64, 64, 2, {}};
    ZYTImageBuffer image = Describe(kNv12, 60, 90);
    EXPECT_STREQ(zyt::detail::TakeLayout(nv12, image), nullptr);
    EXPECT_EQ(Pitches(image), std::pair(64u, 100u));
    EXPECT_STREQ(zyt::detail::TakeLayout({memory, nv12.cr, nv12.cb, 64, 64, 2, {}}, image), nullptr);
    EXPECT_EQ(image.format, ZYT_FORMAT_YUV420NV21);
    const std::pair<android_ycbcr, const char*> refusals[] = {
        {{nullptr, nv12.cb, nv12.cr, 64, 64, 2, {}}, "not report"},
        {{memory, nv12.cb, nullptr, 64, 64, 2, {}}, "not report"},
        {{memory + 64, nv12.cb, nv12.cr, 64, 64, 2, {}}, "begin at a page"},
        {{memory, nv12.cb, nv12.cr, 64, 64, 1, {}}, "interleaved"},
        {{memory, nv12.cb, memory + 9600, 64, 64, 2, {}}, "interleaved"},
        {{memory, nv12.cb, nv12.cr, 64, 32, 2, {}}, "stride"},
        {{memory, nv12.cb, nv12.cr, 63, 63, 2, {}}, "begin at a row"},
    };
    for (const auto& [planes, reason] : refusals) {
        EXPECT_THAT(zyt::detail::TakeLayout(planes, image), HasSubstr(reason));
    }
}

TEST(Image, IsThereOrNothingIsLeftOfIt) {
    LogCapture log;
    for (const Fault fault :
         {Fault::kHeapAllocation, Fault::kGraphicBuffer, Fault::kGraphicDescriptor, Fault::kMapping}) {
        for (const ZYTBufferType type : kTypes) {
            for (uint64_t n = 1; !hostdevice::FaultPending(fault); ++n) {
                SCOPED_TRACE(testing::Message() << type << " " << static_cast<int>(fault) << " at " << n);
                ZYTBufferManager manager("Node");
                hostdevice::FailNth(fault, n, fault == Fault::kMapping ? 2 : 1);
                Image image(manager, Describe(kNv12, 64, 64), type, "Mine");
                EXPECT_EQ(CountErrors(log, "Mine"), image ? 0 : 1);
                EXPECT_EQ(bool{image}, hostdevice::FaultPending(fault));
                image.Reset();
                EXPECT_TRUE(zyt::ReadPool().busy->empty());
                zyt::TrimPool(0);
                EXPECT_EQ(CountLiveMemory(), 0u);
            }
            hostdevice::ClearFaults();
        }
    }
}

TEST(Image, LeavesUnmappedBuffersOfOthersAlone) {
    ZYTBufferManager manager, other;
    ZYTBufferPool client;
    ZYTImageBuffer dead = Describe(ZYT_FORMAT_RAW16, 64, 64);
    for (const ZYTBufferType type : {ZYT_BUFFER_TYPE_DMABUF, ZYT_BUFFER_TYPE_GRALLOC}) {
        hostdevice::FailNth(Fault::kMapping, 1);
        ASSERT_TRUE(other.AllocBuffer(dead, type));
        ASSERT_EQ(dead.pAddr[0], MAP_FAILED);
        for (const ZYTBufferType wanted : {ZYT_BUFFER_TYPE_DMABUF, ZYT_BUFFER_TYPE_GRALLOC}) {
            hostdevice::FailNth(Fault::kMapping, 1);
            EXPECT_TRUE(Image(manager, Describe(kNv12, 64, 64), wanted));
            EXPECT_NE(fcntl(dead.fd[0], F_GETFD), -1) << "still open";
            EXPECT_EQ(zyt::ReadPool().busy->size(), 1u);
        }
        other.FreeBuffer(dead);
        client.PutBufferToPool(MAP_FAILED);
        EXPECT_TRUE(zyt::ReadPool().busy->empty());
        EXPECT_TRUE(Image(manager, dead, ZYT_BUFFER_TYPE_DMABUF)) << "the unmapped one is in the pool";
        zyt::TrimPool(0);
        EXPECT_EQ(CountLiveMemory(), 0u);
    }
}

TEST(Image, SaysWhatIsWrong) {
    LogCapture log;
    ZYTBufferManager manager;
    ZYTImageBuffer narrow = Describe(kNv12, 64, 64), low = narrow, tiny = Describe(kNv12, 1, 1);
    narrow.planeStride = low.sliceHeight = 63;
    tiny.planeStride = tiny.sliceHeight = 1;
    const std::tuple<ZYTImageBuffer, int, const char*> refusals[] = {
        {Describe(static_cast<ZYTFormat>(11), 64, 64), 0, "format is unknown"},
        {Describe(kNv12, 64, 0), 0, "no pixels"},
        {Describe(kNv12, 0, 64), 2, "no pixels"},
        {Describe(ZYT_FORMAT_RAW16, 0xffffffffu, 1), 0, "32 bits"},
        {Describe(kNv12, 65536, 65536), 1, "32 bits"},
        {Describe(kNv12, 65535, 65537), 2, "32 bits"},
        {narrow, 0, "stride is below"},
        {low, 0, "slice height is below"},
        {Describe(ZYT_FORMAT_RAW10, 64, 64), 2, "NV12 or NV21"},
        {Describe(kNv12, 64, 64), 3, "type is unknown"},
        {tiny, 0, "its chroma has no bytes"},
    };
    for (const auto& [description, type, reason] : refusals) {
        EXPECT_FALSE(Image(manager, description, static_cast<ZYTBufferType>(type)));
        EXPECT_THAT(log.Take().back(), HasSubstr(reason));
    }
    const Image image(manager, Describe(ZYT_FORMAT_YUV_P010, 64, 64), ZYT_BUFFER_TYPE_DMABUF);
    ZYTImageBuffer unmapped = *image, bare = *image, single = *image, many = *image, tall = *image;
    unmapped.pAddr[1] = static_cast<unsigned char*>(MAP_FAILED);
    bare.pAddr[1] = nullptr;
    single.numberOfPlanes = 1;
    many.numberOfPlanes = 5;
    tall.height = tall.sliceHeight = 640;
    EXPECT_STREQ(zyt::WhatIsWrong(unmapped), "the kernel refused to map it");
    EXPECT_STREQ(zyt::WhatIsWrong(bare), "it has no chroma");
    EXPECT_STREQ(zyt::WhatIsWrong(single), "it has no chroma");
    EXPECT_STREQ(zyt::WhatIsWrong(many), "it has more than 4 planes");
    EXPECT_STREQ(zyt::WhatIsWrong(tall), "a descriptor is smaller than its plane");
    EXPECT_STREQ(zyt::WhatIsWrong(Describe(kNv12, 64, 64)), "it has no memory");
}

TEST(CpuAccess, OpensEachDescriptorOnceAndClosesItAsItWasOpened) {
    LogCapture log;
    ZYTBufferManager manager;
    const ZYTImageBuffer size = Describe(kNv12, 64, 64);
    const Image shared(manager, size, ZYT_BUFFER_TYPE_DMABUF), plain(manager, size, ZYT_BUFFER_TYPE_MALLOC);
    std::vector<Image> burst;
    for (int i = 0; i < 20; ++i) burst.emplace_back(manager, size, ZYT_BUFFER_TYPE_DMABUF);
    const zyt::ImportedImage ring[] = {zyt::ImportedImage(*burst[0])};
    auto countSyncs = [before = hostdevice::SyncCount()]() mutable {
        return hostdevice::SyncCount() - std::exchange(before, hostdevice::SyncCount());
    };
    for (const CPUSyncType type : {CPU_SYNC_READ, CPU_SYNC_WRITE, CPU_SYNC_READ_WRITE}) {
        CpuAccess access(type, "Mine", shared, plain, *shared, burst, ring), moved(std::move(access));
        EXPECT_FALSE(access);  // NOLINT(bugprone-use-after-move)
        EXPECT_EQ(countSyncs(), 42u);
        EXPECT_THAT(hostdevice::LastSync(), testing::FieldsAre(testing::_, static_cast<int>(type), true, 0));
        EXPECT_TRUE(moved.Close());
        EXPECT_EQ(countSyncs(), 42u);
        EXPECT_THAT(hostdevice::LastSync(), testing::FieldsAre(testing::_, static_cast<int>(type), false, 0));
    }
    EXPECT_FALSE(CpuAccess(CPU_SYNC_READ, "Mine", shared, Image()));
    EXPECT_EQ(countSyncs(), 4u);
    hostdevice::FailNth(Fault::kSync, 2);
    EXPECT_FALSE(CpuAccess(CPU_SYNC_READ, "Mine", shared));
    EXPECT_EQ(countSyncs(), 3u) << "opened one, failed at the other, closed the one";
    hostdevice::FailNth(Fault::kSync, 3);
    EXPECT_FALSE(CpuAccess(CPU_SYNC_READ, "Mine", shared).Close());
    EXPECT_EQ(CountErrors(log, "Mine"), 3) << "one for each failure";
}

TEST(ImportedImage, FindsEachPlaneAtItsDescriptorAndOffsetAndClosesNothing) {
    LogCapture log;
    ZYTBufferManager manager;
    Image two(manager, Describe(kNv12, 64, 64), ZYT_BUFFER_TYPE_DMABUF);
    Image one(manager, Describe(ZYT_FORMAT_RAW16, 64, 64), ZYT_BUFFER_TYPE_DMABUF);  // 8192 bytes
    Fill(two);
    Fill(one);  // row y has y + 1
    const int fd = one->fd[0], duplicate = dup(fd);
    const int readOnly = open(("/proc/self/fd/" + std::to_string(fd)).c_str(), O_RDONLY);
    const uint64_t before = CountLiveMemory();
    const struct Import {
        std::vector<int> fds;
        zyt::ImportOptions options;
        int luma, chroma;  // the first samples; 0: refused
    } imports[] = {
        {{two->fd[0], two->fd[1]}, {}, 1, 65},
        {{fd, fd}, {}, 1, 33},
        {{fd, duplicate}, {}, 1, 1},
        {{fd, duplicate}, {{0, 4096}}, 1, 33},
        {{fd, fd}, {{128, 6144}}, 2, 49},
        {{fd, fd}, {{128, 0}}, 2, 34},
        {{fd}, {{128, 0}}, 2, 34},
        {{readOnly}, {{}, CPU_SYNC_READ}, 1, 33},
        {{readOnly}, {}, 0, 0},
        {{fd}, {{0, 4096}}, 0, 0},
        {{fd, fd}, {{0, 6145}}, 0, 0},
        {{fd, duplicate}, {{8193, 0}}, 0, 0},
        {{fd, 0}, {}, 0, 0},
        {{fd, fd, fd}, {}, 0, 0},
    };
    for (const Import& import : imports) {
        if (import.fds[0] == readOnly && readOnly < 0) continue;  // the kernel opens no DMA-BUF a second time
        ZYTImageBuffer description = Describe(kNv12, 64, 64);
        description.pAddr[3] = two->pAddr[0];
        description.numberOfPlanes = static_cast<uint32_t>(import.fds.size());
        std::copy(import.fds.begin(), import.fds.end(), description.fd);
        zyt::ImportedImage image(description, "Mine", import.options), moved(std::move(image));
        EXPECT_EQ(bool{moved}, import.luma != 0);
        EXPECT_EQ(CountErrors(log, "Mine"), import.luma != 0 ? 0 : 1);
        EXPECT_EQ(moved->pAddr[3], nullptr) << "addresses are not taken over";
        if (!moved) continue;
        CpuAccess access(CPU_SYNC_READ, "Mine", moved);
        EXPECT_EQ(zyt::PlaneOf<uint8_t>(moved, 0).Row(0)[0], import.luma);
        EXPECT_EQ(zyt::PlaneOf<uint8_t>(moved, 1).Row(0)[0], import.chroma);
    }
    EXPECT_EQ(CountLiveMemory(), before);
    close(duplicate);
    close(readOnly);
}

TEST(DumpFile, ComesBackAsItWasOrIsRefused) {
    LogCapture log;
    zyttest::TempDir dir;
    ZYTBufferManager manager;
    for (int format = 0; format <= ZYT_FORMAT_RAW16; ++format) {
        Image image(manager, Describe(static_cast<ZYTFormat>(format), 37, 5, 64), ZYT_BUFFER_TYPE_DMABUF);
        Fill(image);
        CpuAccess access(CPU_SYNC_READ, "nodekit", image);
        const std::string path = dir / zyt::DumpName(*image, "a");
        ASSERT_TRUE(zyt::WriteDump(*image, path));
        ASSERT_TRUE(zyt::WriteDump(*zyt::LoadDump(manager, path, ZYT_BUFFER_TYPE_MALLOC), dir / "b"));
        EXPECT_EQ(zyttest::ReadFile(path), zyttest::ReadFile(dir / "b"));
    }
    const Image image(manager, Describe(kNv12, 2, 2), ZYT_BUFFER_TYPE_MALLOC);
    ASSERT_EQ(mkfifo((dir / "fifo_1x1_Raw16").c_str(), 0600), 0);
    for (const std::string& path : {std::string("/dev/full"), dir / "none/c", dir / "fifo_1x1_Raw16"}) {
        EXPECT_FALSE(zyt::WriteDump(*image, path)) << path;
    }
    EXPECT_FALSE(zyt::WriteDump(Describe(kNv12, 2, 2), dir / "d"));

    for (const char* name : {"nameless", "1x1_Raw16", "2x2_Raw16"}) zyttest::WriteFile(dir / name, "12345");
    const size_t free = zyt::ReadPool().free->size();
    for (const char* name : {"nameless", "1x1_Raw16", "2x2_Raw16", "fifo_1x1_Raw16", "missing_2x2_Raw16"}) {
        EXPECT_FALSE(zyt::LoadDump(manager, dir / name, ZYT_BUFFER_TYPE_DMABUF)) << name;
    }
    struct stat status {};
    ASSERT_EQ(stat(dir.Path().c_str(), &status), 0);
    const ZYTImageBuffer asLong = Describe(kNv12, static_cast<uint32_t>(status.st_size), 1);
    EXPECT_FALSE(zyt::LoadDump(manager, dir.Path(), asLong, ZYT_BUFFER_TYPE_DMABUF)) << "a directory";
    EXPECT_EQ(zyt::ReadPool().free->size(), free) << "nothing was allocated";
    zyttest::WriteFile(dir / "1x1_Raw16", "12");
    hostdevice::FailNth(Fault::kSync, 1);
    EXPECT_FALSE(zyt::LoadDump(manager, dir / "1x1_Raw16", ZYT_BUFFER_TYPE_DMABUF));
    EXPECT_EQ(CountErrors(log, "nodekit"), 12) << "one for each refusal, and the access's own";
}

TEST(Parallel, LosesNothingWhateverHappensToThePool) {
    constexpr uint32_t kRows[] = {0, 1, 7, 3001};
    for (uint32_t round = 0; round < 60; ++round) {
        const uint32_t event = round % 3, rows = kRows[round / 3 % 4];
        ZYTThreadPool pool;
        ASSERT_TRUE(pool.Init(3));
        std::vector<std::atomic<int>> calls(rows);
        std::atomic<int> sum{0};
        std::vector<int> done, pushed;  // without a lock: one frame at a time
        std::atomic<size_t> count{0};
        auto process = [&, own = std::make_unique<int>()](std::unique_ptr<int>& frame) {
            done.push_back(*frame);
            std::this_thread::yield();
            ++count;
        };
        zyt::FrameQueue<std::unique_ptr<int>> queue(pool, std::move(process), 4);
        {
            zyt::TaskGroup group(pool);
            for (int i = 0; i < 20; ++i) {
                group.Run([&, i = std::make_unique<int>(i)] {
                    sum += *i;
                    if (*i == 5) group.Run([&] { sum += 1000; });  // a task adds to its own group
                });
            }
            std::thread meanwhile([&] {
                if (event == 1) Flush(pool);
                if (event == 2) pool.DeInit(false);
            });
            zyt::ParallelRows(pool, rows, [&](uint32_t from, uint32_t to) {
                for (uint32_t y = from; y < to; ++y) ++calls[y];
                zyt::ParallelRows(pool, 2, [&](uint32_t, uint32_t) { ++sum; });
            });
            for (int i = 0; i < 200; ++i) {
                auto frame = std::make_unique<int>(i);
                const bool isPushed = queue.Push(std::move(frame));
                EXPECT_EQ(frame == nullptr, isPushed) << "a refused one stays";  // NOLINT(bugprone-use-after-move)
                if (isPushed) pushed.push_back(i);
            }
            meanwhile.join();
        }
        for (const std::atomic<int>& number : calls) ASSERT_EQ(number, 1);
        EXPECT_EQ(sum, 190 + 1000 + 2 * static_cast<int>(std::min(rows, 8u)));
        EXPECT_TRUE(event != 0 || zyttest::WaitUntil([&] { return count == pushed.size(); }));
        for (const std::unique_ptr<int>& frame : queue.Close()) done.push_back(*frame);
        EXPECT_EQ(done, pushed);
    }
}

TEST(Parallel, WaitsForTheLastBand) {
    ZYTThreadPool pool;
    ASSERT_TRUE(pool.Init(1));
    const std::thread::id caller = std::this_thread::get_id();
    std::atomic<int> begun{0}, done{0};
    zyt::ParallelRows(pool, 2, [&](uint32_t, uint32_t) {
        ++begun;
        EXPECT_TRUE(zyttest::WaitUntil([&] { return begun == 2; })) << "one band on each thread";
        if (std::this_thread::get_id() != caller) std::this_thread::sleep_for(std::chrono::milliseconds(50));
        ++done;
    });
    EXPECT_EQ(done, 2);
}

TEST(FrameQueue, WaitsForTheFrameInWorkAndHandsBackTheOthers) {
    ZYTThreadPool pool;
    ASSERT_TRUE(pool.Init(2));
    std::promise<void> begun, released;
    const auto process = [&](int) {
        begun.set_value();
        released.get_future().get();
    };
    zyt::FrameQueue<int> queue(pool, process, 1000000), full(pool, process, 0);
    EXPECT_FALSE(full.Push(1));
    EXPECT_TRUE(queue.Push(1));
    begun.get_future().get();
    EXPECT_TRUE(queue.Push(2));
    auto left = std::async(std::launch::async, [&] { return queue.Close(); });
    EXPECT_TRUE(zyttest::WaitUntil([&] { return !queue.Push(3); })) << "closed";
    EXPECT_EQ(left.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout) << "a frame is in work";
    released.set_value();
    EXPECT_EQ(left.get().front(), 2);
}

TEST(Connection, RunsForEachRaiseThatFindsNonePending) {
    std::atomic<int> runs{0};
    const auto captured = std::make_shared<int>();
    {
        zyt::Connection other([&] { runs += 100; });
        zyt::Connection connection([&runs, &other, captured] {
            ++runs;
            other.Raise();
        });
        for (int i = 1; i <= 50; ++i) {
            ASSERT_TRUE(connection.Raise());
            ASSERT_TRUE(zyttest::WaitUntil([&] { return runs == 101 * i; })) << i;
        }
        const auto raise = [&] {
            for (int i = 0; i < 1000; ++i) connection.Raise();
        };
        std::thread raisers[] = {std::thread(raise), std::thread(raise), std::thread(raise), std::thread(raise)};
        for (std::thread& raiser : raisers) raiser.join();
        const int before = runs;
        connection.Raise();
        EXPECT_TRUE(zyttest::WaitUntil([&] { return runs > before; })) << "still connected";
    }
    EXPECT_EQ(captured.use_count(), 1) << "gone with the connection";
    EXPECT_EQ(ZYTSignalTask::instance()->insert(1, WrapperTask()), 1u) << "no connection is left";
}

TEST(Connection, DoesNotWaitInsideATaskAndSaysWhenItIsNotMadeOrDisconnected) {
    LogCapture log;
    std::promise<void> ended;
    std::atomic<int> runs{0};
    const auto captured = std::make_shared<int>();
    auto other = std::make_unique<zyt::Connection>([&runs, captured] { ++runs; });
    auto idle = std::make_unique<zyt::Connection>([captured] {});
    std::unique_ptr<zyt::Connection> own;
    own = std::make_unique<zyt::Connection>([&, captured, moveOnly = std::make_unique<int>(1)] {
        zyt::Connection refused([] {}, "Mine");
        EXPECT_FALSE(refused.Raise());
        other->Raise();
        other.reset();
        idle.reset();
        own.reset();
        EXPECT_EQ(*moveOnly, 1) << "lives until the run has ended";
        ended.set_value();
    });
    own->Raise();
    ended.get_future().get();
    EXPECT_TRUE(zyttest::WaitUntil([&] { return captured.use_count() == 1; }));
    EXPECT_EQ(runs, 0) << "the pending raise is dropped";
    EXPECT_EQ(ZYTSignalTask::instance()->insert(1, WrapperTask()), 1u) << "no connection is left";

    zyt::Connection disconnected([] {}, "Mine");
    ZYTSignalTask::instance()->disconnect();
    EXPECT_FALSE(disconnected.Raise());
    EXPECT_EQ(CountErrors(log, "Mine"), 3);
}

TEST(Memory, OfTheKitsOwnIsNotNeededToLoseNothing) {
    std::atomic<int> errors{0}, done{0}, runs{0};
    hostdevice::SetLogSink([&](int, const char*, const char*) { ++errors; });
    ZYTThreadPool pool;
    ASSERT_TRUE(pool.Init(2));
    zyt::TaskGroup group(pool);
    zyt::FrameQueue<int> queue(
        pool, [&](int item) { done += item; }, 1);
    int expected = 0;
    WithEachNewFailing([&] {
        zyt::ParallelRows(pool, 8, [&](uint32_t from, uint32_t to) { done += static_cast<int>(to - from); });
        group.Run([&] { ++done; });
        expected += 9 + queue.Push(1);
        while (done != expected) std::this_thread::yield();
    });
    ZYTBufferManager manager("Node");
    const Image shared(manager, Describe(kNv12, 64, 64), ZYT_BUFFER_TYPE_DMABUF);
    const auto access = [&] {
        errors = 0;
        const bool isOpen = static_cast<bool>(CpuAccess(CPU_SYNC_READ, "Mine", shared));
        EXPECT_EQ(errors, isOpen ? 0 : 1);
    };
    if (!hostdevice::IsStrict()) WithEachNewFailing(access);  // a strict device itself needs memory
    EXPECT_EQ(hostdevice::SyncCount() % 2, 0u) << "what was opened is closed";
    WithEachNewFailing([&] {
        zyt::detail::WithMemory([&] {  // for the callable
            zyt::Connection connection([&runs] { ++runs; });
            const int before = runs;
            const bool isRaised = connection.Raise();
            while (isRaised && runs == before) std::this_thread::yield();
        });
    });
    EXPECT_GT(runs, 0);
    // The library loses descriptors here, but no heap memory, which a sanitizer would report.
    for (const ZYTBufferType type : {ZYT_BUFFER_TYPE_DMABUF, ZYT_BUFFER_TYPE_GRALLOC}) {
        errors = 0;
        WithEachNewFailing([&] { Image(manager, Describe(kNv12, 128, 128), type, "Mine"); });
        EXPECT_GT(errors, 0);
    }
    hostdevice::SetLogSink({});
}

TEST(PoolState, IsReadWithoutWaitingForAnybody) {
    ZYTBufferManager manager;
    Image plain(manager, Describe(ZYT_FORMAT_RAW16, 10, 10), ZYT_BUFFER_TYPE_MALLOC);
    EXPECT_EQ(zyt::ReadPool().busy->at(0).address, plain->pAddr[0]);
    EXPECT_TRUE(Image(manager, Describe(kNv12, 10, 300), ZYT_BUFFER_TYPE_GRALLOC));
    plain.Reset();
    zyttest::TempDir dir;
    const int fd = open((dir / "text").c_str(), O_RDWR | O_CREAT, 0600);
    zyt::PrintPool(fd);
    {
        const std::lock_guard<std::mutex> lock(ZYTBufferPool::m_freeBufferListLock);
        std::thread(zyt::PrintPool, fd).join();
    }
    close(fd);
    const std::string text = zyttest::ReadFile(dir / "text");
    for (const char* part : {"clients: 1\nin use: 0 buffers, 0 bytes\nfree: 2 buffers", "malloc         200 bytes",
                             "10x300\n", "free: unknown, the lock is held\n"}) {
        EXPECT_THAT(text, HasSubstr(part));
    }
    EXPECT_EQ(zyt::TrimPool(1), 0u);
    EXPECT_EQ(zyt::TrimPool(0), 2u);
    EXPECT_EQ(CountLiveMemory(), 0u);
}

TEST(FlushOfflineLog, ReturnsWhenAllIsWritten) {
    ZYTOfflineLog& log = ZYTOfflineLog::GetInstance();
    log.m_enable = true;
    for (int i = 0; i < 100; ++i) ZYTOfflineLog::ZYTOfflineLogE("line");
    std::future<bool> callers[4];
    for (auto& caller : callers) caller = std::async(std::launch::async, zyt::FlushOfflineLog, std::chrono::minutes(5));
    for (auto& caller : callers) EXPECT_TRUE(caller.get());
    const std::string text = zyttest::ReadFile(log.m_curLogFileName);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 100);
    log.m_enable = false;
    EXPECT_TRUE(zyt::FlushOfflineLog(std::chrono::milliseconds(0))) << "an idle log";
    // One worker is blocked: the others are released, and the next flush succeeds.
    static std::mutex held;
    static std::atomic<int> blocked{0};
    std::unique_lock<std::mutex> lock(held);
    const auto wait = [](void*, unsigned int) {
        ++blocked;
        const std::lock_guard<std::mutex> guard(held);
    };
    log.m_threadPool.QueueTask({ZYT_THREAD_POOL_TASK_NORMAL, wait, nullptr, 0});
    EXPECT_FALSE(zyt::FlushOfflineLog(std::chrono::milliseconds::min()));
    lock.unlock();
    EXPECT_TRUE(zyt::FlushOfflineLog(std::chrono::milliseconds::max()));

    // The workers are stopped while a flush waits for them.
    lock.lock();
    log.m_threadPool.QueueTask({ZYT_THREAD_POOL_TASK_NORMAL, wait, nullptr, 0});
    EXPECT_TRUE(zyttest::WaitUntil([] { return blocked == 2; }));
    auto flush = std::async(std::launch::async, zyt::FlushOfflineLog, std::chrono::hours(1));
    EXPECT_TRUE(zyttest::WaitUntil([&] {
        const zyt::Lock guard(log.m_threadPool.m_taskListLock);
        return log.m_threadPool.m_taskList.size() == 1;
    })) << "all other workers wait";
    std::thread stopper([&] { log.m_threadPool.DeInit(false); });
    EXPECT_FALSE(flush.get());
    EXPECT_FALSE(zyt::FlushOfflineLog(std::chrono::hours(1)));
    lock.unlock();
    stopper.join();
}
