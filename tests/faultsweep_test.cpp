#include <hostdevice/hostdevice.h>
#include <pthread.h>
#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "logging/zytlogsite.h"
#include "support.h"
#include "utilities/zytutil.h"
#include "zytbuffermanager/zytbuffermanager.h"
#include "zytbuffermanager/zytbufferutil.h"

using hostdevice::Fault;
using testing::Contains;
using testing::HasSubstr;
using zyttest::Call;
using zyttest::LogCapture;

// The linker's --wrap redirects calls to these functions. This executable contains the library's objects, so that only
// calls of the library and the test fail, never those of the standard library. The emulated device injects all other
// faults.
extern "C" {

void* __real_malloc(size_t size);
FILE* __real_fopen(const char* path, const char* mode);
void* __real_mmap(void* hint, size_t size, int protection, int flags, int fd, off_t offset);
int __real_pthread_create(pthread_t* id, const pthread_attr_t* attributes, void* (*body)(void*), void* argument);

void* __wrap_malloc(size_t size) { return Fails(Call::kMalloc) ? nullptr : __real_malloc(size); }

FILE* __wrap_fopen(const char* path, const char* mode) {
    return Fails(Call::kFopen) ? nullptr : __real_fopen(path, mode);
}

// A failing mmap returns null, unlike one that the kernel refuses.
void* __wrap_mmap(void* hint, size_t size, int protection, int flags, int fd, off_t offset) {
    return Fails(Call::kMmap) ? nullptr : __real_mmap(hint, size, protection, flags, fd, offset);
}

int __wrap_pthread_create(pthread_t* id, const pthread_attr_t* attributes, void* (*body)(void*), void* argument) {
    return Fails(Call::kPthreadCreate) ? EAGAIN : __real_pthread_create(id, attributes, body, argument);
}

}  // extern "C"

