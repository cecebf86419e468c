#include "zytbuffermanager/zytbufferpool.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>
#include <utility>
#include <vector>

#include "base/zytchecked.h"
#include "logging/zytlogsite.h"

namespace {

constexpr size_t kFreeBuffersPerSize = 10;

// HAL_PIXEL_FORMAT_IMPLEMENTATION_DEFINED: gralloc chooses the layout that suits the usage.
constexpr int kGrallocFormat = 34;
// GRALLOC_USAGE_HW_CAMERA_WRITE | GRALLOC_USAGE_HW_TEXTURE | GRALLOC_USAGE_SW_WRITE_MASK | GRALLOC_USAGE_SW_READ_MASK.
constexpr unsigned int kGrallocUsage = 0x201ff;

// Takes the buffer that was returned last, or none from an empty queue.
template <typename Info>
std::optional<Info> TakeLast(std::deque<Info>& buffers) {
    if (buffers.empty()) return std::nullopt;
    std::optional<Info> last(std::move(buffers.back()));
    buffers.pop_back();
    return last;
}

}  // namespace

struct ZYT_LOCAL ZYTBufferPool::Steps {
    static void PutBufferToPool(ZYTBufferPool& pool, const ZYTBufferPoolBufferInfo& info)
        ZYT_EXCLUDES(m_freeBufferListLock);
    static void PutBufferToPool(ZYTBufferPool& pool, const ZYTGrallocBufferPoolBufferInfo& info)
        ZYT_EXCLUDES(m_freeBufferListLock);
};

std::mutex ZYTBufferPool::m_bufferPoolClientNumLock;
uint32_t ZYTBufferPool::m_bufferPoolClientNum = 0;
std::mutex ZYTBufferPool::m_freeBufferListLock;
std::map<uint32_t, std::deque<ZYTBufferPoolBufferInfo>> ZYTBufferPool::m_freeBufferList[3];
std::map<ZYTGrallocBufferKey, std::deque<ZYTGrallocBufferPoolBufferInfo>> ZYTBufferPool::m_freeGrallocBufferList;
std::mutex ZYTBufferPool::m_busyBufferListLock;
std::map<void*, ZYTBufferPoolBufferInfo> ZYTBufferPool::m_busyBufferList;
std::map<void*, ZYTGrallocBufferPoolBufferInfo> ZYTBufferPool::m_busyGrallocBufferList;

ZYTBufferPool::ZYTBufferPool() {
    {
        zyt::Lock lock(m_bufferPoolClientNumLock);
        m_bufferPoolClientNum = zyt::CheckedAdd(m_bufferPoolClientNum, 1, "clients of the buffer pool");
    }
    SetClientName("UnknowBufferManager");
}

ZYTBufferPool::ZYTBufferPool(std::string name) {
    // Clients rely on a named pool that is the first to find the process-wide pool empty. This temporary client is then
    // the last one to leave and releases all free buffers.
    { ZYTBufferPool passing; }
    SetClientName(std::move(name));
}

