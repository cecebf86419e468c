#ifndef HOSTDEVICE_HOSTDEVICE_H
#define HOSTDEVICE_HOSTDEVICE_H

/// @file
/// The controls of the emulated device.

#include <cstdint>
#include <functional>
#include <string>

#include "hostdevice/export.h"

/// The controls of the emulated device: set its properties, capture its log, inject faults, count live resources.
///
/// Thread-safe unless stated otherwise. The state is created on first use and never destroyed, so static initialisers,
/// static destructors and threads that outlive main() may use the device.
namespace hostdevice {

/// Sets a system property for this process. The value may be longer than the 91 characters that property_get returns.
/// An empty value counts as unset, as on a phone.
HOSTDEVICE_EXPORT void SetProperty(const std::string& key, const std::string& value);

/// Unsets a property, also one from the file named by HOSTDEVICE_PROPERTIES.
HOSTDEVICE_EXPORT void ClearProperty(const std::string& key);

/// Receives one log message: an android_LogPriority value and two strings, never null, that are valid during the call.
using LogSink = std::function<void(int priority, const char* tag, const char* text)>;

/// Sends log messages to `sink` instead of stderr; an empty function restores stderr. The sink is called on the logging
/// threads, several at a time, without a lock held: it may log, set a sink or end the process. Returns when no other
/// thread is inside the previous sink, so the caller may then destroy what that sink refers to.
HOSTDEVICE_EXPORT void SetLogSink(LogSink sink);

/// Returns true when DMA-BUF memory comes from the kernel's system heap, which is used when its device can be opened.
/// Decided once, by the first call or allocation.
HOSTDEVICE_EXPORT bool UsesKernelHeap();

/// Returns "/dev/dma_heap/system" or "memfd".
HOSTDEVICE_EXPORT const char* HeapName();

/// Sets the stride alignment, in pixels, of graphic buffers created from now on (initially 64). 0 means no padding.
HOSTDEVICE_EXPORT void SetStrideAlignment(uint32_t pixels);

/// Sets the alignment, in rows, of the first plane of graphic buffers created from now on (initially 32): the chroma of
/// GraphicBuffer::lockYCbCr begins behind the padding rows. 0 means no padding.
HOSTDEVICE_EXPORT void SetHeightAlignment(uint32_t rows);

/// Sets the camera framework's switch for offline logs (initially off). Not thread-safe: the framework's settings are a
/// plain record that no other thread may read meanwhile.
HOSTDEVICE_EXPORT void SetOfflineLogSwitch(bool on);

/// Turns strict mode on or off: the device becomes at least as strict as a phone. HOSTDEVICE_STRICT=1 in the
/// environment turns it on at load. Prints a line to stderr unless `quiet` (HOSTDEVICE_STRICT=quiet).
///
/// - Heap and graphic memory may be accessed only inside a CPU access: between CpuSyncStart and CpuSyncEnd on one of
///   its descriptors, or lock and unlock of the graphic buffer. It may be written only when one of the open accesses
///   includes writing; what an access permits stays permitted until the last overlapping one ends. Any other access,
///   and one behind the end of a mapping, prints a line to stderr and ends the process with SIGSEGV.
/// - An end without a start, a release of a buffer with an open access, and an access that wrote behind the size that
///   was asked for, print a line and end the process with SIGABRT. So does a list of mappings that cannot be read.
/// - An access that is still open at exit makes the exit status 1. A mapping longer than its buffer is refused.
/// - New threads have the phone's stack of 1,015,808 bytes.
///
/// Needs /proc. REQUIRES: no heap or graphic buffer has been created.
HOSTDEVICE_EXPORT void SetStrict(bool on, bool quiet = false);

/// Returns true when strict mode is on.
HOSTDEVICE_EXPORT bool IsStrict();

/// Faults that can be injected. Each kind counts its own calls.
enum class Fault {
    kHeapAllocation,     ///< BufferAllocator::AllocSystem returns -1.
    kGraphicBuffer,      ///< A GraphicBuffer gets no memory: null handle, all sizes 0, initCheck() is -ENOMEM.
    kGraphicDescriptor,  ///< A GraphicBuffer's handle has descriptor 0 and no memory.
    kMapping,            ///< The memory of a new heap or graphic buffer is read-only: mapping it for writing fails.
    kSync,               ///< CpuSyncStart or CpuSyncEnd returns -1 with errno EIO and synchronises nothing.
};

/// Makes the n-th call from now and those after it fail, `times` calls together; 1 is the next call. Replaces an armed
/// fault of this kind; 0 disarms it. A failed allocation does not count towards kMapping or kGraphicDescriptor.
HOSTDEVICE_EXPORT void FailNth(Fault fault, uint64_t n, uint64_t times = 1);

/// Returns true when a fault is armed and has not fired for the last time yet.
HOSTDEVICE_EXPORT bool FaultPending(Fault fault);

/// Disarms all faults.
HOSTDEVICE_EXPORT void ClearFaults();

/// Live heap and graphic memory of this process.
struct LiveResources {
    uint64_t heapDescriptors;     ///< Open descriptors, duplicates included.
    uint64_t heapMappings;        ///< Mapped ranges, as listed by the kernel.
    uint64_t graphicBuffers;      ///< GraphicBuffer objects, those without memory included.
    uint64_t graphicDescriptors;  ///< Like heapDescriptors.
    uint64_t graphicMappings;     ///< Like heapMappings.
};

/// Counts live resources. Descriptors and mappings are counted in /proc/self, so those made outside the device's
/// interfaces are included; with the kernel's heap every DMA-BUF of the process counts as heap memory. Not a consistent
/// snapshot when other threads allocate or release meanwhile. Without /proc these counts are 0.
HOSTDEVICE_EXPORT LiveResources CountLive();

/// Returns the `cpu_access` of the latest heap allocation. A phone may give memory that the CPU cannot map without it.
HOSTDEVICE_EXPORT bool LastAllocationWasForCpu();

/// One call of CpuSyncStart or CpuSyncEnd.
struct SyncCall {
    int fd;         ///< The caller's argument.
    int direction;  ///< A SyncType value: 1 read, 2 write, 3 both; 0 before the first call.
    bool isStart;   ///< True for CpuSyncStart, false for CpuSyncEnd.
    int result;     ///< 0 or -1.
};

/// Returns the latest synchronisation call of the process, refused and failed ones included.
HOSTDEVICE_EXPORT SyncCall LastSync();

/// Returns the number of synchronisation calls since the process started.
HOSTDEVICE_EXPORT uint64_t SyncCount();

}  // namespace hostdevice

#endif  // HOSTDEVICE_HOSTDEVICE_H
