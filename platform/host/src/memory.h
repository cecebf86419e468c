#ifndef HOSTDEVICE_MEMORY_H
#define HOSTDEVICE_MEMORY_H

#include <cstdint>

namespace hostdevice {

/// Whose memory a descriptor or a mapping is, told by the name that the kernel shows for it.
enum class MemoryKind { kEmulatedHeap, kGraphic, kDmaBuf, kOther };

/// `path` as /proc/self/fd and /proc/self/maps give it.
MemoryKind KindOfPath(const char* path);
MemoryKind KindOfDescriptor(int fd);

/// Whether the machine has that much memory at all. Nothing else would refuse: a memfd is sparse and promises any size,
/// and the kernel's heap takes pages until the machine has none left.
bool FitsMachine(uint64_t bytes);

/// Makes zeroed memory of at least `bytes` bytes whose size can never change. Returns a descriptor, the caller's to
/// close, or a negative errno. `kind` is kEmulatedHeap or kGraphic.
int CreateMemory(MemoryKind kind, uint64_t bytes);

/// Takes what a system call has just returned and gives a descriptor above the standard ones, or a negative errno.
/// Clients read descriptor 0 as "no descriptor", and a log line for a closed stderr must not land in an image.
int AboveStandardDescriptors(int fd);

}  // namespace hostdevice

#endif  // HOSTDEVICE_MEMORY_H
