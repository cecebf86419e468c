#ifndef HOSTDEVICE_HOSTDEVICE_H
#define HOSTDEVICE_HOSTDEVICE_H

/// @file
/// The controls of the emulated device.

#include <cstdint>
#include <functional>
#include <string>

#include "hostdevice/export.h"

/// The controls of the emulated device: set its properties, capture its log, make its allocations fail, count what
/// lives.
///
/// Every function may be called from any thread unless it says otherwise, and at any time: what stands behind them is
/// built on first use and never destroyed, so static initialisers, static destructors and threads that outlive main()
/// may all use the device.
namespace hostdevice {

/// Gives a system property a value, for every later property_get in this process. A value may be longer than what
/// property_get returns (91 characters); an empty one counts as unset, as on a device.
HOSTDEVICE_EXPORT void SetProperty(const std::string& key, const std::string& value);

/// Unsets a property, also one that came from the file named by HOSTDEVICE_PROPERTIES.
HOSTDEVICE_EXPORT void ClearProperty(const std::string& key);

/// Receives one log message: an android_LogPriority value and two strings, never null, that are valid during the call.
using LogSink = std::function<void(int priority, const char* tag, const char* text)>;

/// Sends log messages to `sink` in place of stderr; an empty function brings stderr back.
/// The sink runs on the logging threads, several at a time, with no lock held, as a phone's log does: it may log, set a
/// sink or end the process. Returns when no other thread is inside the previous sink, so that what that one refers to
/// can be destroyed.
HOSTDEVICE_EXPORT void SetLogSink(LogSink sink);

/// Whether DMA-BUF memory comes from the kernel's own system heap. Decided once, on the first question or allocation:
/// the heap is used when its device can be opened.
HOSTDEVICE_EXPORT bool UsesKernelHeap();

/// "/dev/dma_heap/system" or "memfd".
HOSTDEVICE_EXPORT const char* HeapName();

/// Row strides of graphic buffers made from now on are the width rounded up to a multiple of `pixels` (64 at the
/// start). 0 is treated as 1: no padding.
HOSTDEVICE_EXPORT void SetStrideAlignment(uint32_t pixels);

/// Sets the camera framework's switch for off-line logs (off at the start). The framework's settings are a plain
/// record, so no other thread may be reading them meanwhile.
HOSTDEVICE_EXPORT void SetOfflineLogSwitch(bool on);

/// Makes the device as unforgiving as a phone, or more; HOSTDEVICE_STRICT=1 in the environment does it at load. Says so
/// on stderr, unless `quiet` (HOSTDEVICE_STRICT=quiet).
///
/// Memory of the heap and of graphic buffers may then be touched only between CpuSyncStart and CpuSyncEnd on a
/// descriptor of it (or lock and unlock of the graphic buffer), and written only when a direction opened since none was
/// open includes writing. Anything else ends the process with SIGSEGV at the access, after one line on stderr. An end
/// without a start, and a release of the buffer with an access open, end it with SIGABRT; an access still open when the
/// process exits makes that exit with status 1. A mapping longer than its buffer is refused. Threads started from now
/// on have the phone's stack of 1,032,192 bytes. Needs /proc. REQUIRES: no heap or graphic buffer has been made.
HOSTDEVICE_EXPORT void SetStrict(bool on, bool quiet = false);

/// Whether strict mode is on.
HOSTDEVICE_EXPORT bool IsStrict();

/// What can be made to go wrong. Each kind counts its own calls.
enum class Fault {
    kHeapAllocation,     ///< BufferAllocator::AllocSystem returns -1.
    kGraphicBuffer,      ///< A GraphicBuffer gets no memory: null handle, all sizes 0, initCheck() is -ENOMEM.
    kGraphicDescriptor,  ///< A GraphicBuffer is made whose handle carries descriptor 0 and no memory.
    kMapping,  ///< A descriptor (heap or graphic) is handed out whose memory is read-only: a read/write mapping fails.
    kSync,     ///< CpuSyncStart or CpuSyncEnd returns -1 with errno EIO and synchronises nothing.
};

/// Makes the n-th call from now fail (1: the next one), once. Replaces what was armed for this kind; 0 disarms.
/// An allocation that an armed fault makes fail does not count towards kMapping or kGraphicDescriptor.
HOSTDEVICE_EXPORT void FailNth(Fault fault, uint64_t n);

/// Whether a fault is armed and has not fired yet.
HOSTDEVICE_EXPORT bool FaultPending(Fault fault);

/// Disarms every fault.
HOSTDEVICE_EXPORT void ClearFaults();

/// The device's memory in this process, heap and graphic apart.
struct LiveResources {
    uint64_t heapDescriptors;     ///< Open descriptors, duplicates included.
    uint64_t heapMappings;        ///< Mapped ranges, as the kernel lists them.
    uint64_t graphicBuffers;      ///< GraphicBuffer objects, those without memory included.
    uint64_t graphicDescriptors;  ///< As heapDescriptors.
    uint64_t graphicMappings;     ///< As heapMappings.
};

/// Counts what is live. Descriptors and mappings are what /proc/self lists, so nothing that bypasses the device's own
/// interfaces is missed; with the kernel's heap, every DMA-BUF of the process counts as heap memory. Where other
/// threads allocate or release meanwhile, the figures are those of no single moment. Without /proc they are 0.
HOSTDEVICE_EXPORT LiveResources CountLive();

/// One call of CpuSyncStart or CpuSyncEnd.
struct SyncCall {
    int fd;         ///< As the caller gave it.
    int direction;  ///< A SyncType value: 1 read, 2 write, 3 both; 0 when there was no call yet.
    bool isStart;   ///< CpuSyncStart, not CpuSyncEnd.
    int result;     ///< 0 or -1.
};

/// The latest synchronisation of the process, refused and failed ones included.
HOSTDEVICE_EXPORT SyncCall LastSync();

/// How many synchronisations were asked for since the process started.
HOSTDEVICE_EXPORT uint64_t SyncCount();

}  // namespace hostdevice

#endif  // HOSTDEVICE_HOSTDEVICE_H
