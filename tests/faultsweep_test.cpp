#include <hostdevice/hostdevice.h>
#include <pthread.h>
#include <sys/mman.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "logging/zytofflinelog.h"
#include "nodekit/cpuaccess.h"
#include "support.h"
#include "threadpool/zytthreadpool.h"
#include "utilities/zytutil.h"
#include "zytbuffermanager/zytbuffermanager.h"
#include "zytbuffermanager/zytbufferutil.h"

using hostdevice::Fault;
using testing::ElementsAre;
using testing::HasSubstr;
using zyttest::LogCapture;
using zyttest::TempDir;
using zyttest::Text;

namespace {

// Faults in C library calls. This executable contains the library's objects and the linker wraps these calls, so that
// only calls of the library and the test fail, never those of the standard library. The emulated device injects all
// other faults.
enum class LibcCall { kMalloc, kFopen, kMmap, kPthreadCreate };

std::atomic<int64_t> g_callsLeft[4];

// Makes the n-th such call from now fail once; 0 disarms. A failing mmap returns null.
void FailNth(LibcCall call, uint64_t n) { g_callsLeft[static_cast<int>(call)] = static_cast<int64_t>(n); }

bool FaultPending(LibcCall call) { return g_callsLeft[static_cast<int>(call)] > 0; }

bool Fails(LibcCall call) { return FaultPending(call) && --g_callsLeft[static_cast<int>(call)] == 0; }

}  // namespace

// The linker's --wrap redirects calls to these functions.
extern "C" {

void* __real_malloc(size_t size);
FILE* __real_fopen(const char* path, const char* mode);
void* __real_mmap(void* hint, size_t size, int protection, int flags, int fd, off_t offset);
int __real_pthread_create(pthread_t* id, const pthread_attr_t* attributes, void* (*body)(void*), void* argument);

void* __wrap_malloc(size_t size) { return Fails(LibcCall::kMalloc) ? nullptr : __real_malloc(size); }

FILE* __wrap_fopen(const char* path, const char* mode) {
    return Fails(LibcCall::kFopen) ? nullptr : __real_fopen(path, mode);
}

void* __wrap_mmap(void* hint, size_t size, int protection, int flags, int fd, off_t offset) {
    return Fails(LibcCall::kMmap) ? nullptr : __real_mmap(hint, size, protection, flags, fd, offset);
}

int __wrap_pthread_create(pthread_t* id, const pthread_attr_t* attributes, void* (*body)(void*), void* argument) {
    return Fails(LibcCall::kPthreadCreate) ? EAGAIN : __real_pthread_create(id, attributes, body, argument);
}

}  // extern "C"

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

