// The members that clients take the address of. A private overload would make a name ambiguous, or hide it from a class
// that brings it in by `using`.

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

struct User : ZYTBufferPool, ZYTBufferManager, ZYTBufferUtil {
    using ZYTBufferManager::AllocBuffer;
    using ZYTBufferManager::EndCPUSync;
    using ZYTBufferManager::FreeBuffer;
    using ZYTBufferManager::StartCPUSync;
    using ZYTBufferPool::GetBufferFromPool;
    using ZYTBufferPool::ReleaseBuffer;
    using ZYTBufferUtil::GetBufferFormatString;
};

// Each overload is chosen by its type alone.
[[maybe_unused]] void* (ZYTBufferPool::*const kGet)(unsigned int, int&, ZYTBufferType) = &User::GetBufferFromPool;
[[maybe_unused]] void (ZYTBufferPool::*const kRelease)(ZYTBufferPoolBufferInfo) = &User::ReleaseBuffer;
[[maybe_unused]] bool (ZYTBufferManager::*const kAlloc)(unsigned int, void**, int&, ZYTBufferType) = &User::AllocBuffer;
[[maybe_unused]] bool (ZYTBufferManager::*const kAllocImage)(ZYTImageBuffer&, ZYTBufferType) = &User::AllocBuffer;
[[maybe_unused]] bool (ZYTBufferManager::*const kFree)(const void*) = &User::FreeBuffer;
[[maybe_unused]] bool (ZYTBufferManager::*const kStart)(int, CPUSyncType) = &User::StartCPUSync;
[[maybe_unused]] bool (ZYTBufferManager::*const kEnd)(const ZYTImageBuffer&) = &User::EndCPUSync;
[[maybe_unused]] std::string (*const kName)(ZYTFormat) = &User::GetBufferFormatString;
[[maybe_unused]] size_t (ZYTSignalTask::*const kRaise)(uint64_t) = &ZYTSignalTask::insert;
[[maybe_unused]] size_t (ZYTSignalTask::*const kConnect)(uint64_t, WrapperTask&&) = &ZYTSignalTask::insert;

}  // namespace

TEST(Interface, MembersCanBePassedToTheStandardLibrary) {
    ZYTBufferPool pool;
    zyttest::LogCapture log;
    std::thread(&ZYTBufferPool::PutBufferToPool, &pool, nullptr).join();
    EXPECT_EQ(log.Take().size(), 1u);
}
