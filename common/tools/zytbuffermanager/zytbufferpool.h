#ifndef ZYT_BUFFER_POOL_H
#define ZYT_BUFFER_POOL_H

/// @file
/// The buffer pool of the process and its records.

#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>

#include "base/zytexport.h"
#include "base/zytthreadsafety.h"
#include "zytbuffermanager/zytbufferallocator.h"

/// Record of a malloc or DMA-BUF buffer.
struct ZYTBufferPoolBufferInfo {
    ZYTBufferType type;  ///< Malloc or DMA-BUF.
    void* pBuf;          ///< Address of the memory; identifies the buffer while it is out.
    int fd;              ///< Descriptor of a DMA-BUF, 0 for malloc.
    uint32_t size;       ///< Bytes; the key of its free list.
};

/// Record of a gralloc buffer. It keeps the graphic buffer alive.
struct ZYTGrallocBufferPoolBufferInfo {
    ZYTBufferType type;                                 ///< Always gralloc.
    void* pBuf;                                         ///< Address of the mapping; identifies the buffer.
    android::sp<android::GraphicBuffer> graphicBuffer;  ///< Owns the memory.
    int fd;                                             ///< First descriptor of the native handle, which owns it.
    uint32_t width;                                     ///< Pixels, as requested.
    uint32_t height;                                    ///< Rows, as requested.
};

/// Key of the gralloc free lists.
struct ZYTGrallocBufferKey {
    uint32_t width;   ///< Pixels.
    uint32_t height;  ///< Rows.

    /// Orders by width, then by height.
    friend bool operator<(const ZYTGrallocBufferKey& a, const ZYTGrallocBufferKey& b) {
        return a.width != b.width ? a.width < b.width : a.height < b.height;
    }
};

/// A client of the buffer pool that all nodes of the process share.
///
/// The pool owns every buffer. A client takes a buffer of an exact size, or of an exact geometry for gralloc, and
/// returns it; a buffer is created when no free one matches. The buffer that was returned last is reused first, and at
/// most 10 free buffers are kept for each size or geometry. Any client may return any buffer. When the last client is
/// destroyed, the pool releases all free buffers and the malloc and DMA-BUF buffers that are still out; gralloc buffers
/// that are out are only reported. A buffer that the kernel refused to map is handed out like any other, at the address
/// MAP_FAILED, and is reused like any other after it was returned.
///
/// Thread-safe. Lock order: client count, then either list; the two list locks are never held together. All log lines
/// go to both logs, tagged with "BufferPool-" and the client's name. The free-list lock is held while a buffer is
/// created or released and its lines are logged, so a log sink must not call into the pool.
class ZYT_EXPORT ZYTBufferPool {
public:
    /// Registers a client named "UnknowBufferManager".
    ZYTBufferPool() ZYT_EXCLUDES(m_bufferPoolClientNumLock);

    /// Creates a named client that is not registered. Its destructor unregisters one client all the same, and so takes
    /// away the registration of another: the pool is released one client too early, and the destructor of the client
    /// that is left ends the process. Without a registered client the constructor releases the pool and the destructor
    /// ends the process. To name a client, call SetClientName on one made by ZYTBufferPool().
    explicit ZYTBufferPool(std::string name)
        ZYT_EXCLUDES(m_bufferPoolClientNumLock, m_freeBufferListLock, m_busyBufferListLock);

    /// Unregisters a client; the last one releases the pool. Ends the process when no client is registered.
    ~ZYTBufferPool() ZYT_EXCLUDES(m_bufferPoolClientNumLock, m_freeBufferListLock, m_busyBufferListLock);

    ZYTBufferPool(const ZYTBufferPool&) = delete;
    ZYTBufferPool& operator=(const ZYTBufferPool&) = delete;

    /// Renames the client for later log lines, those of an operation that is under way included. Not thread-safe: the
    /// name is a plain string that every operation of this client reads.
    void SetClientName(std::string name);

    /// Takes a malloc or DMA-BUF buffer of exactly `size` bytes and stores its descriptor in `fd`, 0 for malloc.
    /// Returns null, with `fd` 0, for size 0, for another type, and when no buffer can be created.
    void* GetBufferFromPool(unsigned int size, int& fd, ZYTBufferType type)
        ZYT_EXCLUDES(m_freeBufferListLock, m_busyBufferListLock);

    /// Takes a gralloc buffer of that geometry in pixels or, for the other types, a buffer of width * height bytes.
    /// Ends the process when the product does not fit in 32 bits. Returns null, with `fd` 0, for width 0, for an
    /// unknown type, and when no buffer can be created. *ppNativeHandle is written for gralloc only, on success only;
    /// ppNativeHandle may be null.
    void* GetBufferFromPool(unsigned int width, unsigned int height, int& fd, void** ppNativeHandle, ZYTBufferType type)
        ZYT_EXCLUDES(m_freeBufferListLock, m_busyBufferListLock);

    /// Creates a buffer and appends it to its free list. Returns its address or null. Gralloc uses width and height in
    /// pixels, the other types use `size` in bytes. Takes no lock. REQUIRES: the caller holds m_freeBufferListLock.
    void* AllocBuffer(unsigned int width, unsigned int height, unsigned int size, ZYTBufferType type)
        ZYT_REQUIRES(m_freeBufferListLock);

    /// Returns a buffer to the pool. Null and an address that is not out are refused with a warning.
    void PutBufferToPool(void* pBuf) ZYT_EXCLUDES(m_freeBufferListLock, m_busyBufferListLock);

    /// Releases the memory and the descriptor of a malloc or DMA-BUF buffer. Another type is only reported. Takes no
    /// lock.
    void ReleaseBuffer(ZYTBufferPoolBufferInfo info);

    /// Drops a reference to a graphic buffer. Its mapping and its descriptor stay: consumers of the graphic buffer may
    /// still use both. Takes no lock.
    void ReleaseBuffer(ZYTGrallocBufferPoolBufferInfo info);

    /// Returns this client's allocator, valid as long as the client.
    ZYTBufferAllocator* GetAllocator();

    /// @name The pool itself
    /// Shared by all clients of the process. A member that a lock guards may be accessed only with that lock held.
    /// @{

    /// Guards m_bufferPoolClientNum. The last client holds it while it releases the pool.
    static std::mutex m_bufferPoolClientNumLock;
    /// Number of registered clients.
    static uint32_t m_bufferPoolClientNum ZYT_GUARDED_BY(m_bufferPoolClientNumLock);

    /// Guards both free lists. Held while a buffer is created or released.
    static std::mutex m_freeBufferListLock;
    /// Free malloc and DMA-BUF buffers by ZYTBufferType and size in bytes; the buffer returned last is at the back. The
    /// entry for gralloc stays empty.
    static std::map<uint32_t, std::deque<ZYTBufferPoolBufferInfo>> m_freeBufferList[3] ZYT_GUARDED_BY(
        m_freeBufferListLock);
    /// Free gralloc buffers by geometry; the buffer returned last is at the back.
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
    ZYT_LOCAL void* AllocGrallocBuffer(unsigned int width, unsigned int height) ZYT_REQUIRES(m_freeBufferListLock);

    // Functions whose log lines carry a public function's name. In the class itself they would join that function's
    // overloads, and clients that take its address would no longer compile.
    struct Steps;

    std::string m_clientName;
    std::string m_logTag;
    ZYTBufferAllocator m_allocator;
};

#endif  // ZYT_BUFFER_POOL_H
