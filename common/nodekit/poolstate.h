#ifndef ZYT_NODEKIT_POOLSTATE_H
#define ZYT_NODEKIT_POOLSTATE_H

/// @file
/// What the process's buffer pool holds, for a service's dump and for two in the morning.
///
/// @code
/// status_t MyService::dump(int fd, const Vector<String16>&) {
///     zyt::PrintPool(fd);                      // who is out, what is free, how much memory that is
///     return OK;
/// }
///
/// void MyService::onTrimMemory() {
///     zyt::TrimPool(1);                        // keep one free buffer of each size
/// }
/// @endcode
///
/// Reading never waits for a lock that somebody keeps: after some 20 ms it says that it is held, which is the answer to
/// why nothing moves. All functions are safe on any thread that holds none of the pool's locks.

#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "base/zytthreadsafety.h"
#include "logging/zytofflinelog.h"
#include "zytbuffermanager/zytbufferpool.h"

namespace zyt {

/// A buffer of the pool.
struct PoolBuffer {
    ZYTBufferType type;  ///< What backs it.
    void* address;       ///< Its identity; MAP_FAILED when the kernel refused to map it.
    int fd;              ///< 0 for plain memory.
    uint64_t bytes;      ///< Memory behind it; of gralloc what its descriptor is long.
    uint32_t width;      ///< Pixels of a gralloc buffer, 0 for the others.
    uint32_t height;     ///< Rows of a gralloc buffer, 0 for the others.
};

/// What the pool held. A part whose lock could not be had is empty.
struct PoolState {
    std::optional<uint32_t> clients;              ///< Registered clients; the last one to go releases the pool.
    std::optional<std::vector<PoolBuffer>> out;   ///< Buffers that somebody holds.
    std::optional<std::vector<PoolBuffer>> free;  ///< Buffers that wait to be taken again.
    std::optional<size_t> offlineLines;           ///< Lines that the offline log has not written yet.
};

namespace detail {

/// What a descriptor is long in bytes, or negative where it has no length.
inline int64_t DescriptorLength(int fd) { return lseek(fd, 0, SEEK_END); }

/// Holds a lock that could be had within some 20 ms.
struct PatientLock : std::unique_lock<std::mutex> {
    explicit PatientLock(std::mutex& mutex) : std::unique_lock<std::mutex>(mutex, std::try_to_lock) {
        for (int attempt = 0; attempt < 20 && !owns_lock() && !try_lock(); ++attempt) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
};

inline void Append(const ZYTBufferPoolBufferInfo& info, std::vector<PoolBuffer>& buffers) {
    buffers.push_back({info.type, info.pBuf, info.fd, info.size, 0, 0});
}

inline void Append(const ZYTGrallocBufferPoolBufferInfo& info, std::vector<PoolBuffer>& buffers) {
    const int64_t length = DescriptorLength(info.fd);
    buffers.push_back(
        {info.type, info.pBuf, info.fd, length > 0 ? static_cast<uint64_t>(length) : 0, info.width, info.height});
}

template <typename Info>
void Append(const std::deque<Info>& infos, std::vector<PoolBuffer>& buffers) {
    for (const Info& info : infos) Append(info, buffers);
}

template <typename Map>
void AppendAll(const Map& map, std::vector<PoolBuffer>& buffers) {
    for (const auto& entry : map) Append(entry.second, buffers);
}

inline void Release(const ZYTBufferPoolBufferInfo& info) {
    if (info.pBuf != MAP_FAILED && info.type == ZYT_BUFFER_TYPE_MALLOC) std::free(info.pBuf);
    if (info.pBuf != MAP_FAILED && info.type == ZYT_BUFFER_TYPE_DMABUF) munmap(info.pBuf, info.size);
    if (info.type == ZYT_BUFFER_TYPE_DMABUF) close(info.fd);
}

/// The graphic buffer itself goes with the record.
inline void Release(const ZYTGrallocBufferPoolBufferInfo& info) {
    if (info.pBuf != MAP_FAILED) munmap(info.pBuf, size_t{info.graphicBuffer->getStride()} * info.height);
}

/// Releases the buffers that `mayGo(buffer, how many are left with it)` says of a queue; returns how many.
template <typename Info, typename MayGo>
size_t ReleaseFrom(std::deque<Info>& buffers, const MayGo& mayGo) {
    size_t released = 0;
    for (auto buffer = buffers.begin(); buffer != buffers.end();) {
        if (!mayGo(*buffer, buffers.size())) {
            ++buffer;
            continue;
        }
        Release(*buffer);
        buffer = buffers.erase(buffer);
        ++released;
    }
    return released;
}

template <typename MayGo>
size_t ReleaseFreeBuffers(const MayGo& mayGo) {
    size_t released = 0;
    Lock lock(ZYTBufferPool::m_freeBufferListLock);
    for (auto& buffersBySize : ZYTBufferPool::m_freeBufferList) {
        for (auto& entry : buffersBySize) released += ReleaseFrom(entry.second, mayGo);
    }
    for (auto& entry : ZYTBufferPool::m_freeGrallocBufferList) released += ReleaseFrom(entry.second, mayGo);
    return released;
}

inline void PrintBuffers(int fd, const char* title, const std::optional<std::vector<PoolBuffer>>& buffers) {
    if (!buffers) {
        dprintf(fd, "%s: unknown, the lock is held\n", title);
        return;
    }
    uint64_t bytes = 0;
    for (const PoolBuffer& buffer : *buffers) bytes += buffer.bytes;
    dprintf(fd, "%s: %zu buffers, %llu bytes\n", title, buffers->size(), static_cast<unsigned long long>(bytes));
    static constexpr const char* kTypes[] = {"malloc", "DMA-BUF", "gralloc"};
    for (const PoolBuffer& buffer : *buffers) {
        dprintf(fd, "  %-7s %10llu bytes  fd %-4d %p", kTypes[buffer.type],
                static_cast<unsigned long long>(buffer.bytes), buffer.fd, buffer.address);
        if (buffer.type == ZYT_BUFFER_TYPE_GRALLOC) dprintf(fd, "  %ux%u", buffer.width, buffer.height);
        dprintf(fd, "%s", buffer.address == MAP_FAILED ? "  not mapped\n" : "\n");
    }
}

}  // namespace detail

/// What the pool holds now: each part at a moment of its own, while others go on.
inline PoolState ReadPool() ZYT_NO_THREAD_SAFETY_ANALYSIS {
    using Pool = ZYTBufferPool;
    PoolState state;
    if (const detail::PatientLock lock(Pool::m_bufferPoolClientNumLock); lock) {
        state.clients = Pool::m_bufferPoolClientNum;
    }
    if (const detail::PatientLock lock(Pool::m_busyBufferListLock); lock) {
        detail::AppendAll(Pool::m_busyBufferList, state.out.emplace());
        detail::AppendAll(Pool::m_busyGrallocBufferList, *state.out);
    }
    if (const detail::PatientLock lock(Pool::m_freeBufferListLock); lock) {
        state.free.emplace();
        for (const auto& buffersBySize : Pool::m_freeBufferList) detail::AppendAll(buffersBySize, *state.free);
        detail::AppendAll(Pool::m_freeGrallocBufferList, *state.free);
    }
    ZYTThreadPool& writers = ZYTOfflineLog::GetInstance().m_threadPool;
    if (const detail::PatientLock lock(writers.m_taskListLock); lock) state.offlineLines = writers.m_taskList.size();
    return state;
}

/// Writes that as text to a descriptor, one line a buffer.
inline void PrintPool(int fd) {
    const PoolState state = ReadPool();
    if (state.clients) {
        dprintf(fd, "pool clients: %u\n", *state.clients);
    } else {
        dprintf(fd, "pool clients: unknown, the lock is held\n");
    }
    detail::PrintBuffers(fd, "out", state.out);
    detail::PrintBuffers(fd, "free", state.free);
    if (state.offlineLines) {
        dprintf(fd, "offline log: %zu lines queued\n", *state.offlineLines);
    } else {
        dprintf(fd, "offline log: unknown, the lock is held\n");
    }
}

/// Releases free buffers, the oldest first, until `keep` of each size or geometry are left; 0 empties the free lists.
/// Graphic buffers are unmapped, which the pool's own clean-up leaves out. Returns how many went.
inline size_t TrimPool(size_t keep) {
    return detail::ReleaseFreeBuffers([keep](const auto&, size_t left) { return left > keep; });
}

/// Releases the free buffers that the kernel refused to map: the pool would hand them out again, unmapped as they are.
/// Returns how many went.
inline size_t PurgeUnmapped() {
    return detail::ReleaseFreeBuffers([](const auto& info, size_t) { return info.pBuf == MAP_FAILED; });
}

}  // namespace zyt

#endif  // ZYT_NODEKIT_POOLSTATE_H
