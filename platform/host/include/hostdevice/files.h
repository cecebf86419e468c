#ifndef HOSTDEVICE_FILES_H
#define HOSTDEVICE_FILES_H

/// @file
/// Location of the emulated device's files.

#include "hostdevice/export.h"

namespace hostdevice {

/// Returns the directory that stands for the phone's /data/vendor/camera/offlinelog/, with a final slash. It is below
/// the folder in HOSTDEVICE_DATA, or $XDG_STATE_HOME/zyttools, or ~/.local/state/zyttools. The first call in the
/// process chooses and creates it. When it cannot be created, or its path leaves no room for a file name, prints one
/// line to stderr and returns a path below which no file can be created. Valid until the process ends. Thread-safe.
HOSTDEVICE_EXPORT const char* OfflineLogDir();

}  // namespace hostdevice

#endif  // HOSTDEVICE_FILES_H
