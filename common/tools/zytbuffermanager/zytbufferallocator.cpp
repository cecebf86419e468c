#include "zytbuffermanager/zytbufferallocator.h"

#include <sys/mman.h>
#include <unistd.h>

#include <new>

#include "base/zytchecked.h"

ZYTBufferAllocator::ZYTBufferAllocator() : m_pBufferAllocator(new (std::nothrow) BufferAllocator()) {}

ZYTBufferAllocator::~ZYTBufferAllocator() = default;

int ZYTBufferAllocator::AllocDMABuffer(unsigned long size, char** ppBuf, int& fd) {
    if (m_pBufferAllocator == nullptr) return -1;
    fd = m_pBufferAllocator->AllocSystem(true, size, 0, 0);
    if (fd < 0) return -1;
    *ppBuf = static_cast<char*>(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    if (*ppBuf != nullptr) return 0;
    close(fd);
    return -1;
}

int ZYTBufferAllocator::DeallocDMABuffer(unsigned long size, char* pBuf, int& fd) {
    if (pBuf != nullptr) munmap(pBuf, size);
    if (fd < 0) return fd;
    const int result = close(fd);
    fd = -1;
    return result;
}

android::sp<android::GraphicBuffer> ZYTBufferAllocator::AllocGraphicBuffer(unsigned int width, unsigned int height,
                                                                           int format, unsigned int usage, char** ppBuf,
                                                                           int& fd) {
    constexpr uint32_t kLayerCount = 1;
    android::sp<android::GraphicBuffer> graphicBuffer(
        new android::GraphicBuffer(width, height, format, kLayerCount, static_cast<uint64_t>(usage), "<Unknown>"));
    const ANativeWindowBuffer* nativeBuffer = graphicBuffer->getNativeBuffer();
    fd = nativeBuffer->handle != nullptr ? nativeBuffer->handle->data[0] : 0;
    const uint32_t length = zyt::CheckedMul(graphicBuffer->getStride(), height, "stride * height of a graphic buffer");
    *ppBuf = MapFDToBufferPointer(fd, length);
    return graphicBuffer;
}

char* ZYTBufferAllocator::MapFDToBufferPointer(int fd, unsigned long size) {
    if (fd == 0) return nullptr;
    return static_cast<char*>(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
}

void ZYTBufferAllocator::DeallocGraphicBuffer(android::sp<android::GraphicBuffer>) {}

int ZYTBufferAllocator::StartCPUSync(int fd, CPUSyncType type) {
    SyncType direction = kSyncReadWrite;
    if (type == CPU_SYNC_READ) direction = kSyncRead;
    if (type == CPU_SYNC_WRITE) direction = kSyncWrite;
    return m_pBufferAllocator->CpuSyncStart(static_cast<unsigned int>(fd), direction, {}, nullptr);
}

int ZYTBufferAllocator::EndCPUSync(int fd) {
    return m_pBufferAllocator->CpuSyncEnd(static_cast<unsigned int>(fd), kSyncRead, {}, nullptr);
}
