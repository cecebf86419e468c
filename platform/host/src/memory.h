#ifndef HOSTDEVICE_MEMORY_H
#define HOSTDEVICE_MEMORY_H

#include <cstddef>
#include <cstdint>

namespace hostdevice {

/// Kind of a descriptor or mapping, according to its name in /proc.
enum class MemoryKind { kEmulatedHeap, kGraphic, kDmaBuf, kOther };

/// Returns the kind for a path from /proc/self/fd or /proc/self/maps.
MemoryKind KindOfPath(const char* path);
MemoryKind KindOfDescriptor(int fd);

size_t PageSize();

/// Returns the size rounded up to whole pages.
uint64_t WholePages(uint64_t size);

/// Returns true when the machine has that much memory. Nothing else refuses a larger size: a memfd is sparse and
/// accepts any size, and the kernel's heap takes pages until none are left.
bool FitsMachine(uint64_t bytes);

/// Creates zeroed memory of at least `bytes` bytes, with a fixed size. Returns a descriptor, which the caller closes,
/// or a negative errno. REQUIRES: `kind` is kEmulatedHeap or kGraphic.
int CreateMemory(MemoryKind kind, uint64_t bytes);

/// Takes the result of a system call and returns a descriptor above 2, or a negative errno. Clients treat descriptor 0
/// as "no descriptor", and a log line to a closed stderr must not end up in an image.
int AboveStandardDescriptors(int fd);

}  // namespace hostdevice

#endif  // HOSTDEVICE_MEMORY_H
