#include <fcntl.h>
#include <gmock/gmock.h>
#include <hostdevice/hostdevice.h>
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

constexpr ZYTFormat kNv12 = ZYT_FORMAT_YUV420NV12;
constexpr ZYTBufferType kTypes[] = {ZYT_BUFFER_TYPE_MALLOC, ZYT_BUFFER_TYPE_DMABUF, ZYT_BUFFER_TYPE_GRALLOC};

uint64_t CountLiveMemory() {
    const hostdevice::LiveResources live = hostdevice::CountLive();
    return live.heapDescriptors + live.heapMappings + live.graphicBuffers + live.graphicDescriptors +
           live.graphicMappings;
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
    EXPECT_TRUE(access.Close());
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
        if (task.func == Work::RunNotice) static_cast<Work::Notice*>(task.data)->work->Release();
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
    using zyt::ParseDumpName;
    for (int format = 0; format <= ZYT_FORMAT_RAW16; ++format) {
        const zyt::DumpInfo info =
            ParseDumpName("/1x1_Y16/" + zyt::DumpName(zyttest::Image(format, 4000, 3000, 0, 0), "640x480 nv21"));
        EXPECT_EQ(info.format, format);
        EXPECT_EQ(info.width * 10000 + info.height, 40003000u);
    }
    EXPECT_EQ(ParseDumpName("a-4X3.P010").format, ZYT_FORMAT_YUV_P010);
    EXPECT_EQ(ParseDumpName("a-4X3.P010").height, 3u);
    for (const char* name : {"", "a", "x", "4x", "x3", "4x3x2", "0x3", "4x0", "+4x3", "4x-3", "131073x1",
                             "99999999999x1", "4x3/a", "rawmipi1", "rawmipi100"}) {
        EXPECT_TRUE(ParseDumpName(name).width == 0 && !ParseDumpName(name).format) << name;
    }
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

TEST(Image, IsThereOrNothingIsLeftOfIt) {
    LogCapture log;
    for (const ZYTBufferType type : kTypes) {
        for (const Fault fault :
             {Fault::kHeapAllocation, Fault::kGraphicBuffer, Fault::kGraphicDescriptor, Fault::kMapping}) {
            for (uint64_t n = 1; !hostdevice::FaultPending(fault); ++n) {
                ZYTBufferManager manager("Node");
                hostdevice::FailNth(fault, n);
                log.Take();
                Image image(manager, Describe(kNv12, 64, 64), type, "Mine");
                EXPECT_EQ(CountErrors(log, "Mine"), image ? 0 : 1);
                EXPECT_TRUE(image || !hostdevice::FaultPending(fault));
                EXPECT_TRUE(image || fault != Fault::kMapping) << "tried once more";
                image.Reset();
                EXPECT_TRUE(zyt::ReadPool().busy->empty());
                zyt::TrimPool(0);
                EXPECT_EQ(CountLiveMemory(), 0u) << type << static_cast<int>(fault) << n;
            }
            hostdevice::ClearFaults();
        }
    }
    // Unmapped buffers that other clients have left in the pool.
    ZYTBufferManager manager;
    ZYTImageBuffer dead = Describe(kNv12, 64, 64);
    hostdevice::FailNth(Fault::kMapping, 1);
    ASSERT_TRUE(manager.AllocBuffer(dead, ZYT_BUFFER_TYPE_DMABUF));
    ASSERT_EQ(dead.pAddr[0], MAP_FAILED);
    manager.FreeBuffer(dead);
    EXPECT_TRUE(Image(manager, dead, ZYT_BUFFER_TYPE_DMABUF));
}

TEST(Image, SaysWhatIsWrong) {
    LogCapture log;
    ZYTBufferManager manager;
    ZYTImageBuffer narrow = Describe(kNv12, 64, 64), low = narrow, tiny = Describe(kNv12, 1, 1);
    narrow.planeStride = low.sliceHeight = 63;
    tiny.planeStride = tiny.sliceHeight = 1;
    const std::tuple<ZYTImageBuffer, int, const char*> refused[] = {
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
    for (const auto& [description, type, reason] : refused) {
        EXPECT_FALSE(Image(manager, description, static_cast<ZYTBufferType>(type)));
        EXPECT_THAT(log.Take().back(), HasSubstr(reason));
    }
    Image image(manager, Describe(kNv12, 64, 64), ZYT_BUFFER_TYPE_DMABUF);
    image->pAddr[1] = static_cast<unsigned char*>(MAP_FAILED);
    EXPECT_STREQ(zyt::WhatIsWrong(*image), "the kernel refused to map it");
    image->pAddr[1] = nullptr;
    EXPECT_STREQ(zyt::WhatIsWrong(*image), "it has no chroma");
    image->height = image->sliceHeight = 640;
    EXPECT_STREQ(zyt::WhatIsWrong(*image), "a descriptor is smaller than its plane");
    EXPECT_STREQ(zyt::WhatIsWrong(Describe(kNv12, 64, 64)), "it has no memory");
}

TEST(CpuAccess, OpensEachDescriptorOnceAndClosesWhatItOpened) {
    LogCapture log;
    ZYTBufferManager manager;
    const Image shared(manager, Describe(kNv12, 64, 64), ZYT_BUFFER_TYPE_DMABUF),
        plain(manager, *shared, ZYT_BUFFER_TYPE_MALLOC);
    const uint64_t before = hostdevice::SyncCount();
    {
        CpuAccess access(CPU_SYNC_WRITE, "nodekit", shared, plain, *shared);
        EXPECT_TRUE(access);
        EXPECT_EQ(hostdevice::SyncCount() - before, 2u);
        EXPECT_EQ(hostdevice::LastSync().direction, CPU_SYNC_WRITE);
        EXPECT_TRUE(access.Close() && access.Close());
    }
    EXPECT_EQ(hostdevice::SyncCount() - before, 4u);
    hostdevice::FailNth(Fault::kSync, 2);
    EXPECT_FALSE(CpuAccess(CPU_SYNC_READ, "nodekit", shared)) << "opens one, fails at the other, closes the one";
    EXPECT_EQ(hostdevice::SyncCount() - before, 7u);
    hostdevice::FailNth(Fault::kSync, 3);
    EXPECT_FALSE(CpuAccess(CPU_SYNC_READ, "nodekit", shared).Close());
    EXPECT_EQ(CountErrors(log, "nodekit"), 2);
}

TEST(ImportedImage, MapsWhatItIsGivenAndClosesNothing) {
    LogCapture log;
    ZYTBufferManager manager;
    Image camera(manager, Describe(kNv12, 64, 64), ZYT_BUFFER_TYPE_GRALLOC);  // one descriptor, like a camera's buffer
    Fill(camera);
    for (const uint32_t planes : {1u, 2u}) {
        ZYTImageBuffer brought = *camera;
        brought.numberOfPlanes = planes;
        brought.fd[planes - 1] = camera->fd[0];
        brought.pAddr[3] = brought.pAddr[0];
        zyt::ImportedImage image(brought, "Mine"), moved(std::move(image));
        ASSERT_TRUE(moved);
        CpuAccess access(CPU_SYNC_READ, "nodekit", moved);
        EXPECT_EQ(zyt::PlaneOf<uint8_t>(*moved, 1).Row(0)[63], 65) << "the row after 64";
        EXPECT_NE(moved->pAddr[0], camera->pAddr[0]);
        EXPECT_EQ(moved->pAddr[3], nullptr) << "addresses are not taken over";
        for (const int fd : {0, -1, 9999}) {
            brought.fd[planes - 1] = fd;
            EXPECT_FALSE(zyt::ImportedImage(brought, "Mine")) << fd;
        }
        brought = *camera;
        brought.sliceHeight = 128;
        EXPECT_FALSE(zyt::ImportedImage(brought, "Mine")) << "smaller than said";
        EXPECT_EQ(CountErrors(log, "Mine"), 4);
        EXPECT_EQ(hostdevice::CountLive().graphicMappings, 3u) << "the pool's, the image's, the import's";
    }
    EXPECT_NE(fcntl(camera->fd[0], F_GETFD), -1);
    EXPECT_EQ(hostdevice::CountLive().graphicMappings, 2u);
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
        const Image loaded =
            zyt::WriteDump(*image, path) ? zyt::LoadDump(manager, path, ZYT_BUFFER_TYPE_MALLOC) : Image();
        ASSERT_TRUE(loaded && zyt::WriteDump(*loaded, dir / "b"));
        EXPECT_EQ(zyttest::ReadFile(path), zyttest::ReadFile(dir / "b"));
    }
    unsigned char pixels[12] = {};
    ZYTImageBuffer y16 = Describe(ZYT_FORMAT_Y16, 2, 3);
    y16.pAddr[y16.numberOfPlanes++] = pixels;
    EXPECT_TRUE(zyt::WriteDump(y16, dir / "1x1_Raw16"));
    EXPECT_EQ(zyttest::ReadFile(dir / "1x1_Raw16").size(), 12u) << "whole";
    EXPECT_EQ(CountErrors(log, "nodekit"), 0);

    EXPECT_FALSE(zyt::WriteDump(y16, "/dev/full"));
    EXPECT_FALSE(zyt::WriteDump(y16, dir / "none/c"));
    EXPECT_FALSE(zyt::WriteDump(Describe(kNv12, 2, 2), dir / "d"));
    zyttest::WriteFile(dir / "2x2_Raw16", "12345");
    for (const char* name : {"nameless", "missing_2x2_Raw16", "2x2_Raw16", "1x1_Raw16"}) {
        EXPECT_FALSE(zyt::LoadDump(manager, dir / name, ZYT_BUFFER_TYPE_DMABUF)) << name;
    }
    zyttest::WriteFile(dir / "1x1_Raw16", "12");
    for (const uint64_t n : {1u, 2u}) {
        hostdevice::FailNth(Fault::kSync, n);
        EXPECT_FALSE(zyt::LoadDump(manager, dir / "1x1_Raw16", ZYT_BUFFER_TYPE_DMABUF));
    }
    EXPECT_EQ(CountErrors(log, "nodekit"), 11) << "one each, and the access's own two";
    EXPECT_TRUE(zyt::ReadPool().busy->empty());
}

TEST(Parallel, LosesNothingWhateverHappensToThePool) {
    using Event = void (*)(ZYTThreadPool&);
    for (const Event event :
         {Event([](ZYTThreadPool&) {}), Event(Flush), Event([](ZYTThreadPool& pool) { pool.DeInit(false); })}) {
        for (const uint32_t rows : {0u, 1u, 7u, 3001u}) {
            ZYTThreadPool pool;
            ASSERT_TRUE(pool.Init(3));
            std::vector<std::atomic<int>> calls(rows);
            std::atomic<int> sum{0};
            {
                zyt::TaskGroup group(pool);
                for (int i = 0; i < 20; ++i) {
                    group.Run([&, i = std::make_unique<int>(i)] {
                        sum += *i;
                        if (*i == 5) group.Run([&] { sum += 1000; });  // a task adds to its own group
                    });
                }
                std::thread meanwhile([&] { event(pool); });
                zyt::ParallelRows(pool, rows, [&](uint32_t from, uint32_t to) {
                    for (uint32_t y = from; y < to; ++y) ++calls[y];
                    zyt::ParallelRows(pool, 2, [&](uint32_t, uint32_t) { ++sum; });
                });
                meanwhile.join();
            }
            for (const std::atomic<int>& count : calls) ASSERT_EQ(count, 1);
            EXPECT_EQ(sum, 190 + 1000 + 2 * static_cast<int>(std::min(rows, 8u)));
        }
    }
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
        std::future<void> raisers[4];
        for (auto& raiser : raisers) {
            raiser = std::async(std::launch::async, [&] {
                for (int i = 0; i < 1000; ++i) connection.Raise();
            });
        }
        for (auto& raiser : raisers) raiser.get();
        const int before = runs;
        connection.Raise();
        EXPECT_TRUE(zyttest::WaitUntil([&] { return runs > before; })) << "still connected";
    }
    EXPECT_EQ(captured.use_count(), 1) << "gone with the connection";

    LogCapture log;
    zyt::Connection disconnected([] {}, "Mine");
    ZYTSignalTask::instance()->disconnect();
    EXPECT_FALSE(disconnected.Raise());
    EXPECT_EQ(CountErrors(log, "Mine"), 1);
}