ZYTBufferPool::~ZYTBufferPool() {
    zyt::Lock clientNumLock(m_bufferPoolClientNumLock);
    m_bufferPoolClientNum = zyt::CheckedSub(m_bufferPoolClientNum, 1, "clients of the buffer pool");
    if (m_bufferPoolClientNum != 0) return;
    ZYT_LOG(D, m_logTag.c_str(), "All client disconnect, release buffer in pool");

    std::vector<void*> returnable;
    {
        zyt::Lock lock(m_busyBufferListLock);
        const auto plainCount = static_cast<uint32_t>(m_busyBufferList.size());
        const auto grallocCount = static_cast<uint32_t>(m_busyGrallocBufferList.size());
        const uint32_t busyCount = zyt::CheckedAdd(plainCount, grallocCount, "busy buffers");
        returnable.reserve(plainCount);
        uint32_t index = 0;
        if (busyCount != 0) {
            ZYT_LOG(W, m_logTag.c_str(), "All client disconnect, but there are %u busy buffer in list:", busyCount);
        }
        for (const auto& [pBuf, info] : m_busyBufferList) {
            returnable.push_back(pBuf);
            ZYT_LOG(W, m_logTag.c_str(), "   busy buffer[%u]: pBuf: %p, size: %u, fd, %d, type: %d", index, pBuf,
                    info.size, info.fd, info.type);
            ++index;
        }
        // Only reported: the consumer of a gralloc buffer may be another process, which outlives this pool's clients.
        for (const auto& [pBuf, info] : m_busyGrallocBufferList) {
            ZYT_LOG(W, m_logTag.c_str(), "   busy buffer[%u]: pBuf: %p, width: %u, height: %u, fd, %d, type: %d", index,
                    pBuf, info.width, info.height, info.fd, info.type);
            ++index;
        }
    }
    for (void* pBuf : returnable) PutBufferToPool(pBuf);

    zyt::Lock lock(m_freeBufferListLock);
    for (auto& buffersBySize : m_freeBufferList) {
        for (const auto& [size, buffers] : buffersBySize) {
            for (const ZYTBufferPoolBufferInfo& info : buffers) {
                ReleaseBuffer(info);
                ZYT_LOG(I, m_logTag.c_str(), "Buffer released: pBuf: %p, size: %u, fd: %d, type: %d", info.pBuf,
                        info.size, info.fd, info.type);
            }
        }
        buffersBySize.clear();
    }
    for (const auto& [key, buffers] : m_freeGrallocBufferList) {
        for (const ZYTGrallocBufferPoolBufferInfo& info : buffers) {
            ReleaseBuffer(info);
            ZYT_LOG(I, m_logTag.c_str(), "Buffer released: pBuf: %p, width: %u, height: %u, fd: %d, type: %d",
                    info.pBuf, info.width, info.height, info.fd, info.type);
        }
    }
    m_freeGrallocBufferList.clear();
}

void ZYTBufferPool::SetClientName(std::string name) {
    m_clientName = std::move(name);
    m_logTag = "BufferPool-" + m_clientName;
}

ZYTBufferAllocator* ZYTBufferPool::GetAllocator() { return &m_allocator; }

void* ZYTBufferPool::AllocGrallocBuffer(unsigned int width, unsigned int height) {
    char* pBuf = nullptr;
    int fd = 0;
    android::sp<android::GraphicBuffer> graphicBuffer =
        m_allocator.AllocGraphicBuffer(width, height, kGrallocFormat, kGrallocUsage, &pBuf, fd);
    auto& buffers = m_freeGrallocBufferList[{width, height}];
    if (pBuf == nullptr) return nullptr;
    buffers.push_back({ZYT_BUFFER_TYPE_GRALLOC, pBuf, graphicBuffer, fd, width, height});
    return pBuf;
}

void* ZYTBufferPool::AllocBuffer(unsigned int width, unsigned int height, unsigned int size, ZYTBufferType type) {
    char* pBuf = nullptr;
    int fd = 0;
    switch (type) {
        case ZYT_BUFFER_TYPE_GRALLOC:
            return AllocGrallocBuffer(width, height);
        case ZYT_BUFFER_TYPE_DMABUF:
            if (m_allocator.AllocDMABuffer(size, &pBuf, fd) != 0) pBuf = nullptr;
            break;
        case ZYT_BUFFER_TYPE_MALLOC:
            pBuf = static_cast<char*>(std::malloc(size));
            break;
        default:
            ZYT_LOG(E, m_logTag.c_str(), "Unsupport alloc buffer type: %d!", type);
            return nullptr;
    }
    if (pBuf != nullptr) {
        ZYT_LOG(I, m_logTag.c_str(), "Alloc buffer success: type: %d, size: %u, pBuf: %p", type, size,
                static_cast<void*>(pBuf));
    } else {
        ZYT_LOG(E, m_logTag.c_str(), "Alloc buffer failed! Type: %d, size: %u", type, size);
    }
    // The key is created for a failed attempt too: a buffer that is returned is kept only where its key exists.
    auto& buffers = m_freeBufferList[type][size];
    if (pBuf == nullptr) return nullptr;
    buffers.push_back({type, pBuf, fd, size});
    return pBuf;
}

