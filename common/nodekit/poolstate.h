#ifndef ZYT_NODEKIT_POOLSTATE_H
#define ZYT_NODEKIT_POOLSTATE_H

/// @file
/// Reads, prints and trims the process's buffer pool, for example in a service's dump.
///
/// @code
/// zyt::PrintPool(fd);  // buffers in use, free buffers and their memory
/// zyt::TrimPool(1);    // keep one free buffer of each size
/// @endcode
///
/// Reading waits about 20 ms for a lock and then reports it as held, so a dump also works in a deadlocked process.
/// Thread-safe. REQUIRES: the caller holds none of the pool's locks, and exit() has not begun.

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
#include <string>
#include <thread>
#include <vector>

#include "base/zytthreadsafety.h"
#include "zytbuffermanager/zytbufferpool.h"

namespace zyt {

/// A buffer of the pool.
struct PoolBuffer {
    ZYTBufferType type;  ///< Kind of memory.
    void* address;       ///< Identifies the buffer; MAP_FAILED when the kernel refused to map it.
    int fd;              ///< 0 for malloc.
    uint64_t bytes;      ///< Size of the memory; for gralloc the length of the descriptor.
    uint32_t width;      ///< Pixels of a gralloc buffer, 0 for the others.
    uint32_t height;     ///< Rows of a gralloc buffer, 0 for the others.
};

/// State of the pool. A part whose lock could not be taken is empty.
struct PoolState {
    std::optional<uint32_t> clients;              ///< Registered clients; the last one releases the pool.
    std::optional<std::vector<PoolBuffer>> busy;  ///< Buffers in use.
    std::optional<std::vector<PoolBuffer>> free;  ///< Buffers in the free lists.
};

namespace detail {

/// Returns the length of a descriptor in bytes, or a negative value when it has none.
inline int64_t DescriptorLength(int fd) { return lseek(fd, 0, SEEK_END); }

/// A lock that gives up after about 20 ms.
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

/// Unmaps the buffer. The record's destructor releases the graphic buffer itself.
inline void Release(const ZYTGrallocBufferPoolBufferInfo& info) {
    if (info.pBuf != MAP_FAILED) munmap(info.pBuf, size_t{info.graphicBuffer->getStride()} * info.height);
}

/// Releases the buffers for which mayGo(buffer, current queue length) is true. Returns how many it released.
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

/// Returns the state of the pool. The parts are read one after the other, so they need not match each other.
inline PoolState ReadPool() ZYT_NO_THREAD_SAFETY_ANALYSIS {
    using Pool = ZYTBufferPool;
    PoolState state;
    if (const detail::PatientLock lock(Pool::m_bufferPoolClientNumLock); lock) {
        state.clients = Pool::m_bufferPoolClientNum;
    }
    if (const detail::PatientLock lock(Pool::m_busyBufferListLock); lock) {
        detail::AppendAll(Pool::m_busyBufferList, state.busy.emplace());
        detail::AppendAll(Pool::m_busyGrallocBufferList, *state.busy);
    }
    if (const detail::PatientLock lock(Pool::m_freeBufferListLock); lock) {
        state.free.emplace();
        for (const auto& buffersBySize : Pool::m_freeBufferList) detail::AppendAll(buffersBySize, *state.free);
        detail::AppendAll(Pool::m_freeGrallocBufferList, *state.free);
    }
    return state;
}

/// Writes the state of the pool as text to a descriptor, one line per buffer.
inline void PrintPool(int fd) {
    const PoolState state = ReadPool();
    const std::string clients = state.clients ? std::to_string(*state.clients) : "unknown, the lock is held";
    dprintf(fd, "pool clients: %s\n", clients.c_str());
    detail::PrintBuffers(fd, "in use", state.busy);
    detail::PrintBuffers(fd, "free", state.free);
}

/// Releases free buffers, oldest first, until `keep` of each size or geometry are left; 0 empties the free lists.
/// Unmaps graphic buffers, which the pool's own clean-up does not. Returns the number of released buffers.
inline size_t TrimPool(size_t keep) {
    return detail::ReleaseFreeBuffers([keep](const auto&, size_t left) { return left > keep; });
}

/// Releases the free buffers that the kernel refused to map, which the pool would otherwise hand out again. Returns the
/// number of released buffers.
inline size_t PurgeUnmapped() {
    return detail::ReleaseFreeBuffers([](const auto& info, size_t) { return info.pBuf == MAP_FAILED; });
}

}  // namespace zyt

#endif  // ZYT_NODEKIT_POOLSTATE_H
