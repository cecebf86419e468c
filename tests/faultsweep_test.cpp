#include <gmock/gmock.h>
#include <hostdevice/hostdevice.h>
#include <sys/mman.h>

#include <cerrno>
#include <cstring>
#include <functional>

#include "faults.h"
#include "logging/zytofflinelog.h"
#include "support.h"
#include "threadpool/zytthreadpool.h"
#include "utilities/zytutil.h"
#include "zytbuffermanager/zytbuffermanager.h"
#include "zytbuffermanager/zytbufferutil.h"

using hostdevice::Fault;
using testing::ElementsAre;
using testing::HasSubstr;
using zyttest::LibcCall;
using zyttest::LogCapture;
using zyttest::TempDir;
using zyttest::Text;

namespace {

ZYTImageBuffer Image(ZYTFormat format, uint32_t stride) { return zyttest::Image(format, 64, 32, stride, 32); }

bool IsUsable(const void* pBuf) { return pBuf != nullptr && pBuf != MAP_FAILED; }

bool IsUsable(const ZYTImageBuffer& image) {
    if (image.numberOfPlanes == 0) return false;
    for (uint32_t k = 0; k < image.numberOfPlanes; ++k) {
        if (!IsUsable(image.pAddr[k])) return false;
    }
    return true;
}

enum class Outcome { kGood, kBufferFailed, kFileFailed };

// What careful nodes do with every operation of the buffer side; a failure of any step only skips what needs it.
Outcome UseEverything(const TempDir& dir) {
    Outcome outcome = Outcome::kGood;
    const auto expect = [&outcome](bool step, Outcome failure = Outcome::kBufferFailed) {
        if (!step) outcome = failure;
        return step;
    };
    ZYTBufferPool client;
    ZYTBufferManager first("First");
    ZYTBufferManager second;
    second.SetManagerName("Second");

    ZYTImageBuffer camera = Image(ZYT_FORMAT_YUV420NV12, 96);
    ZYTImageBuffer graphic = Image(ZYT_FORMAT_YUV420NV12, 64);
    ZYTImageBuffer plain = Image(ZYT_FORMAT_YUV420NV12, 64);
    graphic.height = 48;  // room for the chroma rows
    expect(first.AllocBuffer(camera, ZYT_BUFFER_TYPE_DMABUF));
    expect(first.AllocBuffer(graphic, ZYT_BUFFER_TYPE_GRALLOC) && IsUsable(graphic));
    expect(second.AllocBuffer(plain, ZYT_BUFFER_TYPE_MALLOC));
    graphic.height = 32;
    if (expect(IsUsable(camera))) {
        for (uint32_t k = 0; k < 2; ++k) expect(first.StartCPUSync(camera.fd[k], CPU_SYNC_WRITE));
        std::memset(camera.pAddr[0], 1, 96 * 32);
        std::memset(camera.pAddr[1], 2, 96 * 16);
        for (uint32_t k = 0; k < 2; ++k) expect(first.EndCPUSync(camera.fd[k]));
        first.StartCPUSync(camera, CPU_SYNC_READ);
        if (IsUsable(graphic)) ZYTBufferUtil::ZYTBufferCopy(&graphic, &camera);
        first.EndCPUSync(camera);
    }
    if (IsUsable(graphic) && IsUsable(plain)) {
        ZYTBufferUtil::ZYTBufferCopy(&plain, &graphic);
        expect(ZYTBufferUtil::ZYTBufferDump(&plain, (dir / "dump.raw").c_str()), Outcome::kFileFailed);
        unsigned int size = 0;
        char* data = ZYTUtil::ReadFileData((dir / "dump.raw").c_str(), size);
        expect(data != nullptr, Outcome::kFileFailed);
        ZYTUtil::FreeFileData(data);
    }
    first.FreeBuffer(camera);
    second.FreeBuffer(plain);
    client.PutBufferToPool(graphic.pAddr[0]);

    // Twelve of a size, of which the pool keeps ten; one is left to each manager's destructor.
    std::vector<void*> buffers;
    for (int i = 0; i < 12; ++i) {
        void* pBuf = nullptr;
        int fd = 0;
        if (expect(first.AllocBuffer(5000, &pBuf, fd, static_cast<ZYTBufferType>(i % 2)))) buffers.push_back(pBuf);
    }
    if (!buffers.empty()) buffers.pop_back();
    for (void* pBuf : buffers) first.FreeBuffer(pBuf);
    ZYTImageBuffer raw = Image(ZYT_FORMAT_RAW16, 128);
    expect(second.AllocBuffer(raw, ZYT_BUFFER_TYPE_DMABUF));
    return outcome;
}

struct Sweep {
    const char* name;
    std::function<void(uint64_t)> failNth;
    std::function<bool()> isPending;
    char level;
    std::vector<std::string> lines;  // one of these stands in the log at that level, unless a file was concerned
    bool isSeen;                     // whether a fault always makes a step fail
};

Sweep DeviceSweep(const char* name, Fault fault, char level, std::vector<std::string> lines, bool isSeen = true) {
    return {name,
            [fault](uint64_t n) { hostdevice::FailNth(fault, n); },
            [fault] { return hostdevice::FaultPending(fault); },
            level,
            std::move(lines),
            isSeen};
}

Sweep LibcSweep(const char* name, LibcCall call, std::vector<std::string> lines) {
    return {name,
            [call](uint64_t n) { zyttest::FailNth(call, n); },
            [call] { return zyttest::FaultPending(call); },
            'E',
            std::move(lines),
            true};
}

bool StandsIn(const std::vector<std::string>& log, char level, const std::vector<std::string>& lines) {
    for (const std::string& logged : log) {
        for (const std::string& line : lines) {
            if (logged[0] == level && logged.find(line) != std::string::npos) return true;
        }
    }
    return false;
}

}  // namespace

