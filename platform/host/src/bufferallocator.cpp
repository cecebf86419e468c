#include "BufferAllocator/BufferAllocator.h"

#include <fcntl.h>
#include <linux/dma-heap.h>
#include <sys/ioctl.h>

#include <atomic>
#include <cerrno>
#include <mutex>

#include "internal.h"
#include "memory.h"
#include "strict.h"

using hostdevice::Fault;
using hostdevice::MemoryKind;

namespace {

constexpr char kKernelHeap[] = "/dev/dma_heap/system";

// Returns the descriptor of the kernel's heap, or a negative value when it cannot be opened.
int HeapDevice() {
    static const int device = hostdevice::AboveStandardDescriptors(open(kKernelHeap, O_RDONLY | O_CLOEXEC));
    return device;
}

// Retries on EINTR and EAGAIN, as the kernel documents for an interrupted synchronisation.
template <typename Argument>
int RetryingIoctl(int fd, unsigned long request, Argument* argument) {
    int result;
    do {
        result = ioctl(fd, request, argument);
    } while (result == -1 && (errno == EINTR || errno == EAGAIN));
    return result;
}

int AllocFromKernel(size_t len) {
    if (!hostdevice::FitsMachine(len)) return -ENOMEM;
    dma_heap_allocation_data allocation{};
    allocation.len = len;
    allocation.fd_flags = O_CLOEXEC | (hostdevice::TakeFault(Fault::kMapping) ? O_RDONLY : O_RDWR);
    if (RetryingIoctl(HeapDevice(), DMA_HEAP_IOCTL_ALLOC, &allocation) == -1) return -errno;
    return hostdevice::AboveStandardDescriptors(static_cast<int>(allocation.fd));
}

// Sets errno from a negative errno and returns -1, as the platform does.
int Failure(int error) {
    errno = -error;
    return -1;
}

int SyncMemory(int fd, SyncType type, bool isStart) {
    if (hostdevice::TakeFault(Fault::kSync)) return Failure(-EIO);
    const MemoryKind kind = hostdevice::KindOfDescriptor(fd);
    if (kind == MemoryKind::kEmulatedHeap || kind == MemoryKind::kGraphic) return 0;
    // The kernel accepts a DMA-BUF and refuses any other descriptor.
    dma_buf_sync sync{};
    sync.flags = static_cast<uint64_t>(type) | (isStart ? DMA_BUF_SYNC_START : DMA_BUF_SYNC_END);
    return RetryingIoctl(fd, DMA_BUF_IOCTL_SYNC, &sync);
}

std::atomic<bool> g_isForCpu{false};

struct SyncLog {
    std::mutex lock;
    hostdevice::SyncCall last{};
    uint64_t count = 0;
};

template <typename Use>
auto WithSyncLog(Use use) {
    SyncLog& log = hostdevice::Immortal<SyncLog>();
    const std::lock_guard<std::mutex> guard(log.lock);
    return use(log);
}

int Sync(unsigned int dmabuf_fd, SyncType type, bool isStart) {
    const int fd = static_cast<int>(dmabuf_fd);
    const int result = SyncMemory(fd, type, isStart);
    const int savedErrno = errno;
    // A failed end still closes the access.
    if (!isStart) hostdevice::CloseAccess(fd);
    if (isStart && result == 0) hostdevice::OpenAccess(fd, type);
    errno = savedErrno;
    return WithSyncLog([&](SyncLog& log) {
        log.last = {fd, type, isStart, result};
        ++log.count;
        return result;
    });
}

}  // namespace

int BufferAllocator::AllocSystem(bool cpu_access, size_t len, unsigned int /*heap_flags*/, size_t /*legacy_align*/) {
    g_isForCpu = cpu_access;
    if (hostdevice::TakeFault(Fault::kHeapAllocation)) return Failure(-ENOMEM);
    if (len == 0) return Failure(-EINVAL);
    const int fd =
        hostdevice::UsesKernelHeap() ? AllocFromKernel(len) : hostdevice::CreateMemory(MemoryKind::kEmulatedHeap, len);
    if (fd < 0) return Failure(fd);
    hostdevice::WatchMemory(fd, len);
    return fd;
}

int BufferAllocator::Alloc(const std::string& heap_name, size_t len, unsigned int heap_flags, size_t legacy_align) {
    return heap_name == "system" ? AllocSystem(true, len, heap_flags, legacy_align) : Failure(-ENODEV);
}

int BufferAllocator::CpuSyncStart(unsigned int dmabuf_fd, SyncType type, const CustomCpuSyncLegacyIon& /*custom*/,
                                  void* /*custom_data*/) {
    return Sync(dmabuf_fd, type, true);
}

int BufferAllocator::CpuSyncEnd(unsigned int dmabuf_fd, SyncType type, const CustomCpuSyncLegacyIon& /*custom*/,
                                void* /*custom_data*/) {
    return Sync(dmabuf_fd, type, false);
}

namespace hostdevice {

bool UsesKernelHeap() { return HeapDevice() >= 0; }

const char* HeapName() { return UsesKernelHeap() ? kKernelHeap : "memfd"; }

bool LastAllocationWasForCpu() { return g_isForCpu; }

SyncCall LastSync() {
    return WithSyncLog([](const SyncLog& log) { return log.last; });
}

uint64_t SyncCount() {
    return WithSyncLog([](const SyncLog& log) { return log.count; });
}

}  // namespace hostdevice
