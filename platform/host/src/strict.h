#ifndef HOSTDEVICE_STRICT_H
#define HOSTDEVICE_STRICT_H

namespace hostdevice {

// What the device tells strict mode. Nothing happens while that is off.

/// An access in `direction` (a SyncType value) was opened on the buffer behind `fd`.
void OpenAccess(int fd, int direction);

/// It was closed. Ends the process when none is open.
void CloseAccess(int fd);

/// A descriptor or a mapping went away. Ends the process when it was the last of a buffer with an open access.
void CheckReleased();

}  // namespace hostdevice

#endif  // HOSTDEVICE_STRICT_H
