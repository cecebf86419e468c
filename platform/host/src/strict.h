#ifndef HOSTDEVICE_STRICT_H
#define HOSTDEVICE_STRICT_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "hostdevice/export.h"

namespace hostdevice {

// Notifications from the device to strict mode. No effect while it is off.

/// Records an access in `direction` (a SyncType value) on the buffer of `fd`.
void OpenAccess(int fd, int direction);

/// Records that an access was closed. Ends the process when none is open.
void CloseAccess(int fd);

/// Records a new buffer and the size that was asked for, and fills its last page behind that size with a pattern that
/// is checked at the end of accesses. Memory that cannot be written has none.
void WatchMemory(int fd, uint64_t bytes);

}  // namespace hostdevice

/// What the linker puts in the place of mmap, munmap and close in everything that links to this library but itself.
extern "C" {
HOSTDEVICE_EXPORT void* __wrap_mmap(void* hint, size_t size, int protection, int flags, int fd, off_t offset);
HOSTDEVICE_EXPORT void* __wrap_mmap64(void* hint, size_t size, int protection, int flags, int fd, off_t offset);
HOSTDEVICE_EXPORT int __wrap_munmap(void* start, size_t size);
HOSTDEVICE_EXPORT int __wrap_close(int fd);
}

#endif  // HOSTDEVICE_STRICT_H
