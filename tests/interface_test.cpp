// The members that clients take the address of. A private overload would make a name ambiguous, or hide it from a class
// that brings it in by `using`.

#include <functional>
#include <thread>
#include <tuple>

#include "logging/zytlogsite.h"
#include "support.h"
#include "utilities/zytutil.h"
#include "zytbuffermanager/zytbuffermanager.h"
#include "zytbuffermanager/zytbufferutil.h"
#include "zytsignaltask/zytsignaltask.h"

namespace {

[[maybe_unused]] const auto kNamedOnce = std::make_tuple(
    &ZYTBufferAllocator::AllocDMABuffer, &ZYTBufferAllocator::DeallocDMABuffer, &ZYTBufferAllocator::AllocGraphicBuffer,
    &ZYTBufferAllocator::MapFDToBufferPointer, &ZYTBufferAllocator::DeallocGraphicBuffer,
    &ZYTBufferAllocator::StartCPUSync, &ZYTBufferAllocator::EndCPUSync, &ZYTBufferPool::SetClientName,
    &ZYTBufferPool::AllocBuffer, &ZYTBufferPool::PutBufferToPool, &ZYTBufferPool::GetAllocator,
    &ZYTBufferManager::SetManagerName, &ZYTBufferManager::GetImgBufferSize, &ZYTBufferUtil::ZYTCopyPlane,
    &ZYTBufferUtil::ZYTBufferCopy, &ZYTBufferUtil::ZYTDumpPlane, &ZYTBufferUtil::ZYTBufferDump,
    &ZYTBufferUtil::ZYTBufferToASVLOffScreen, &ZYTBufferUtil::GetASVLOffScreenRawFormat, &ZYTLogUtil::LogE,
    &ZYTLogUtil::LogW, &ZYTLogUtil::LogD, &ZYTLogUtil::LogI, &ZYTLogUtil::LogV, &ZYTOfflineLog::ZYTOfflineLogE,
    &ZYTOfflineLog::ZYTOfflineLogW, &ZYTOfflineLog::ZYTOfflineLogD, &ZYTOfflineLog::ZYTOfflineLogI,
    &ZYTOfflineLog::ZYTOfflineLogV, &ZYTOfflineLog::GetInstance, &ZYTOfflineLog::PushLogToLogPool,
    &ZYTOfflineLog::SaveLog, &ZYTOfflineLog::FlushLogPoolToFile2, &ZYTOfflineLog::FlushLogPoolToFile,
    &ZYTOfflineLog::ReadEnableFromOverrideSettingsFile, &ZYTThreadPool::Init, &ZYTThreadPool::DeInit,
    &ZYTThreadPool::WorkerCore, &ZYTThreadPool::GetTaskFromList, &ZYTThreadPool::FlushTask, &ZYTThreadPool::QueueTask,
    &ZYTSignalTask::instance, &ZYTSignalTask::signal, &ZYTSignalTask::notify, &ZYTSignalTask::loop,
    &ZYTUtil::GetFileListInDir, &ZYTUtil::SearchFileByName, &ZYTUtil::GetFileNameFromFilePath, &ZYTUtil::ToLowerCaseStr,
    &ZYTUtil::ReadFileData, &ZYTUtil::FreeFileData, &ZYTUtil::IsFileExist, &ZYTUtil::GetProductInfo,
    &ZYTUtil::QtimerNanoToQtimerTicks, &ZYTUtil::QtimerTicksToQtimerNano, &ZYTUtil::GetCurMilliSecond,
    &ZYTUtil::TranslateCropInfo, &ZYTUtil::MapFaceROIToImageBuffer, &ZYTUtil::DrawPointer, &ZYTUtil::DrawRect);

struct PoolUser : ZYTBufferPool {
    using ZYTBufferPool::GetBufferFromPool;
    using ZYTBufferPool::ReleaseBuffer;
};
struct Node : ZYTBufferManager {
    using ZYTBufferManager::AllocBuffer;
    using ZYTBufferManager::EndCPUSync;
    using ZYTBufferManager::FreeBuffer;
    using ZYTBufferManager::StartCPUSync;
};
struct Namer : ZYTBufferUtil {
    using ZYTBufferUtil::GetBufferFormatString;
};
using InsertSignal = size_t (ZYTSignalTask::*)(uint64_t);
using InsertTask = size_t (ZYTSignalTask::*)(uint64_t, WrapperTask&&);

}  // namespace

TEST(Interface, MembersCanBePassedToTheStandardLibrary) {
    ZYTBufferPool pool;
    zyttest::LogCapture log;
    std::thread(&ZYTBufferPool::PutBufferToPool, &pool, nullptr).join();
    std::mem_fn (&ZYTBufferPool::PutBufferToPool)(pool, nullptr);
    std::bind(&ZYTBufferPool::PutBufferToPool, &pool, nullptr)();
    EXPECT_EQ(log.Take().size(), 3u);
}

TEST(Interface, OverloadsAreChosenByTheirTypesAlone) {
    int fd = 1;
    ZYTBufferPool pool;
    void* (ZYTBufferPool::*const get)(unsigned int, int&, ZYTBufferType) = &PoolUser::GetBufferFromPool;
    void (ZYTBufferPool::*const release)(ZYTBufferPoolBufferInfo) = &PoolUser::ReleaseBuffer;
    void* pBuf = (pool.*get)(64, fd, ZYT_BUFFER_TYPE_MALLOC);
    EXPECT_EQ(fd, 0);
    pool.PutBufferToPool(pBuf);
    (pool.*release)({ZYT_BUFFER_TYPE_GRALLOC, nullptr, 0, 0});

    ZYTBufferManager manager;
    bool (ZYTBufferManager::*const alloc)(unsigned int, void**, int&, ZYTBufferType) = &Node::AllocBuffer;
    bool (ZYTBufferManager::*const allocImage)(ZYTImageBuffer&, ZYTBufferType) = &Node::AllocBuffer;
    bool (ZYTBufferManager::*const free)(const void*) = &Node::FreeBuffer;
    bool (ZYTBufferManager::*const start)(int, CPUSyncType) = &Node::StartCPUSync;
    bool (ZYTBufferManager::*const end)(const ZYTImageBuffer&) = &Node::EndCPUSync;
    ZYTImageBuffer empty{};
    EXPECT_TRUE((manager.*alloc)(64, &pBuf, fd, ZYT_BUFFER_TYPE_MALLOC));
    EXPECT_FALSE((manager.*allocImage)(empty, ZYT_BUFFER_TYPE_MALLOC));
    EXPECT_TRUE((manager.*free)(pBuf));
    EXPECT_FALSE((manager.*start)(-1, CPU_SYNC_READ));
    EXPECT_TRUE((manager.*end)(empty));

    std::string (*const name)(ZYTFormat) = &Namer::GetBufferFormatString;
    EXPECT_EQ(name(ZYT_FORMAT_Y16), "Y16");
    const InsertSignal raise = &ZYTSignalTask::insert;
    const InsertTask connect = &ZYTSignalTask::insert;
    EXPECT_EQ((ZYTSignalTask::instance()->*connect)(1, WrapperTask()), 1u);
    EXPECT_EQ((ZYTSignalTask::instance()->*raise)(2), 1u);
    ZYTSignalTask::instance()->disconnect();
}
