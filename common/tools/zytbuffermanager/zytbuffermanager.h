#ifndef ZYT_BUFFER_MANAGER_H
#define ZYT_BUFFER_MANAGER_H

/// @file
/// What a node includes for its memory: the manager and, with it, the pool, the allocator and the image record.

#include <mutex>
#include <set>
#include <string>

#include "base/zytexport.h"
#include "base/zytthreadsafety.h"
#include "zytbuffermanager/zytbufferallocator.h"
#include "zytbuffermanager/zytbufferpool.h"
#include "zytbuffermanager/zytimagebuffer.h"

/// What an algorithm node holds to get memory: buffers by size and images by format and geometry, from the pool that
/// all nodes of the process share.
///
/// The pool owns every buffer; the manager borrows it, remembers what it handed out and gives back, with a warning,
/// whatever is left when it is destroyed. It frees only what it handed out itself. Gralloc images are the exception:
/// they are never recorded, because consumers outside the node may still hold them. Freeing one is refused, and it
/// stays out, even beyond the pool's own clean-up, until somebody hands it to ZYTBufferPool::PutBufferToPool.
///
/// Any thread may call any operation; one manager may be shared. A failure is a false result and a line in both logs,
/// tagged with the manager's name. Lock order: the manager's, then the pool's.
class ZYT_EXPORT ZYTBufferManager {
public:
    /// A manager named "UnknowBufferManager".
    ZYTBufferManager();
    /// A manager with a name of its own, which also tags its pool client's lines.
    explicit ZYTBufferManager(const std::string& name);
    /// Returns every recorded buffer to the pool.
    virtual ~ZYTBufferManager();
    ZYTBufferManager(const ZYTBufferManager&) = delete;
    ZYTBufferManager& operator=(const ZYTBufferManager&) = delete;

    /// Renames the manager for later log lines. Not safe while another thread uses the manager.
    void SetManagerName(const std::string& name);

    /// Takes a malloc or DMA-BUF buffer of size bytes; gralloc is refused. fd becomes its descriptor, 0 for malloc.
    /// On failure *ppBuf is null and fd 0; for size 0 or a null ppBuf they are left alone. An address of MAP_FAILED is
    /// no failure but a DMA-BUF that the kernel refused to map: check for it.
    bool AllocBuffer(unsigned int size, void** ppBuf, int& fd, ZYTBufferType type);

    /// Takes memory for an image whose format, width, height, planeStride and sliceHeight are set, and fills in its
    /// other fields: one buffer for each plane, or a single one for gralloc. P010 and Y16 cannot be allocated.
    ///
    /// A record is left alone on failure, except for a type beyond gralloc, which clears its planes but sets their
    /// number. When a later plane cannot be had, the earlier ones stay recorded until the manager goes. Two things are
    /// no failure and have to be checked for: a gralloc image whose buffer cannot be had, with a null pAddr[0], and a
    /// plane that the kernel refused to map, at the address MAP_FAILED. Strides and slice heights are taken as they
    /// are, also where they leave less memory than the image needs. A size beyond 32 bits ends the process.
    bool AllocBuffer(ZYTImageBuffer& image, ZYTBufferType type);

    /// The planes that AllocBuffer would take and the bytes of each. planeSizes has room for capacity entries, and for
    /// two at least with NV12 and NV21. planeCount and the entries become 0 when capacity is too small; both are left
    /// alone for a format that cannot be allocated.
    void GetImgBufferSize(const ZYTImageBuffer& image, unsigned int& planeCount, unsigned int* planeSizes,
                          unsigned int capacity, ZYTBufferType type);

    /// Gives a buffer back to the pool; false for null and for addresses that this manager did not hand out.
    bool FreeBuffer(const void* pBuf);

    /// Frees every plane and always returns true. More than 4 planes end the process after the fourth.
    bool FreeBuffer(const ZYTImageBuffer& image);

    /// Opens a CPU access to a DMA-BUF, which need not be one of this manager's; true when the platform did so.
    bool StartCPUSync(int fd, CPUSyncType type);
    /// Closes a CPU access, always in the read direction; true when the platform did so.
    bool EndCPUSync(int fd);

    /// Opens a CPU access to the first plane alone. The result is false, whatever happened, or true for an image
    /// without planes. Existing nodes are written against both oddities: synchronise descriptor by descriptor instead.
    bool StartCPUSync(const ZYTImageBuffer& image, CPUSyncType type);
    /// Closes a CPU access to the first plane alone, with the same results.
    bool EndCPUSync(const ZYTImageBuffer& image);

private:
    std::string m_managerName;
    ZYTBufferPool m_bufferPool;
    std::mutex m_bufferListLock;
    std::set<void*> m_bufferList ZYT_GUARDED_BY(m_bufferListLock);
};

#endif  // ZYT_BUFFER_MANAGER_H
