#ifndef ZYT_BUFFER_ALLOCATOR_H
#define ZYT_BUFFER_ALLOCATOR_H

/// @file
/// The platform's sources of image memory.

#include <BufferAllocator/BufferAllocator.h>
#include <ui/GraphicBuffer.h>

#include <memory>

#include "base/zytexport.h"
#include "zytbuffermanager/zytimagebuffer.h"

/// Thin layer over the platform's sources of image memory. Allocates, maps and releases DMA-BUF and gralloc buffers and
/// brackets CPU access to them. It keeps no record of what it hands out and writes no log; the pool does both.
///
/// Descriptor 0 means "no descriptor". All mappings are shared, readable and writable. A mapping that the kernel
/// refused is returned as MAP_FAILED, not as null: the pool and the readers of its log tell the two apart. Thread-safe
/// as far as the platform's allocator is.
class ZYT_EXPORT ZYTBufferAllocator {
public:
    /// Creates the platform's allocator. Without memory for it AllocDMABuffer fails, and synchronising is not allowed.
    ZYTBufferAllocator();
    /// Releases no buffers; each belongs to whoever allocated it.
    ~ZYTBufferAllocator();
    ZYTBufferAllocator(const ZYTBufferAllocator&) = delete;
    ZYTBufferAllocator& operator=(const ZYTBufferAllocator&) = delete;

    /// Takes `size` bytes from the system heap and maps them. Returns 0 with *ppBuf and `fd` set, which the caller
    /// releases; MAP_FAILED in *ppBuf counts as success. Returns -1 when there is no platform allocator (nothing is
    /// touched), when the heap refuses (`fd` holds its negative result) and when the mapping is null (`fd` holds the
    /// number that was just closed).
    int AllocDMABuffer(unsigned long size, char** ppBuf, int& fd);

    /// Unmaps `size` bytes at pBuf unless it is null, closes `fd` and sets it to -1. Returns the result of close, or a
    /// negative `fd` unchanged.
    int DeallocDMABuffer(unsigned long size, char* pBuf, int& fd);

    /// Creates a graphic buffer (width and height in pixels; format and usage are the platform's values) and maps the
    /// first descriptor of its handle over stride * height bytes, the stride in pixels as gralloc reports it. Without
    /// such a descriptor *ppBuf is null and `fd` 0. The result keeps the buffer alive; the mapping outlives it. Ends
    /// the process when the length does not fit in 32 bits.
    android::sp<android::GraphicBuffer> AllocGraphicBuffer(unsigned int width, unsigned int height, int format,
                                                           unsigned int usage, char** ppBuf, int& fd);

    /// Maps `size` bytes of `fd`. Returns the address, MAP_FAILED, or null for descriptor 0.
    char* MapFDToBufferPointer(int fd, unsigned long size);

    /// Drops one reference. The mapping made by AllocGraphicBuffer stays.
    void DeallocGraphicBuffer(android::sp<android::GraphicBuffer> graphicBuffer);

    /// Opens a CPU access to `fd`. Returns the platform's result, 0 for success.
    int StartCPUSync(int fd, CPUSyncType type);

    /// Closes a CPU access, always in the read direction, whichever was opened. Returns the platform's result, 0 for
    /// success. Arm64 kernels before mid-2022 invalidate caches in that direction, so that CPU writes to a buffer of a
    /// device that is not cache-coherent can be lost; integrators of such a device have to take that into account.
    int EndCPUSync(int fd);

private:
    std::unique_ptr<BufferAllocator> m_pBufferAllocator;
};

#endif  // ZYT_BUFFER_ALLOCATOR_H
