#include "zytbuffermanager/zytbufferpool.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <utility>
#include <vector>

#include "base/zytchecked.h"
#include "logging/zytlogsite.h"

namespace {

constexpr size_t kFreeBuffersPerSize = 10;

// HAL_PIXEL_FORMAT_IMPLEMENTATION_DEFINED: gralloc picks the layout that suits the usage.
constexpr int kGrallocFormat = 34;
// GRALLOC_USAGE_HW_CAMERA_WRITE | GRALLOC_USAGE_HW_TEXTURE | GRALLOC_USAGE_SW_WRITE_MASK | GRALLOC_USAGE_SW_READ_MASK.
constexpr unsigned int kGrallocUsage = 0x201ff;

}  // namespace

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
        m_bufferPoolClientNum = zyt::CheckedAdd(m_bufferPoolClientNum, 1);
    }
    SetClientName("UnknowBufferManager");
}

ZYTBufferPool::ZYTBufferPool(std::string name) {
    // Clients rely on a named pool starting from a clean process-wide pool when it is the first: this short-lived
    // client is then the last one to leave and takes all free buffers with it.
    { ZYTBufferPool passing; }
    SetClientName(std::move(name));
}

ZYTBufferPool::~ZYTBufferPool() {
    zyt::Lock clientNumLock(m_bufferPoolClientNumLock);
    m_bufferPoolClientNum = zyt::CheckedSub(m_bufferPoolClientNum, 1);
    if (m_bufferPoolClientNum != 0) return;
    const char* tag = m_logTag.c_str();
    ZYT_LOG(D, tag, "All client disconnect, release buffer in pool");

    std::vector<void*> returnable;
    {
        zyt::Lock lock(m_busyBufferListLock);
        const auto plainCount = static_cast<uint32_t>(m_busyBufferList.size());
        const uint32_t busyCount = zyt::CheckedAdd(plainCount, static_cast<uint32_t>(m_busyGrallocBufferList.size()));
        returnable.reserve(plainCount);
        uint32_t index = 0;
        if (busyCount != 0) {
            ZYT_LOG(W, tag, "All client disconnect, but there are %u busy buffer in list:", busyCount);
        }
        for (const auto& [pBuf, info] : m_busyBufferList) {
            returnable.push_back(pBuf);
            ZYT_LOG(W, tag, "   busy buffer[%u]: pBuf: %p, size: %u, fd, %d, type: %d", index, pBuf, info.size, info.fd,
                    info.type);
            ++index;
        }
        // Only reported: the consumer of a gralloc buffer may be another process, which outlives this pool's clients.
        for (const auto& [pBuf, info] : m_busyGrallocBufferList) {
            ZYT_LOG(W, tag, "   busy buffer[%u]: pBuf: %p, width: %u, height: %u, fd, %d, type: %d", index, pBuf,
                    info.width, info.height, info.fd, info.type);
            ++index;
        }
    }
    for (void* pBuf : returnable) PutBufferToPool(pBuf);

    zyt::Lock lock(m_freeBufferListLock);
    for (auto& buffersBySize : m_freeBufferList) {
        for (const auto& [size, buffers] : buffersBySize) {
            for (const ZYTBufferPoolBufferInfo& info : buffers) {
                ReleaseBuffer(info);
                ZYT_LOG(I, tag, "Buffer released: pBuf: %p, size: %u, fd: %d, type: %d", info.pBuf, info.size, info.fd,
                        info.type);
            }
        }
        buffersBySize.clear();
    }
    for (const auto& [key, buffers] : m_freeGrallocBufferList) {
        for (const ZYTGrallocBufferPoolBufferInfo& info : buffers) {
            ReleaseBuffer(info);
            ZYT_LOG(I, tag, "Buffer released: pBuf: %p, width: %u, height: %u, fd: %d, type: %d", info.pBuf, info.width,
                    info.height, info.fd, info.type);
        }
    }
    m_freeGrallocBufferList.clear();
}

void ZYTBufferPool::SetClientName(std::string name) {
    m_clientName = std::move(name);
    m_logTag = "BufferPool-" + m_clientName;
}

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
    // The key is made even for a failed attempt; a returned buffer is kept only where its key stands.
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
    auto& buffers = m_freeBufferList[type][size];
    if (buffers.empty()) AllocBuffer(0, 0, size, type);
    if (buffers.empty()) {
        ZYT_LOG(E, m_logTag.c_str(), "Get buffer type: %d, size: %u failed!", type, size);
        fd = 0;
        return nullptr;
    }
    const ZYTBufferPoolBufferInfo info = buffers.back();
    buffers.pop_back();
    const auto left = static_cast<uint32_t>(buffers.size());
    freeLock.Unlock();
    {
        zyt::Lock lock(m_busyBufferListLock);
        m_busyBufferList.emplace(info.pBuf, info);
    }
    ZYT_LOG(I, m_logTag.c_str(), "Get buffer type: %d, size: %u, pBuf: %p. Free buf num this size: %u", info.type,
            info.size, info.pBuf, left);
    fd = info.fd;
    return info.pBuf;
}

