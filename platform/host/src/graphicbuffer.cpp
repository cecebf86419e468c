#include "ui/GraphicBuffer.h"

#include <BufferAllocator/BufferAllocator.h>
#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <utility>

#include "internal.h"
#include "memory.h"
#include "strict.h"

using hostdevice::Fault;
using hostdevice::TakeFault;

namespace {

std::atomic<uint32_t> g_strideAlignment{64};
std::atomic<uint32_t> g_heightAlignment{32};
std::atomic<uint64_t> g_liveBuffers{0};

uint64_t RoundUp(uint64_t value, uint64_t alignment) { return (value + alignment - 1) / alignment * alignment; }

}  // namespace

namespace android {

GraphicBuffer::GraphicBuffer(uint32_t inWidth, uint32_t inHeight, PixelFormat inFormat, uint32_t inLayerCount,
                             uint64_t inUsage, std::string /*requestorName*/)
    : mInitCheck(inWidth != 0 && inHeight != 0 ? Allocate(inWidth, inHeight, std::max(inLayerCount, 1u))
                                               : Allocate(1, 1, std::max(inLayerCount, 1u))) {
    g_liveBuffers++;
    if (mInitCheck != 0) return;
    width = static_cast<int>(inWidth);
    height = static_cast<int>(inHeight);
    format = inFormat;
    layerCount = inLayerCount;
    usage = inUsage;
}

GraphicBuffer::~GraphicBuffer() {
    g_liveBuffers--;
    if (handle == nullptr) return;
    if (mLocked != nullptr) __wrap_munmap(mLocked, mBytes);
    if (handle->data[0] > 0) __wrap_close(handle->data[0]);
    std::free(const_cast<native_handle_t*>(handle));
}

status_t GraphicBuffer::Allocate(uint32_t inWidth, uint32_t inHeight, uint32_t inLayerCount) {
    if (TakeFault(Fault::kGraphicBuffer)) return -ENOMEM;
    const uint64_t rowPixels = RoundUp(inWidth, g_strideAlignment);
    const uint64_t lumaRows = RoundUp(inHeight, g_heightAlignment);
    // Enough for both kinds of image: 16-bit raw, and 8-bit YUV 4:2:0.
    const uint64_t rows = std::max(uint64_t{inHeight} * 2, lumaRows + (lumaRows + 1) / 2);
    uint64_t bytes = 0;
    if (rowPixels > INT_MAX || lumaRows > INT_MAX || __builtin_mul_overflow(rowPixels * rows, inLayerCount, &bytes)) {
        return -ENOMEM;
    }
    auto* const nativeHandle = static_cast<native_handle_t*>(std::malloc(sizeof(native_handle_t) + sizeof(int)));
    if (nativeHandle == nullptr) return -ENOMEM;
    nativeHandle->version = sizeof(native_handle_t);
    nativeHandle->numFds = 1;
    nativeHandle->numInts = 0;
    nativeHandle->data[0] =
        TakeFault(Fault::kGraphicDescriptor) ? 0 : hostdevice::CreateMemory(hostdevice::MemoryKind::kGraphic, bytes);
    if (const int error = nativeHandle->data[0]; error < 0) {
        std::free(nativeHandle);
        return error;
    }
    hostdevice::WatchMemory(nativeHandle->data[0], bytes);
    handle = nativeHandle;
    stride = static_cast<int>(rowPixels);
    mBytes = bytes;
    mLumaRows = lumaRows;
    return 0;
}

status_t GraphicBuffer::lock(uint32_t inUsage, void** vaddr, int32_t* outBytesPerPixel, int32_t* outBytesPerStride) {
    const int direction = ((inUsage & 0xf) != 0 ? kSyncRead : 0) | ((inUsage & 0xf0) != 0 ? kSyncWrite : 0);
    const int fd = handle != nullptr ? handle->data[0] : 0;
    if (fd <= 0 || direction == 0 || vaddr == nullptr) return -EINVAL;
    if (mLocked != nullptr) return -EBUSY;
    void* const mapped = __wrap_mmap(nullptr, mBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (mapped == MAP_FAILED) return -errno;
    hostdevice::OpenAccess(fd, direction);
    *vaddr = mLocked = mapped;
    if (outBytesPerPixel != nullptr) *outBytesPerPixel = -1;
    if (outBytesPerStride != nullptr) *outBytesPerStride = -1;
    return 0;
}

status_t GraphicBuffer::lockYCbCr(uint32_t inUsage, android_ycbcr* ycbcr) {
    const bool isYuv = format == HAL_PIXEL_FORMAT_IMPLEMENTATION_DEFINED || format == HAL_PIXEL_FORMAT_YCBCR_420_888;
    void* luma = nullptr;
    if (!isYuv || ycbcr == nullptr) return -EINVAL;
    if (const status_t error = lock(inUsage, &luma); error != 0) return error;
    const size_t rowBytes = getStride();
    auto* const chroma = static_cast<unsigned char*>(luma) + rowBytes * mLumaRows;
    *ycbcr = {luma, chroma, chroma + 1, rowBytes, rowBytes, 2, {}};
    return 0;
}

status_t GraphicBuffer::unlock() {
    if (mLocked == nullptr) return -EINVAL;
    hostdevice::CloseAccess(handle->data[0]);
    __wrap_munmap(std::exchange(mLocked, nullptr), mBytes);
    return 0;
}

}  // namespace android

namespace hostdevice {

uint64_t CountGraphicBuffers() { return g_liveBuffers; }

void SetStrideAlignment(uint32_t pixels) { g_strideAlignment = std::max(pixels, 1u); }

void SetHeightAlignment(uint32_t rows) { g_heightAlignment = std::max(rows, 1u); }

}  // namespace hostdevice