TEST(FaultSweep, EveryFailedCallIsReportedAndNothingIsLost) {
    const std::string noBuffer = "AllocBuffer() Alloc buffer failed! Type: ";
    const std::string noGraphic = "GetBufferFromPool() Get buffer type: 2, width: 64, height: 48, size: 3072 failed!";
    const Sweep sweeps[] = {
        DeviceSweep("heap", Fault::kHeapAllocation, 'E', {noBuffer + "1, size: "}),
        // The kernel refuses the mapping: passed on as an address that a node has to test for.
        DeviceSweep("mapping", Fault::kMapping, 'I', {"pBuf: 0xffffffffffffffff"}, false),
        DeviceSweep("graphic buffer", Fault::kGraphicBuffer, 'E', {noGraphic}),
        DeviceSweep("graphic descriptor", Fault::kGraphicDescriptor, 'E', {noGraphic}),
        DeviceSweep("synchronisation", Fault::kSync, 'I', {Text(", result: %d", -EIO)}, false),
        LibcSweep("null mapping", LibcCall::kMmap, {noBuffer + "1, size: ", noGraphic}),
        LibcSweep("memory", LibcCall::kMalloc, {noBuffer + "0, size: "}),
        LibcSweep("file opening", LibcCall::kFopen, {}),
    };
    TempDir dir;
    for (const Sweep& sweep : sweeps) {
        uint64_t n = 1;
        for (;; ++n) {
            SCOPED_TRACE(testing::Message() << sweep.name << " " << n);
            const uint64_t graphicMappings = hostdevice::CountLive().graphicMappings;
            LogCapture log;
            sweep.failNth(n);
            const Outcome outcome = UseEverything(dir);
            const bool hasFired = !sweep.isPending();
            sweep.failNth(0);

            const hostdevice::LiveResources live = hostdevice::CountLive();
            EXPECT_EQ(live.heapDescriptors, 0u);
            EXPECT_EQ(live.heapMappings, 0u);
            EXPECT_EQ(live.graphicBuffers, 0u);
            EXPECT_EQ(live.graphicDescriptors, 0u);
            // The pool never unmaps gralloc memory, and the scenario takes one such buffer.
            EXPECT_LE(live.graphicMappings, graphicMappings + 1);
            if (!hasFired) {
                EXPECT_EQ(outcome, Outcome::kGood);
                break;
            }
            EXPECT_TRUE(!sweep.isSeen || outcome != Outcome::kGood);
            EXPECT_TRUE(outcome == Outcome::kFileFailed || StandsIn(log.Take(), sweep.level, sweep.lines));
        }
        EXPECT_GT(n, 1u) << sweep.name << " is called by no step";
    }
}

TEST(Faults, FilesThatDoNotFitMemoryKeepTheirLength) {
    TempDir dir;
    zyttest::WriteFile(dir / "file", "12345");
    zyttest::FailNth(LibcCall::kMalloc, 1);
    unsigned int size = 0;
    EXPECT_EQ(ZYTUtil::ReadFileData((dir / "file").c_str(), size), nullptr);
    EXPECT_EQ(size, 5u);
}

TEST(Faults, ALineWithoutMemoryIsDropped) {
    ZYTOfflineLog& log = ZYTOfflineLog::GetInstance();
    log.m_threadPool.DeInit(false);
    zyttest::FailNth(LibcCall::kMalloc, 1);
    log.PushLogToLogPool("dropped", ZYTOfflineLogLevel::E);
    EXPECT_TRUE(log.m_threadPool.m_taskList.empty());
    log.PushLogToLogPool("queued", ZYTOfflineLogLevel::E);
    EXPECT_EQ(log.m_threadPool.m_taskList.size(), 1u);
    log.m_threadPool.FlushTask();
}

TEST(Faults, AWorkerThatCannotStartEndsInit) {
    LogCapture log;
    ZYTThreadPool pool;
    zyttest::FailNth(LibcCall::kPthreadCreate, 2);
    EXPECT_FALSE(pool.Init(3));
    EXPECT_EQ(pool.m_threadIdList.size(), 1u) << "the first keeps running";
    EXPECT_THAT(log.Take(), ElementsAre(HasSubstr("D Create New Thread[0] Success: "),
                                        Text("E Create New Thread[1] Failed! Result Code: %d, ThreadID: 0", EAGAIN)));
    pool.DeInit(false);
    EXPECT_THAT(log.Take(), testing::Contains(HasSubstr("D Join Thread[0]: ")));
}