// Uses every buffer operation like a careful node. A failed step skips only the steps that depend on it.
Outcome UseEverything(const TempDir& dir) {
    Outcome outcome = Outcome::kGood;
    const auto expect = [&outcome](bool step, Outcome failure = Outcome::kBufferFailed) {
        if (!step) outcome = failure;
        return step;
    };
    ZYTBufferPool client;
    ZYTBufferManager first("First"), second("Second");

    ZYTImageBuffer camera = Image(ZYT_FORMAT_YUV420NV12, 96);
    ZYTImageBuffer graphic = Image(ZYT_FORMAT_YUV420NV12, 64);
    ZYTImageBuffer plain = Image(ZYT_FORMAT_YUV420NV12, 64);
    graphic.height = 48;  // includes the chroma rows
    expect(first.AllocBuffer(camera, ZYT_BUFFER_TYPE_DMABUF));
    expect(first.AllocBuffer(graphic, ZYT_BUFFER_TYPE_GRALLOC) && IsUsable(graphic));
    expect(second.AllocBuffer(plain, ZYT_BUFFER_TYPE_MALLOC));
    graphic.height = 32;
    if (expect(IsUsable(camera))) {
        zyt::CpuAccess filling(CPU_SYNC_WRITE, "First", camera);
        if (filling) std::memset(camera.pAddr[0], 1, 96 * 32);
        if (filling) std::memset(camera.pAddr[1], 2, 96 * 16);
        expect(filling.Close());
        zyt::CpuAccess reading(CPU_SYNC_READ, "First", camera), writing(CPU_SYNC_WRITE, "First", graphic);
        if (reading && writing && IsUsable(graphic)) ZYTBufferUtil::ZYTBufferCopy(&graphic, &camera);
        expect(reading.Close() && writing.Close());
    }
    if (IsUsable(graphic) && IsUsable(plain)) {
        zyt::CpuAccess reading(CPU_SYNC_READ, "First", graphic);
        if (expect(static_cast<bool>(reading))) ZYTBufferUtil::ZYTBufferCopy(&plain, &graphic);
        expect(reading.Close());
        expect(ZYTBufferUtil::ZYTBufferDump(&plain, (dir / "dump.raw").c_str()), Outcome::kFileFailed);
        unsigned int size = 0;
        char* data = ZYTUtil::ReadFileData((dir / "dump.raw").c_str(), size);
        expect(data != nullptr, Outcome::kFileFailed);
        ZYTUtil::FreeFileData(data);
    }
    first.FreeBuffer(camera);
    second.FreeBuffer(plain);
    client.PutBufferToPool(graphic.pAddr[0]);

    // Twelve of one size, of which the pool keeps ten. Each manager's destructor frees one.
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

// Makes the n-th call of a kind (a Fault or a LibcCall) fail, for n = 1, 2, 3 ... until none fails. Each fault must log
// such a line, except for files. isSeen: a fault always makes a step fail.
template <typename Call>
void Sweep(Call call, const std::string& line, bool isSeen = true) {
    const TempDir dir;
    uint64_t n = 1;
    for (;; ++n) {
        SCOPED_TRACE(n);
        const uint64_t graphicMappings = hostdevice::CountLive().graphicMappings;
        LogCapture log;
        FailNth(call, n);
        const Outcome outcome = UseEverything(dir);
        const bool hasFired = !FaultPending(call);
        FailNth(call, 0);

        const hostdevice::LiveResources live = hostdevice::CountLive();
        EXPECT_EQ(live.heapDescriptors + live.heapMappings + live.graphicBuffers + live.graphicDescriptors, 0u);
        // The pool never unmaps gralloc memory; the scenario takes one such buffer.
        EXPECT_LE(live.graphicMappings, graphicMappings + 1);
        if (!hasFired) {
            EXPECT_EQ(outcome, Outcome::kGood);
            break;
        }
        if (isSeen) {
            EXPECT_NE(outcome, Outcome::kGood);
        }
        if (outcome != Outcome::kFileFailed) {
            EXPECT_THAT(log.Take(), testing::Contains(testing::ContainsRegex(line)));
        }
    }
    EXPECT_GT(n, 1u) << "no step makes this call";
}

const std::string kNoBuffer = "E .*AllocBuffer.. Alloc buffer failed! Type: ";
const std::string kNoGraphic = "E .*GetBufferFromPool.. Get buffer type: 2, width: 64, height: 48, size: 3072 failed!";

// Destroyed after the log, which then allocates no memory for a line.
struct Late {
    ZYTOfflineLog* log = nullptr;
    ~Late() {
        FailNth(LibcCall::kMalloc, 1);
        log->PushLogToLogPool("late", ZYTOfflineLogLevel::E);
        std::_Exit(FaultPending(LibcCall::kMalloc) ? 7 : 1);
    }
};

ZYT_CHILD(LogAfterTheEnd) {
    static Late late;
    late.log = &ZYTOfflineLog::GetInstance();
    return 0;
}

}  // namespace

TEST(FaultSweep, EveryFailedDeviceCallIsReportedAndNothingIsLost) {
    Sweep(Fault::kHeapAllocation, kNoBuffer + "1, size: ");
    // A mapping that the kernel refuses is passed on as MAP_FAILED, which a node must check.
    Sweep(Fault::kMapping, "I .*pBuf: 0xffffffffffffffff", false);
    Sweep(Fault::kGraphicBuffer, kNoGraphic);
    Sweep(Fault::kGraphicDescriptor, kNoGraphic);
    Sweep(Fault::kSync, "E .*(No CPU access|was not closed)");
}

TEST(FaultSweep, EveryFailedLibraryCallIsReportedAndNothingIsLost) {
    Sweep(LibcCall::kMmap, kNoBuffer + "1, size: |" + kNoGraphic);  // null, unlike a refused mapping
    Sweep(LibcCall::kMalloc, kNoBuffer + "0, size: ");
    Sweep(LibcCall::kFopen, "no line");
}

TEST(Faults, FilesThatDoNotFitMemoryKeepTheirLength) {
    TempDir dir;
    zyttest::WriteFile(dir / "file", "12345");
    FailNth(LibcCall::kMalloc, 1);
    unsigned int size = 0;
    EXPECT_EQ(ZYTUtil::ReadFileData((dir / "file").c_str(), size), nullptr);
    EXPECT_EQ(size, 5u);
}

TEST(Faults, ALineWithoutMemoryOrTooLateIsDropped) {
    ZYTOfflineLog& log = ZYTOfflineLog::GetInstance();
    log.m_threadPool.DeInit(false);
    FailNth(LibcCall::kMalloc, 1);
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
    FailNth(LibcCall::kPthreadCreate, 2);
    EXPECT_FALSE(pool.Init(3));
    EXPECT_EQ(pool.m_threadIdList.size(), 1u) << "the first keeps running";
    EXPECT_THAT(log.Take(), ElementsAre(HasSubstr("D Create New Thread[0] Success: "),
                                        Text("E Create New Thread[1] Failed! Result Code: %d, ThreadID: 0", EAGAIN)));
    pool.DeInit(false);
    EXPECT_THAT(log.Take(), testing::Contains(HasSubstr("D Join Thread[0]: ")));
}