void* ZYTBufferPool::GetBufferFromPool(unsigned int size, int& fd, ZYTBufferType type) {
    if (size == 0 || static_cast<uint32_t>(type) >= ZYT_BUFFER_TYPE_GRALLOC) {
        ZYT_LOG(D, m_logTag.c_str(), "Invalid args, get buffer failed!");
        fd = 0;
        return nullptr;
    }
    zyt::Lock freeLock(m_freeBufferListLock);
    auto& buffersBySize = m_freeBufferList[type];
    auto buffers = buffersBySize.find(size);
    if (buffers == buffersBySize.end() || buffers->second.empty()) {
        AllocBuffer(0, 0, size, type);
        buffers = buffersBySize.try_emplace(size).first;
    }
    const std::optional<ZYTBufferPoolBufferInfo> info = TakeLast(buffers->second);
    if (!info) {
        ZYT_LOG(E, m_logTag.c_str(), "Get buffer type: %d, size: %u failed!", type, size);
        fd = 0;
        return nullptr;
    }
    const auto left = static_cast<uint32_t>(buffers->second.size());
    freeLock.Unlock();
    {
        zyt::Lock lock(m_busyBufferListLock);
        m_busyBufferList.emplace(info->pBuf, *info);
    }
    ZYT_LOG(I, m_logTag.c_str(), "Get buffer type: %d, size: %u, pBuf: %p. Free buf num this size: %u", info->type,
            info->size, info->pBuf, left);
    fd = info->fd;
    return info->pBuf;
}

void* ZYTBufferPool::GetBufferFromPool(unsigned int width, unsigned int height, int& fd, void** ppNativeHandle,
                                       ZYTBufferType type) {
    const uint32_t size = zyt::CheckedMul(width, height, "width * height");
    if (width == 0 || static_cast<uint32_t>(type) > ZYT_BUFFER_TYPE_GRALLOC) {
        ZYT_LOG(D, m_logTag.c_str(), "Invalid args, get buffer failed!");
        fd = 0;
        return nullptr;
    }
    if (type != ZYT_BUFFER_TYPE_GRALLOC) return GetBufferFromPool(size, fd, type);

    const ZYTGrallocBufferKey key = {width, height};
    zyt::Lock freeLock(m_freeBufferListLock);
    auto buffers = m_freeGrallocBufferList.find(key);
    if (buffers == m_freeGrallocBufferList.end() || buffers->second.empty()) {
        AllocBuffer(width, height, size, type);
        buffers = m_freeGrallocBufferList.try_emplace(key).first;
    }
    const std::optional<ZYTGrallocBufferPoolBufferInfo> info = TakeLast(buffers->second);
    if (!info) {
        ZYT_LOG(E, m_logTag.c_str(), "Get buffer type: %d, width: %u, height: %u, size: %u failed!", type, width,
                height, size);
        fd = 0;
        return nullptr;
    }
    const auto left = static_cast<uint32_t>(buffers->second.size());
    freeLock.Unlock();
    {
        zyt::Lock lock(m_busyBufferListLock);
        m_busyGrallocBufferList.emplace(info->pBuf, *info);
    }
    ZYT_LOG(I, m_logTag.c_str(), "Get buffer type: %d, width: %u, height: %u, pBuf: %p. Free buf num this size: %u",
            info->type, info->width, info->height, info->pBuf, left);
    if (ppNativeHandle != nullptr) {
        *ppNativeHandle = const_cast<native_handle_t*>(info->graphicBuffer->getNativeBuffer()->handle);
    }
    fd = info->fd;
    return info->pBuf;
}

void ZYTBufferPool::PutBufferToPool(void* pBuf) {
    if (pBuf == nullptr) {
        ZYT_LOG(W, m_logTag.c_str(), "Put NULL buffer to pool!");
        return;
    }
    ZYT_LOG(V, m_logTag.c_str(), "Put buffer to pool: %p", pBuf);

    std::optional<ZYTBufferPoolBufferInfo> plain;
    std::optional<ZYTGrallocBufferPoolBufferInfo> gralloc;
    {
        zyt::Lock lock(m_busyBufferListLock);
        if (const auto node = m_busyBufferList.extract(pBuf)) {
            plain = node.mapped();
        } else if (const auto grallocNode = m_busyGrallocBufferList.extract(pBuf)) {
            gralloc = grallocNode.mapped();
        } else {
            ZYT_LOG(W, m_logTag.c_str(), "Wrong buffer pointer: %p", pBuf);
            return;
        }
    }
    if (plain) Steps::PutBufferToPool(*this, *plain);
    if (gralloc) Steps::PutBufferToPool(*this, *gralloc);
}

