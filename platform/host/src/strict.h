#ifndef HOSTDEVICE_STRICT_H
#define HOSTDEVICE_STRICT_H

namespace hostdevice {

// Notifications from the device to strict mode. No effect while it is off.

/// Records an access in `direction` (a SyncType value) on the buffer of `fd`.
void OpenAccess(int fd, int direction);

/// Records that an access was closed. Ends the process when none is open.
void CloseAccess(int fd);

/// Records that a descriptor or mapping was released. Ends the process when it was the last of a buffer with an open
/// access.
void CheckReleased();

}  // namespace hostdevice

#endif  // HOSTDEVICE_STRICT_H
