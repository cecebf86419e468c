#include "zytbuffermanager/zytbuffermanager.h"

#include <algorithm>
#include <iterator>

#include "base/zytfatal.h"
#include "logging/zytlogsite.h"
#include "zytbuffermanager/zytimagelayout.h"

namespace {

constexpr unsigned int kMaxPlanes = 4;

void ClearPlanes(ZYTImageBuffer& image) {
    std::fill(std::begin(image.pAddr), std::end(image.pAddr), nullptr);
    std::fill(std::begin(image.fd), std::end(image.fd), 0);
    image.pNativeHandle = nullptr;
}

}  // namespace

struct ZYT_LOCAL ZYTBufferManager::Steps {
    static bool AllocBuffer(ZYTBufferManager& manager, ZYTImageBuffer& image, unsigned int planeCount,
                            const unsigned int* planeSizes, ZYTBufferType type);
};

ZYTBufferManager::ZYTBufferManager() : m_managerName("UnknowBufferManager") {}

ZYTBufferManager::ZYTBufferManager(const std::string& name) {
    // Monitoring relies on the pool's client count rising and falling once more for each named manager.
    { ZYTBufferManager passing; }
    SetManagerName(name);
}

ZYTBufferManager::~ZYTBufferManager() {
    zyt::Lock lock(m_bufferListLock);
    if (m_bufferList.empty()) return;
    ZYT_LOG(W, m_managerName.c_str(), "%d buffer not free when buffer manager destroy, release them forcibly",
            static_cast<int>(m_bufferList.size()));
    for (void* pBuf : m_bufferList) {
        m_bufferPool.PutBufferToPool(pBuf);
        ZYT_LOG(W, m_managerName.c_str(), "  release buffer forcibly: %p", pBuf);
    }
    m_bufferList.clear();
}

void ZYTBufferManager::SetManagerName(const std::string& name) {
    m_managerName = name;
    m_bufferPool.SetClientName(m_managerName);
}

bool ZYTBufferManager::AllocBuffer(unsigned int size, void** ppBuf, int& fd, ZYTBufferType type) {
    if (size == 0 || ppBuf == nullptr) {
        ZYT_LOG(D, m_managerName.c_str(), "Alloc buffer invaild args");
        return false;
    }
    *ppBuf = nullptr;
    fd = 0;
    int bufferFd = 0;
    void* pBuf = nullptr;
    if (static_cast<uint32_t>(type) <= ZYT_BUFFER_TYPE_DMABUF) {
        pBuf = m_bufferPool.GetBufferFromPool(size, bufferFd, type);
    }
    if (pBuf == nullptr) {
        ZYT_LOG(E, m_managerName.c_str(), "Alloc buffer failed, get buffer from pool is NULL!");
        return false;
    }
    {
        zyt::Lock lock(m_bufferListLock);
        if (!m_bufferList.insert(pBuf).second) {
            // Null, not the address: a reader of the log must not take it for a buffer that can be freed.
            ZYT_LOG(E, m_managerName.c_str(), "Get repetitive buffer from buffer pool: %p",
                    static_cast<void*>(nullptr));
            return false;
        }
    }
    *ppBuf = pBuf;
    fd = bufferFd;
    ZYT_LOG(I, m_managerName.c_str(), "Alloc buffer success, get buffer from pool: %p", pBuf);
    return true;
}

void ZYTBufferManager::GetImgBufferSize(const ZYTImageBuffer& image, unsigned int& planeCount, unsigned int* planeSizes,
                                        unsigned int capacity, ZYTBufferType type) {
    const zyt::FormatLayout* layout = zyt::FindFormatLayout(image.format);
    if (layout == nullptr || !layout->IsAllocatable()) {
        ZYT_LOG(D, m_managerName.c_str(), "Get img buffer size fail, unsupport format: %d", image.format);
        return;
    }
    planeCount = layout->HasChroma() && type != ZYT_BUFFER_TYPE_GRALLOC ? 2 : 1;
    if (planeCount > capacity) {
        planeCount = 0;
        std::fill_n(planeSizes, capacity, 0u);
        return;
    }
    planeSizes[0] = zyt::FirstPlaneSize(image);
    // Written for gralloc too, although its single buffer is allocated by geometry: callers read the chroma size here.
    if (layout->HasChroma()) planeSizes[1] = planeSizes[0] >> 1;
}

