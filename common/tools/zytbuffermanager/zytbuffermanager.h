#ifndef ZYT_BUFFER_MANAGER_H
#define ZYT_BUFFER_MANAGER_H

/// @file
/// What a node includes to get memory: the manager and, with it, the pool, the allocator and the image record.

#include <mutex>
#include <set>
#include <string>

#include "base/zytexport.h"
#include "base/zytthreadsafety.h"
#include "zytbuffermanager/zytbufferallocator.h"
#include "zytbuffermanager/zytbufferpool.h"
#include "zytbuffermanager/zytimagebuffer.h"

/// Gives an algorithm node its memory: buffers by size and images by format and geometry, from the pool that all nodes
/// of the process share.
///
/// The pool owns every buffer. The manager records the buffers that it hands out, frees only those, and returns the
/// ones that are left, with a warning, when it is destroyed. Gralloc images are the exception: they are never recorded,
/// because consumers outside the node may still hold them. FreeBuffer refuses them, and they stay out, even when the
/// last client releases the pool, until somebody passes them to ZYTBufferPool::PutBufferToPool.
///
/// Thread-safe; one manager may be shared. A failure is a false result and a line in both logs, tagged with the
/// manager's name. Lock order: the manager's lock, then the pool's.
///
/// The library carries no run-time type information. A class derived from this one is built with -fno-rtti, and a
/// client that uses -fsanitize=undefined adds -fno-sanitize=vptr; otherwise the type information of this class is
/// missing at link time.
class ZYT_EXPORT ZYTBufferManager {
public:
    /// Creates a manager named "UnknowBufferManager".
    ZYTBufferManager() ZYT_EXCLUDES(ZYTBufferPool::m_bufferPoolClientNumLock);
    /// Creates a manager with a name, which also tags its pool client's lines.
    explicit ZYTBufferManager(const std::string& name)
        ZYT_EXCLUDES(ZYTBufferPool::m_bufferPoolClientNumLock, ZYTBufferPool::m_freeBufferListLock,
                     ZYTBufferPool::m_busyBufferListLock);
    /// Returns every recorded buffer to the pool.
    virtual ~ZYTBufferManager() ZYT_EXCLUDES(ZYTBufferPool::m_bufferPoolClientNumLock,
                                             ZYTBufferPool::m_freeBufferListLock, ZYTBufferPool::m_busyBufferListLock);
    ZYTBufferManager(const ZYTBufferManager&) = delete;
    ZYTBufferManager& operator=(const ZYTBufferManager&) = delete;

    /// Renames the manager for later log lines, those of an operation that is under way included. Not thread-safe: the
    /// name is a plain string that every operation of this manager reads.
    void SetManagerName(const std::string& name);

    /// Takes a malloc or DMA-BUF buffer of `size` bytes; gralloc is refused. Stores its address in *ppBuf and its
    /// descriptor, 0 for malloc, in `fd`. On failure returns false with *ppBuf null and `fd` 0; for size 0 and for a
    /// null ppBuf both stay untouched. A DMA-BUF that the kernel refused to map is no failure: its address is
    /// MAP_FAILED, and the caller has to test for it.
    bool AllocBuffer(unsigned int size, void** ppBuf, int& fd, ZYTBufferType type)
        ZYT_EXCLUDES(ZYTBufferPool::m_freeBufferListLock, ZYTBufferPool::m_busyBufferListLock);

    /// Takes memory for an image whose format, width, height, planeStride and sliceHeight are set, and fills in the
    /// other fields: one buffer for each plane, or a single one for gralloc. P010 and Y16 cannot be allocated.
    ///
    /// On failure the record stays untouched, except for an unknown type, which clears its planes and sets their
    /// number. When a later plane cannot be obtained, the earlier ones stay recorded until the manager is destroyed.
    /// Two results are no failure, and the caller has to test for them: a gralloc image without memory has a null
    /// pAddr[0], and a plane that the kernel refused to map has the address MAP_FAILED. Stride and slice height are
    /// used as they are, even when they leave less memory than the image needs. A plane size that does not fit in 32
    /// bits ends the process.
    bool AllocBuffer(ZYTImageBuffer& image, ZYTBufferType type)
        ZYT_EXCLUDES(ZYTBufferPool::m_freeBufferListLock, ZYTBufferPool::m_busyBufferListLock);

    /// Tells how many planes AllocBuffer would take and the bytes of each. planeSizes has room for `capacity` entries,
    /// and for at least two with NV12 and NV21. When `capacity` is too small, planeCount and the entries become 0. Both
    /// stay untouched for a format that cannot be allocated.
    void GetImgBufferSize(const ZYTImageBuffer& image, unsigned int& planeCount, unsigned int* planeSizes,
                          unsigned int capacity, ZYTBufferType type);

    /// Returns a buffer to the pool. False for null and for an address that this manager did not hand out.
    bool FreeBuffer(const void* pBuf)
        ZYT_EXCLUDES(ZYTBufferPool::m_freeBufferListLock, ZYTBufferPool::m_busyBufferListLock);

    /// Frees every plane and always returns true. More than 4 planes end the process after the fourth.
    bool FreeBuffer(const ZYTImageBuffer& image)
        ZYT_EXCLUDES(ZYTBufferPool::m_freeBufferListLock, ZYTBufferPool::m_busyBufferListLock);

    /// Opens a CPU access to a DMA-BUF, of this manager or not. Returns whether the platform did so.
    bool StartCPUSync(int fd, CPUSyncType type);
    /// Closes a CPU access, always in the read direction. Returns whether the platform did so.
    bool EndCPUSync(int fd);

    /// Opens a CPU access to the first plane only. Returns false whatever happened, or true for an image without
    /// planes. Existing nodes depend on both; new code synchronises descriptor by descriptor.
    bool StartCPUSync(const ZYTImageBuffer& image, CPUSyncType type);
    /// Closes a CPU access to the first plane only, with the same results.
    bool EndCPUSync(const ZYTImageBuffer& image);

private:
    // A function whose log lines carry a public function's name. In the class itself it would join that function's
    // overloads, and `using ZYTBufferManager::AllocBuffer;` in a derived class would no longer compile.
    struct Steps;
    ZYT_LOCAL void AllocGrallocBuffer(ZYTImageBuffer& image, unsigned int planeCount);

    std::string m_managerName;
    ZYTBufferPool m_bufferPool;
    std::mutex m_bufferListLock;
    std::set<void*> m_bufferList ZYT_GUARDED_BY(m_bufferListLock);
};

#endif  // ZYT_BUFFER_MANAGER_H
