#ifndef HOSTDEVICE_BUFFERALLOCATOR_H
#define HOSTDEVICE_BUFFERALLOCATOR_H

/// @file
/// The platform's DMA-BUF heap.

#include <linux/dma-buf.h>

#include <cstddef>
#include <functional>
#include <string>

#include "hostdevice/export.h"

/// Direction of a CPU access.
typedef enum {
    kSyncRead = DMA_BUF_SYNC_READ,     ///< The CPU reads.
    kSyncWrite = DMA_BUF_SYNC_WRITE,   ///< The CPU writes.
    kSyncReadWrite = DMA_BUF_SYNC_RW,  ///< Both.
} SyncType;

/// Allocates DMA-BUF memory from the system heap: the kernel's heap where /dev/dma_heap/system can be opened, otherwise
/// sealed memfd memory. Keeps no record of its buffers. Thread-safe.
class HOSTDEVICE_EXPORT BufferAllocator {
public:
    /// Synchronises a buffer of the legacy ION interface. Never called: this device has no ION.
    using CustomCpuSyncLegacyIon = std::function<int(int fd, int direction, void* customData)>;

    BufferAllocator() = default;
    ~BufferAllocator() = default;
    BufferAllocator(const BufferAllocator&) = delete;
    BufferAllocator& operator=(const BufferAllocator&) = delete;

    /// Allocates zeroed memory of `len` bytes, rounded up to whole pages. Returns its descriptor, which is above 2 and
    /// closed on exec; the caller closes it. Returns -1 on failure, as platform 14 and later do, with errno EINVAL for
    /// 0 bytes and ENOMEM for too many; not every platform sets errno. All memory is accessible to the CPU and there
    /// are no heap flags: the other arguments have no effect (hostdevice::LastAllocationWasForCpu).
    int AllocSystem(bool cpu_access, size_t len, unsigned int heap_flags = 0, size_t legacy_align = 0);

    /// Calls AllocSystem for "system", the only heap of this device. Returns -1 with errno ENODEV for any other.
    int Alloc(const std::string& heap_name, size_t len, unsigned int heap_flags = 0, size_t legacy_align = 0);

    /// Opens a CPU access. Returns 0, or -1 with errno EBADF for a negative or closed descriptor and ENOTTY for one
    /// that is neither memory of this device nor a DMA-BUF. Does nothing on memfd memory, which needs no cache
    /// maintenance. `custom` and `custom_data` are ignored.
    int CpuSyncStart(unsigned int dmabuf_fd, SyncType type = kSyncRead, const CustomCpuSyncLegacyIon& custom = nullptr,
                     void* custom_data = nullptr);
    /// Closes the CPU access. Same results as CpuSyncStart.
    int CpuSyncEnd(unsigned int dmabuf_fd, SyncType type = kSyncRead, const CustomCpuSyncLegacyIon& custom = nullptr,
                   void* custom_data = nullptr);
};

#endif  // HOSTDEVICE_BUFFERALLOCATOR_H
