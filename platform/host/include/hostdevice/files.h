#ifndef HOSTDEVICE_FILES_H
#define HOSTDEVICE_FILES_H

/// @file
/// Where the emulated device keeps its files.

#include "hostdevice/export.h"

namespace hostdevice {

/// The directory that stands for the device's /data/vendor/camera/offlinelog/, with a final slash: below the folder
/// that HOSTDEVICE_DATA names, or $XDG_STATE_HOME/zyttools, or ~/.local/state/zyttools. Decided and made by the first
/// call in the process. Where there is no such folder, or its path leaves no room for a file's name, one line on stderr
/// says so and the result names a place in which no file can be made. Valid for ever. Safe from any thread.
HOSTDEVICE_EXPORT const char* OfflineLogDir();

}  // namespace hostdevice

#endif  // HOSTDEVICE_FILES_H
