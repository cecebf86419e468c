#ifndef ZYT_BUFFER_ALLOCATOR_H
#define ZYT_BUFFER_ALLOCATOR_H

/// @file
/// The platform's sources of image memory.

#include <BufferAllocator/BufferAllocator.h>
#include <ui/GraphicBuffer.h>

#include <memory>

#include "base/zytexport.h"
#include "zytbuffermanager/zytimagebuffer.h"

/// Thin layer over the platform's sources of image memory: allocates, maps and releases DMA-BUF and gralloc buffers
/// and brackets CPU access to them. It keeps no record of what it hands out and writes no log; the pool does both.
///
/// Descriptor 0 means "no descriptor". All mappings are shared and readable and writable. A mapping that the kernel
/// refused is passed on as MAP_FAILED, not as null: the pool and its clients' logs rely on telling the two apart. Calls
/// may run at once on several threads as far as the platform's allocator allows.
class ZYT_EXPORT ZYTBufferAllocator {
public:
    /// Makes the platform's allocator. Without memory for it AllocDMABuffer fails, and nothing may be synchronised.
    ZYTBufferAllocator();
    /// Releases no buffer: each belongs to whoever asked for it.
    ~ZYTBufferAllocator();
    ZYTBufferAllocator(const ZYTBufferAllocator&) = delete;
    ZYTBufferAllocator& operator=(const ZYTBufferAllocator&) = delete;

    /// Takes size bytes from the system heap and maps them. Returns 0 with *ppBuf and fd set, the caller's to release;
    /// MAP_FAILED in *ppBuf counts as success. Returns -1 when there is no platform allocator (nothing touched), the
    /// heap refuses (fd holds its negative error) or the mapping is null (fd holds the number just closed).
    int AllocDMABuffer(unsigned long size, char** ppBuf, int& fd);

    /// Unmaps size bytes at pBuf unless it is null, closes fd and sets it to -1. Returns close's result, or a negative
    /// fd unchanged.
    int DeallocDMABuffer(unsigned long size, char* pBuf, int& fd);

    /// Makes a graphic buffer (width and height in pixels, the platform's format and usage values) and maps the first
    /// descriptor of its handle over stride * height bytes, the stride in pixels as gralloc reports it. *ppBuf is null
    /// and fd 0 when there is no such descriptor. The result keeps the buffer alive; the mapping outlives it. A length
    /// beyond 32 bits ends the process.
    android::sp<android::GraphicBuffer> AllocGraphicBuffer(unsigned int width, unsigned int height, int format,
                                                           unsigned int usage, char** ppBuf, int& fd);

    /// Maps size bytes of fd: the address, MAP_FAILED, or null for descriptor 0.
    char* MapFDToBufferPointer(int fd, unsigned long size);

    /// Drops one reference. The mapping made by AllocGraphicBuffer stays.
    void DeallocGraphicBuffer(android::sp<android::GraphicBuffer> graphicBuffer);

    /// Opens a CPU access to fd; 0 or the platform's negative error.
    int StartCPUSync(int fd, CPUSyncType type);

    /// Closes a CPU access, always in the read direction, whichever was opened: drivers' cache handling is tuned to it.
    int EndCPUSync(int fd);

private:
    std::unique_ptr<BufferAllocator> m_pBufferAllocator;
};

#endif  // ZYT_BUFFER_ALLOCATOR_H
