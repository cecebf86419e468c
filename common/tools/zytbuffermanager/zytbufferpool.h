#ifndef ZYT_BUFFER_POOL_H
#define ZYT_BUFFER_POOL_H

/// @file
/// The process's buffer pool and its records.

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
    ZYTBufferType type;  ///< Malloc or DMA-BUF.
    void* pBuf;          ///< Address of the memory, and the buffer's identity while it is out.
    int fd;              ///< Descriptor of a DMA-BUF, 0 for malloc.
    uint32_t size;       ///< Bytes; the key of its free list.
};

/// A gralloc buffer of the pool; the record keeps the graphic buffer alive.
struct ZYTGrallocBufferPoolBufferInfo {
    ZYTBufferType type;                                 ///< Always gralloc.
    void* pBuf;                                         ///< Address of the mapping, and the buffer's identity.
    android::sp<android::GraphicBuffer> graphicBuffer;  ///< What owns the memory.
    int fd;                                             ///< First descriptor of the native handle, which owns it.
    uint32_t width;                                     ///< Pixels, as asked for.
    uint32_t height;                                    ///< Rows, as asked for.
};

/// Key of the gralloc free lists.
struct ZYTGrallocBufferKey {
    uint32_t width;   ///< Pixels.
    uint32_t height;  ///< Rows.

    /// By width, then by height.
    friend bool operator<(const ZYTGrallocBufferKey& a, const ZYTGrallocBufferKey& b) {
        return a.width != b.width ? a.width < b.width : a.height < b.height;
    }
};

/// A client's handle on the one buffer pool of the process.
///
/// The pool owns every buffer. A client takes one of an exact size (or gralloc geometry), made on demand, and hands it
/// back; the buffer returned last is the first to be reused, and at most 10 free ones are kept for each size. Any
/// client may return any buffer. When the last client goes, everything that is free is released, and so are the malloc
/// and DMA-BUF buffers that are still out; gralloc buffers that are out are only reported. A buffer that the kernel
/// refused to map is handed out like any other, with the address MAP_FAILED.
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
    /// product beyond 32 bits ends the process). Null, with fd 0, for width 0, an unknown type, or when none can be
    /// made. *ppNativeHandle is written for gralloc only, and only on success; ppNativeHandle may be null.
    void* GetBufferFromPool(unsigned int width, unsigned int height, int& fd, void** ppNativeHandle,
                            ZYTBufferType type);

    /// Makes a buffer and puts it into the free list; returns its address or null. Takes no lock: the caller holds
    /// m_freeBufferListLock. Gralloc reads width and height (pixels), the other types size (bytes).
    void* AllocBuffer(unsigned int width, unsigned int height, unsigned int size, ZYTBufferType type)
        ZYT_REQUIRES(m_freeBufferListLock);

    /// Hands a buffer back. An address that is not out is refused with a warning.
    void PutBufferToPool(void* pBuf);

    /// Releases the memory and the descriptor of a malloc or DMA-BUF buffer; another type is only reported. Takes no
    /// lock.
    void ReleaseBuffer(ZYTBufferPoolBufferInfo info);

    /// Drops a reference to a graphic buffer. Its mapping stays: gralloc's own unmapping would race with it. Takes no
    /// lock.
    void ReleaseBuffer(ZYTGrallocBufferPoolBufferInfo info);

    /// This client's allocator, valid as long as the client.
    ZYTBufferAllocator* GetAllocator() { return &m_allocator; }

    /// @name The pool itself
    /// Shared by all clients in the process. What a lock guards may be touched only with that lock held.
    /// @{

    /// Guards m_bufferPoolClientNum; the last client to go holds it for the whole clean-up.
    static std::mutex m_bufferPoolClientNumLock;
    /// Registered clients.
    static uint32_t m_bufferPoolClientNum ZYT_GUARDED_BY(m_bufferPoolClientNumLock);

    /// Guards both free lists; held while a buffer is made, too.
    static std::mutex m_freeBufferListLock;
    /// Free malloc and DMA-BUF buffers, by ZYTBufferType, then by size in bytes; the one returned last is at the back.
    /// The entry for gralloc stays empty.
    static std::map<uint32_t, std::deque<ZYTBufferPoolBufferInfo>> m_freeBufferList[3] ZYT_GUARDED_BY(
        m_freeBufferListLock);
    /// Free gralloc buffers, by geometry; the one returned last is at the back.
    static std::map<ZYTGrallocBufferKey, std::deque<ZYTGrallocBufferPoolBufferInfo>> m_freeGrallocBufferList
        ZYT_GUARDED_BY(m_freeBufferListLock);

    /// Guards both busy lists.
    static std::mutex m_busyBufferListLock;
    /// Malloc and DMA-BUF buffers that are out, by address.
    static std::map<void*, ZYTBufferPoolBufferInfo> m_busyBufferList ZYT_GUARDED_BY(m_busyBufferListLock);
    /// Gralloc buffers that are out, by address.
    static std::map<void*, ZYTGrallocBufferPoolBufferInfo> m_busyGrallocBufferList ZYT_GUARDED_BY(m_busyBufferListLock);

    /// @}

private:
    void* AllocGrallocBuffer(unsigned int width, unsigned int height) ZYT_REQUIRES(m_freeBufferListLock);

    std::string m_clientName;
    std::string m_logTag;
    ZYTBufferAllocator m_allocator;
};

#endif  // ZYT_BUFFER_POOL_H
