#ifndef HOSTDEVICE_EXPORT_H
#define HOSTDEVICE_EXPORT_H

/// Exports a symbol from libhostdevice.so, which is built with hidden visibility.
#define HOSTDEVICE_EXPORT __attribute__((visibility("default")))

#endif  // HOSTDEVICE_EXPORT_H