TEST(PoolState, IsReadWithoutWaitingForAnybody) {
    ZYTBufferManager manager;
    Image plain(manager, Describe(ZYT_FORMAT_RAW16, 10, 10), ZYT_BUFFER_TYPE_MALLOC);
    EXPECT_EQ(zyt::ReadPool().busy->at(0).address, plain->pAddr[0]);
    EXPECT_TRUE(Image(manager, Describe(kNv12, 10, 10), ZYT_BUFFER_TYPE_GRALLOC));
    plain.Reset();
    zyttest::TempDir dir;
    const int fd = open((dir / "text").c_str(), O_RDWR | O_CREAT, 0600);
    zyt::PrintPool(fd);
    {
        const std::lock_guard<std::mutex> lock(ZYTBufferPool::m_freeBufferListLock);
        EXPECT_FALSE(std::async(std::launch::async, zyt::ReadPool).get().free);
        std::thread(zyt::PrintPool, fd).join();
    }
    close(fd);
    const std::string text = zyttest::ReadFile(dir / "text");
    for (const char* part : {"clients: 1\nin use: 0 buffers, 0 bytes\nfree: 2 buffers", "malloc         200 bytes",
                             "10x10\n", "free: unknown, the lock is held\n"}) {
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
    // One worker is blocked: the others are released, and the next flush succeeds.
    static std::mutex held;
    std::unique_lock<std::mutex> lock(held);
    const auto wait = [](void*, unsigned int) { const std::lock_guard<std::mutex> guard(held); };
    log.m_threadPool.QueueTask({ZYT_THREAD_POOL_TASK_NORMAL, wait, nullptr, 0});
    EXPECT_FALSE(zyt::FlushOfflineLog(std::chrono::milliseconds(20)));
    lock.unlock();
    EXPECT_TRUE(zyt::FlushOfflineLog(std::chrono::milliseconds::max()));
}