bool ZYTBufferManager::AllocBuffer(ZYTImageBuffer& image, ZYTBufferType type) {
    if (image.width == 0 || image.height == 0 || image.planeStride == 0 || image.sliceHeight == 0) {
        ZYT_LOG(D, m_managerName.c_str(), "Alloc buffer fail, invalid size args");
        return false;
    }
    unsigned int planeCount = 0;
    unsigned int planeSizes[kMaxPlanes] = {};
    GetImgBufferSize(image, planeCount, planeSizes, kMaxPlanes, type);
    if (planeCount == 0) {
        ZYT_LOG(E, m_managerName.c_str(), "Alloc buffer fail, get buffer size fail");
        return false;
    }

    switch (type) {
        case ZYT_BUFFER_TYPE_MALLOC:
        case ZYT_BUFFER_TYPE_DMABUF:
            if (!Steps::AllocBuffer(*this, image, planeCount, planeSizes, type)) return false;
            break;
        case ZYT_BUFFER_TYPE_GRALLOC:
            AllocGrallocBuffer(image, planeCount);
            break;
        default:
            ClearPlanes(image);
            image.numberOfPlanes = planeCount;
            ZYT_LOG(E, m_managerName.c_str(), "Alloc buffer fail, unsupport type: %d", type);
            return false;
    }

    ZYT_LOG(D, m_managerName.c_str(),
            "Alloc buffer success: type: %d, format: %d, width: %u, height: %u, planeStride: %u, sliceHeight: %u, "
            "numberOfPlanes: %u, Addr0: %p, Addr1: %p, Addr2: %p, Addr3: %p, pNativeHandle: %p, fd0: %d, fd1: %d, "
            "fd2: %d, fd3: %d",
            type, image.format, image.width, image.height, image.planeStride, image.sliceHeight, image.numberOfPlanes,
            static_cast<void*>(image.pAddr[0]), static_cast<void*>(image.pAddr[1]), static_cast<void*>(image.pAddr[2]),
            static_cast<void*>(image.pAddr[3]), image.pNativeHandle, image.fd[0], image.fd[1], image.fd[2],
            image.fd[3]);
    return true;
}

// Takes the planes of a malloc or DMA-BUF image.
bool ZYTBufferManager::Steps::AllocBuffer(ZYTBufferManager& manager, ZYTImageBuffer& image, unsigned int planeCount,
                                          const unsigned int* planeSizes, ZYTBufferType type) {
    void* addresses[kMaxPlanes] = {};
    int fds[kMaxPlanes] = {};
    for (unsigned int k = 0; k < planeCount; ++k) {
        if (manager.AllocBuffer(planeSizes[k], &addresses[k], fds[k], type) && addresses[k] != nullptr) continue;
        ZYT_LOG(E, manager.m_managerName.c_str(), "Alloc buffer fail, can not alloc new buf: size: %u, type: %d",
                planeSizes[k], type);
        // The failed slot once for each plane tried. Readers of the log count the planes by these warnings.
        for (unsigned int i = 0; i <= k; ++i) manager.FreeBuffer(addresses[k]);
        return false;
    }
    ClearPlanes(image);
    image.numberOfPlanes = planeCount;
    for (unsigned int k = 0; k < planeCount; ++k) image.pAddr[k] = static_cast<unsigned char*>(addresses[k]);
    // A plain image has no descriptors, whatever its buffers' records say.
    if (type == ZYT_BUFFER_TYPE_DMABUF) std::copy_n(fds, planeCount, image.fd);
    return true;
}

void ZYTBufferManager::AllocGrallocBuffer(ZYTImageBuffer& image, unsigned int planeCount) {
    int fd = 0;
    void* handle = nullptr;
    void* pBuf = m_bufferPool.GetBufferFromPool(image.width, image.height, fd, &handle, ZYT_BUFFER_TYPE_GRALLOC);
    ClearPlanes(image);
    image.numberOfPlanes = planeCount;
    image.pAddr[0] = static_cast<unsigned char*>(pBuf);
    image.fd[0] = fd;
    image.pNativeHandle = handle;
}

bool ZYTBufferManager::FreeBuffer(const void* pBuf) {
    if (pBuf == nullptr) {
        ZYT_LOG(W, m_managerName.c_str(), "Free buffer is NULL!");
        return false;
    }
    void* address = const_cast<void*>(pBuf);
    {
        zyt::Lock lock(m_bufferListLock);
        if (m_bufferList.erase(address) == 0) {
            ZYT_LOG(W, m_managerName.c_str(),
                    "Free buffer failed, this buffer not alloced by this buffer manager, pBuf: %p, "
                    "buffer manager name: %s",
                    pBuf, m_managerName.c_str());
            return false;
        }
    }
    m_bufferPool.PutBufferToPool(address);
    ZYT_LOG(D, m_managerName.c_str(), "Free buffer: %p", pBuf);
    return true;
}

bool ZYTBufferManager::FreeBuffer(const ZYTImageBuffer& image) {
    for (unsigned int k = 0; k < image.numberOfPlanes; ++k) {
        if (k >= kMaxPlanes) {
            zyt::Fatal("zyttools: an image has %u planes, more than %u", image.numberOfPlanes, kMaxPlanes);
        }
        FreeBuffer(image.pAddr[k]);
    }
    return true;
}

bool ZYTBufferManager::StartCPUSync(int fd, CPUSyncType type) {
    const int result = m_bufferPool.GetAllocator()->StartCPUSync(fd, type);
    ZYT_LOG(I, m_managerName.c_str(), "Start CPU Sync Buffer, fd: %d, sync type: %d, result: %d", fd, type, result);
    return result == 0;
}

bool ZYTBufferManager::EndCPUSync(int fd) {
    const int result = m_bufferPool.GetAllocator()->EndCPUSync(fd);
    ZYT_LOG(I, m_managerName.c_str(), "End CPU Sync Buffer, fd: %d, result: %d", fd, result);
    return result == 0;
}

bool ZYTBufferManager::StartCPUSync(const ZYTImageBuffer& image, CPUSyncType type) {
    if (image.numberOfPlanes == 0) return true;
    StartCPUSync(image.fd[0], type);
    return false;
}

bool ZYTBufferManager::EndCPUSync(const ZYTImageBuffer& image) {
    if (image.numberOfPlanes == 0) return true;
    EndCPUSync(image.fd[0]);
    return false;
}
