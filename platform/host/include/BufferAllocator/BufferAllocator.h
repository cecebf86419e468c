#ifndef HOSTDEVICE_BUFFERALLOCATOR_H
#define HOSTDEVICE_BUFFERALLOCATOR_H

/// @file
/// The platform's DMA-BUF heap.

#include <linux/dma-buf.h>

#include <cstddef>
#include <functional>
#include <string>

#include "hostdevice/export.h"

/// What the processor is about to do with a buffer, or has done.
typedef enum {
    kSyncRead = DMA_BUF_SYNC_READ,     ///< Read it.
    kSyncWrite = DMA_BUF_SYNC_WRITE,   ///< Write it.
    kSyncReadWrite = DMA_BUF_SYNC_RW,  ///< Both.
} SyncType;

/// DMA-BUF memory from the system heap: the kernel's own where /dev/dma_heap/system can be opened, sealed memfd memory
/// elsewhere. Keeps no record of what it hands out. Safe from any thread.
class HOSTDEVICE_EXPORT BufferAllocator {
public:
    /// Synchronises a buffer of the kernel's old ION interface, which this device does not have: never called.
    using CustomCpuSyncLegacyIon = std::function<int(int fd, int direction, void* customData)>;

    BufferAllocator() = default;
    ~BufferAllocator() = default;
    BufferAllocator(const BufferAllocator&) = delete;
    BufferAllocator& operator=(const BufferAllocator&) = delete;

    /// Makes zeroed memory of `len` bytes, rounded up to whole pages, and returns its descriptor: above 2, closed on
    /// exec, the caller's to close. On failure -1, as platform 14 and later have it; errno says why here, but not on
    /// every platform: EINVAL for no bytes, ENOMEM for more than there are. All memory is accessible to the processor,
    /// and no heap flags exist; both arguments and `legacy_align` are there for the platform's signature.
    int AllocSystem(bool cpu_access, size_t len, unsigned int heap_flags = 0, size_t legacy_align = 0);

    /// AllocSystem for the heap "system", the only one that this device has. For any other -1 with errno ENODEV.
    int Alloc(const std::string& heap_name, size_t len, unsigned int heap_flags = 0, size_t legacy_align = 0);

    /// Opens an access by the processor. 0, or -1 with errno: EBADF for a negative or closed descriptor, ENOTTY for one
    /// that is neither of this device's memory nor a DMA-BUF. On memfd memory there is no cache to maintain and nothing
    /// is done. `custom` and `custom_data` are not used.
    int CpuSyncStart(unsigned int dmabuf_fd, SyncType type = kSyncRead, const CustomCpuSyncLegacyIon& custom = nullptr,
                     void* custom_data = nullptr);
    /// Closes the access, with the same results.
    int CpuSyncEnd(unsigned int dmabuf_fd, SyncType type = kSyncRead, const CustomCpuSyncLegacyIon& custom = nullptr,
                   void* custom_data = nullptr);
};

#endif  // HOSTDEVICE_BUFFERALLOCATOR_H