void* ZYTBufferPool::GetBufferFromPool(unsigned int width, unsigned int height, int& fd, void** ppNativeHandle,
                                       ZYTBufferType type) {
    const uint32_t size = zyt::CheckedMul(width, height);
    if (width == 0 || static_cast<uint32_t>(type) > ZYT_BUFFER_TYPE_GRALLOC) {
        ZYT_LOG(D, m_logTag.c_str(), "Invalid args, get buffer failed!");
        fd = 0;
        return nullptr;
    }
    if (type != ZYT_BUFFER_TYPE_GRALLOC) return GetBufferFromPool(size, fd, type);

    zyt::Lock freeLock(m_freeBufferListLock);
    auto& buffers = m_freeGrallocBufferList[{width, height}];
    if (buffers.empty()) AllocBuffer(width, height, size, type);
    if (buffers.empty()) {
        ZYT_LOG(E, m_logTag.c_str(), "Get buffer type: %d, width: %u, height: %u, size: %u failed!", type, width,
                height, size);
        fd = 0;
        return nullptr;
    }
    const ZYTGrallocBufferPoolBufferInfo info = buffers.back();
    buffers.pop_back();
    const auto left = static_cast<uint32_t>(buffers.size());
    freeLock.Unlock();
    {
        zyt::Lock lock(m_busyBufferListLock);
        m_busyGrallocBufferList.emplace(info.pBuf, info);
    }
    ZYT_LOG(I, m_logTag.c_str(), "Get buffer type: %d, width: %u, height: %u, pBuf: %p. Free buf num this size: %u",
            info.type, info.width, info.height, info.pBuf, left);
    if (ppNativeHandle != nullptr) {
        *ppNativeHandle = const_cast<native_handle_t*>(info.graphicBuffer->getNativeBuffer()->handle);
    }
    fd = info.fd;
    return info.pBuf;
}

void ZYTBufferPool::PutBufferToPool(void* pBuf) {
    const char* tag = m_logTag.c_str();
    if (pBuf == nullptr) {
        ZYT_LOG(W, tag, "Put NULL buffer to pool!");
        return;
    }
    ZYT_LOG(V, tag, "Put buffer to pool: %p", pBuf);

    ZYTBufferPoolBufferInfo plain{};
    ZYTGrallocBufferPoolBufferInfo gralloc{};
    bool isGralloc = false;
    {
        zyt::Lock lock(m_busyBufferListLock);
        if (const auto busy = m_busyBufferList.find(pBuf); busy != m_busyBufferList.end()) {
            plain = busy->second;
            m_busyBufferList.erase(busy);
        } else if (const auto busyGralloc = m_busyGrallocBufferList.find(pBuf);
                   busyGralloc != m_busyGrallocBufferList.end()) {
            gralloc = busyGralloc->second;
            isGralloc = true;
            m_busyGrallocBufferList.erase(busyGralloc);
        } else {
            ZYT_LOG(W, tag, "Wrong buffer pointer: %p", pBuf);
            return;
        }
    }

    // A key is missing only when the pool was released while the buffer was out: there is no pool to go back to.
    zyt::Lock lock(m_freeBufferListLock);
    if (isGralloc) {
        const auto buffers = m_freeGrallocBufferList.find({gralloc.width, gralloc.height});
        if (buffers == m_freeGrallocBufferList.end()) {
            ZYT_LOG(E, tag,
                    "Wrong gralloc buffer when put buffer to pool, pBuf: %p, width: %u, height: %u, fd: %d, type: %d, "
                    "release it!",
                    gralloc.pBuf, gralloc.width, gralloc.height, gralloc.fd, gralloc.type);
            ReleaseBuffer(gralloc);
        } else if (buffers->second.size() >= kFreeBuffersPerSize) {
            ZYT_LOG(I, tag,
                    "Gralloc buffer num this size is more than threshold, release buffer, pBuf: %p, width: %u, "
                    "height: %u, fd: %d, type: %d, ",
                    gralloc.pBuf, gralloc.width, gralloc.height, gralloc.fd, gralloc.type);
            ReleaseBuffer(gralloc);
        } else {
            buffers->second.push_back(gralloc);
            ZYT_LOG(I, tag, "Put gralloc buffer to pool success: pBuf: %p, width: %u, height: %u, fd: %d, type: %d",
                    gralloc.pBuf, gralloc.width, gralloc.height, gralloc.fd, gralloc.type);
        }
        return;
    }
    const auto buffers = m_freeBufferList[plain.type].find(plain.size);
    if (buffers == m_freeBufferList[plain.type].end()) {
        ZYT_LOG(E, tag, "Wrong buffer size when put buffer to pool, pBuf: %p, size: %u, fd: %d, type: %d, release it!",
                plain.pBuf, plain.size, plain.fd, plain.type);
        ReleaseBuffer(plain);
    } else if (buffers->second.size() >= kFreeBuffersPerSize) {
        ZYT_LOG(I, tag,
                "Buffer num this size is more than threshold, release buffer, pBuf: %p, size: %u, fd: %d, type: %d, ",
                plain.pBuf, plain.size, plain.fd, plain.type);
        ReleaseBuffer(plain);
    } else {
        buffers->second.push_back(plain);
        ZYT_LOG(I, tag, "Put buffer to pool success: pBuf: %p, size: %u, fd: %d, type: %d", plain.pBuf, plain.size,
                plain.fd, plain.type);
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
            m_allocator.DeallocDMABuffer(info.size, static_cast<char*>(info.pBuf), info.fd);
            break;
        default:
            ZYT_LOG(E, m_logTag.c_str(), "Unsupport release buffer type: %d!", info.type);
            break;
    }
}

void ZYTBufferPool::ReleaseBuffer(ZYTGrallocBufferPoolBufferInfo info) {
    ZYT_LOG(I, m_logTag.c_str(), "Release buffer: %p", info.pBuf);
}