namespace {

// Uses every buffer operation on an image of each type. A failed step skips only the steps that depend on it. Leaves
// freeing to the destructors where it can. Returns true when no step failed.
bool UseEverything(const std::string& dump) {
    bool isGood = true;
    const auto expect = [&isGood](bool step) { return isGood = step && isGood, step; };
    const auto isUsable = [](const void* pBuf) { return pBuf != nullptr && pBuf != MAP_FAILED; };
    unsigned char pixels[64 * 48] = {};
    ZYTImageBuffer source = zyttest::Image(ZYT_FORMAT_RAW16, 32, 48, 64, 48);
    source.pAddr[0] = pixels;
    ZYTBufferPool client;
    ZYTBufferManager manager("Node");
    for (const ZYTBufferType type : {ZYT_BUFFER_TYPE_MALLOC, ZYT_BUFFER_TYPE_DMABUF, ZYT_BUFFER_TYPE_GRALLOC}) {
        ZYTImageBuffer image = zyttest::Image(ZYT_FORMAT_YUV420NV12, 64, 48, 64, 48), raw = source;
        const bool isThere = expect(manager.AllocBuffer(image, type) &&
                                    std::all_of(image.pAddr, image.pAddr + image.numberOfPlanes, isUsable));
        const int fd = image.fd[0];
        raw.pAddr[0] = image.pAddr[0];  // the rows of the first plane
        if (isThere && expect(fd == 0 || manager.StartCPUSync(fd, CPU_SYNC_READ_WRITE))) {
            ZYTBufferUtil::ZYTBufferCopy(&raw, &source);
            if (!expect(ZYTBufferUtil::ZYTBufferDump(&raw, dump.c_str()))) ZYT_LOG(E, "Node", "no dump");
            expect(fd == 0 || manager.EndCPUSync(fd));
        }
        if (type == ZYT_BUFFER_TYPE_GRALLOC) client.PutBufferToPool(image.pAddr[0]);
    }
    unsigned int size = 0;
    char* data = ZYTUtil::ReadFileData(dump.c_str(), size);
    if (!expect(data != nullptr)) ZYT_LOG(E, "Node", "no file");
    ZYTUtil::FreeFileData(data);
    return isGood;
}

// Makes the n-th call of a kind (a Fault or a Call) fail, for n = 1, 2, 3 ... until none fails. Each fault must make a
// step fail and log such a line.
template <typename Kind>
void Sweep(Kind kind, const std::string& line) {
    const zyttest::TempDir dir;
    uint64_t n = 0;
    for (bool hasFired = true; hasFired;) {
        SCOPED_TRACE(++n);
        const uint64_t graphicMappings = hostdevice::CountLive().graphicMappings;
        LogCapture log;
        FailNth(kind, n);
        const bool isGood = UseEverything(dir / "dump");
        hasFired = !FaultPending(kind);
        FailNth(kind, 0);
        EXPECT_EQ(isGood, !hasFired);
        if (hasFired) {
            EXPECT_THAT(log.Take(), Contains(testing::ContainsRegex(line)));
        }
        const hostdevice::LiveResources live = hostdevice::CountLive();
        EXPECT_EQ(live.heapDescriptors + live.heapMappings + live.graphicBuffers + live.graphicDescriptors, 0u);
        // The pool never unmaps gralloc memory; each round takes one such buffer.
        EXPECT_LE(live.graphicMappings, graphicMappings + 1);
    }
    EXPECT_GT(n, 1u) << "no step makes this call";
}

// Logs a line after the log's end, which then takes no memory.
ZYT_CHILD(LogAfterTheEnd) {
    std::atexit([] {
        FailNth(Call::kMalloc, 1);
        ZYTOfflineLog::GetInstance().PushLogToLogPool("late", ZYTOfflineLogLevel::E);
        std::_Exit(FaultPending(Call::kMalloc) ? 7 : 1);
    });
    ZYTOfflineLog::GetInstance();
    return 0;
}

TEST(FaultSweep, EveryFailedCallIsReportedAndNothingIsLost) {
    const std::string noBuffer = "E .*AllocBuffer.. Alloc buffer failed! Type: ";
    const std::string noGraphic =
        "E .*GetBufferFromPool.. Get buffer type: 2, width: 64, height: 48, size: 3072 failed!";
    Sweep(Fault::kHeapAllocation, noBuffer + "1, size: ");
    // A mapping that the kernel refuses is passed on as MAP_FAILED, which a node must check.
    Sweep(Fault::kMapping, "I .*pBuf: 0xffffffffffffffff");
    Sweep(Fault::kGraphicBuffer, noGraphic);
    Sweep(Fault::kGraphicDescriptor, noGraphic);
    Sweep(Fault::kSync, "I .*CPUSync.. .*, result: -1$");
    Sweep(Call::kMmap, noBuffer + "1, size: |" + noGraphic);
    Sweep(Call::kMalloc, noBuffer + "0, size: |no file");
    Sweep(Call::kFopen, "no (dump|file)");
}

TEST(Faults, FilesThatDoNotFitMemoryKeepTheirLength) {
    const zyttest::TempDir dir;
    zyttest::WriteFile(dir / "file", "12345");
    FailNth(Call::kMalloc, 1);
    unsigned int size = 0;
    EXPECT_EQ(ZYTUtil::ReadFileData((dir / "file").c_str(), size), nullptr);
    EXPECT_EQ(size, 5u);
}

TEST(Faults, ALineWithoutMemoryOrTooLateIsDropped) {
    ZYTOfflineLog& log = ZYTOfflineLog::GetInstance();
    log.m_threadPool.DeInit(false);
    FailNth(Call::kMalloc, 1);
    log.PushLogToLogPool("dropped", ZYTOfflineLogLevel::E);
    EXPECT_TRUE(log.m_threadPool.m_taskList.empty());
    log.PushLogToLogPool("queued", ZYTOfflineLogLevel::E);
    EXPECT_EQ(log.m_threadPool.m_taskList.size(), 1u);
    log.m_threadPool.FlushTask();
    EXPECT_EQ(zyttest::RunChild("LogAfterTheEnd").exitCode, 7);
}

TEST(Faults, AWorkerThatCannotStartEndsInit) {
    LogCapture log;
    ZYTThreadPool pool;
    FailNth(Call::kPthreadCreate, 2);
    EXPECT_FALSE(pool.Init(3));
    EXPECT_EQ(pool.m_threadIdList.size(), 1u) << "the first keeps running";
    EXPECT_THAT(log.Take(), testing::ElementsAre(
                                HasSubstr("D Create New Thread[0] Success: "),
                                zyttest::Text("E Create New Thread[1] Failed! Result Code: %d, ThreadID: 0", EAGAIN)));
    pool.DeInit(false);
    EXPECT_THAT(log.Take(), Contains(HasSubstr("D Join Thread[0]: ")));
}

}  // namespace
