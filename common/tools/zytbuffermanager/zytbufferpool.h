#ifndef ZYT_BUFFER_POOL_H
#define ZYT_BUFFER_POOL_H

#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>

#include "base/zytexport.h"
#include "base/zytthreadsafety.h"
#include "zytbuffermanager/zytbufferallocator.h"

/// A malloc or DMA-BUF buffer of the pool.
struct ZYTBufferPoolBufferInfo {
    ZYTBufferType type;
    void* pBuf;     // CPU address, and its identity while it is out
    int fd;         // 0 for malloc buffers
    uint32_t size;  // bytes; the key of its free list
};

/// A gralloc buffer of the pool; the record keeps the graphic buffer alive.
struct ZYTGrallocBufferPoolBufferInfo {
    ZYTBufferType type;
    void* pBuf;
    android::sp<android::GraphicBuffer> graphicBuffer;
    int fd;  // first descriptor of the native handle, which owns it
    uint32_t width;
    uint32_t height;
};

/// Key of the gralloc free lists: ordered by width, then by height.
struct ZYTGrallocBufferKey {
    uint32_t width;
    uint32_t height;

    friend bool operator<(const ZYTGrallocBufferKey& a, const ZYTGrallocBufferKey& b) {
        return a.width != b.width ? a.width < b.width : a.height < b.height;
    }
};

/// A client's handle on the one buffer pool of the process.
///
/// The pool owns every buffer. A client takes one of an exact size (or gralloc geometry), made on demand, and hands it
/// back; the buffer returned last is the first to be reused, and at most 10 free ones are kept for each size. Any
/// client may return any buffer. When the last client goes, everything that is free is released, and so are the malloc
/// and DMA-BUF buffers that are still out; gralloc buffers that are out are only reported.
///
/// The lists and locks are shared by all clients, and all operations may be called from any thread. Lock order: client
/// count, then either list; the two lists are never locked together. Each line goes to both logs, tagged with
/// "BufferPool-" and the client's name.
class ZYT_EXPORT ZYTBufferPool {
public:
    /// Registers one more client, named "UnknowBufferManager".
    ZYTBufferPool();

    /// Does not register itself, although its destructor unregisters like any other: it counts on a registered client
    /// that outlives it. Without one it empties the pool on the way in and ends the process on the way out.
    explicit ZYTBufferPool(std::string name);

    /// Unregisters; the last one out releases the pool. Ends the process when nobody is registered.
    ~ZYTBufferPool();

    ZYTBufferPool(const ZYTBufferPool&) = delete;
    ZYTBufferPool& operator=(const ZYTBufferPool&) = delete;

    /// Renames the client for later log lines. Not safe while another thread uses the same client.
    void SetClientName(std::string name);

    /// Takes a malloc or DMA-BUF buffer of exactly size bytes. Null, with fd 0, for size 0, another type, or when none
    /// can be made. fd is the buffer's descriptor, 0 for malloc.
    void* GetBufferFromPool(unsigned int size, int& fd, ZYTBufferType type);

    /// Takes a gralloc buffer of that geometry in pixels, or, for the other types, one of width * height bytes (a
    /// product beyond 32 bits ends the process). *ppNativeHandle is written for gralloc only, and only on success;
    /// ppNativeHandle may be null.
    void* GetBufferFromPool(unsigned int width, unsigned int height, int& fd, void** ppNativeHandle,
                            ZYTBufferType type);

    /// Makes a buffer and puts it into the free list; returns its address or null. Takes no lock.
    void* AllocBuffer(unsigned int width, unsigned int height, unsigned int size, ZYTBufferType type)
        ZYT_REQUIRES(m_freeBufferListLock);

    /// Hands a buffer back. An address that is not out is refused with a warning.
    void PutBufferToPool(void* pBuf);

    /// Releases a buffer's memory and descriptor. Takes no lock.
    void ReleaseBuffer(ZYTBufferPoolBufferInfo info);

    /// Drops a reference to a graphic buffer. Its mapping stays: gralloc's own unmapping would race with it.
    void ReleaseBuffer(ZYTGrallocBufferPoolBufferInfo info);

    /// This client's allocator, valid as long as the client.
    ZYTBufferAllocator* GetAllocator() { return &m_allocator; }

    static std::mutex m_bufferPoolClientNumLock;
    static uint32_t m_bufferPoolClientNum ZYT_GUARDED_BY(m_bufferPoolClientNumLock);
    static std::mutex m_freeBufferListLock;
    /// By ZYTBufferType, then by size in bytes. The entry for gralloc stays empty.
    static std::map<uint32_t, std::deque<ZYTBufferPoolBufferInfo>> m_freeBufferList[3] ZYT_GUARDED_BY(
        m_freeBufferListLock);
    static std::map<ZYTGrallocBufferKey, std::deque<ZYTGrallocBufferPoolBufferInfo>> m_freeGrallocBufferList
        ZYT_GUARDED_BY(m_freeBufferListLock);
    static std::mutex m_busyBufferListLock;
    static std::map<void*, ZYTBufferPoolBufferInfo> m_busyBufferList ZYT_GUARDED_BY(m_busyBufferListLock);
    static std::map<void*, ZYTGrallocBufferPoolBufferInfo> m_busyGrallocBufferList ZYT_GUARDED_BY(m_busyBufferListLock);

private:
    void* AllocGrallocBuffer(unsigned int width, unsigned int height) ZYT_REQUIRES(m_freeBufferListLock);

    std::string m_clientName;
    std::string m_logTag;
    ZYTBufferAllocator m_allocator;
};

#endif  // ZYT_BUFFER_POOL_H