// In both functions a key is missing only when the pool was released while the buffer was out.

void ZYTBufferPool::Steps::PutBufferToPool(ZYTBufferPool& pool, const ZYTBufferPoolBufferInfo& info) {
    zyt::Lock lock(m_freeBufferListLock);
    const auto buffers = m_freeBufferList[info.type].find(info.size);
    if (buffers == m_freeBufferList[info.type].end()) {
        ZYT_LOG(E, pool.m_logTag.c_str(),
                "Wrong buffer size when put buffer to pool, pBuf: %p, size: %u, fd: %d, type: %d, release it!",
                info.pBuf, info.size, info.fd, info.type);
        pool.ReleaseBuffer(info);
    } else if (buffers->second.size() >= kFreeBuffersPerSize) {
        ZYT_LOG(I, pool.m_logTag.c_str(),
                "Buffer num this size is more than threshold, release buffer, pBuf: %p, size: %u, fd: %d, type: %d, ",
                info.pBuf, info.size, info.fd, info.type);
        pool.ReleaseBuffer(info);
    } else {
        buffers->second.push_back(info);
        ZYT_LOG(I, pool.m_logTag.c_str(), "Put buffer to pool success: pBuf: %p, size: %u, fd: %d, type: %d", info.pBuf,
                info.size, info.fd, info.type);
    }
}

void ZYTBufferPool::Steps::PutBufferToPool(ZYTBufferPool& pool, const ZYTGrallocBufferPoolBufferInfo& info) {
    zyt::Lock lock(m_freeBufferListLock);
    const auto buffers = m_freeGrallocBufferList.find({info.width, info.height});
    if (buffers == m_freeGrallocBufferList.end()) {
        ZYT_LOG(E, pool.m_logTag.c_str(),
                "Wrong gralloc buffer when put buffer to pool, pBuf: %p, width: %u, height: %u, fd: %d, type: %d, "
                "release it!",
                info.pBuf, info.width, info.height, info.fd, info.type);
        pool.ReleaseBuffer(info);
    } else if (buffers->second.size() >= kFreeBuffersPerSize) {
        ZYT_LOG(I, pool.m_logTag.c_str(),
                "Gralloc buffer num this size is more than threshold, release buffer, pBuf: %p, width: %u, height: %u, "
                "fd: %d, type: %d, ",
                info.pBuf, info.width, info.height, info.fd, info.type);
        pool.ReleaseBuffer(info);
    } else {
        buffers->second.push_back(info);
        ZYT_LOG(I, pool.m_logTag.c_str(),
                "Put gralloc buffer to pool success: pBuf: %p, width: %u, height: %u, fd: %d, type: %d", info.pBuf,
                info.width, info.height, info.fd, info.type);
    }
}

void ZYTBufferPool::ReleaseBuffer(ZYTBufferPoolBufferInfo info) {
    switch (info.type) {
        case ZYT_BUFFER_TYPE_MALLOC:
            ZYT_LOG(I, m_logTag.c_str(), "Release buffer: %p", info.pBuf);
            std::free(info.pBuf);
            break;
        case ZYT_BUFFER_TYPE_DMABUF:
            ZYT_LOG(I, m_logTag.c_str(), "Release buffer: %p", info.pBuf);
            if (info.pBuf != nullptr) munmap(info.pBuf, info.size);
            if (info.fd >= 0) close(info.fd);
            break;
        default:
            ZYT_LOG(E, m_logTag.c_str(), "Unsupport release buffer type: %d!", info.type);
            break;
    }
}

void ZYTBufferPool::ReleaseBuffer(ZYTGrallocBufferPoolBufferInfo info) {
    ZYT_LOG(I, m_logTag.c_str(), "Release buffer: %p", info.pBuf);
}
