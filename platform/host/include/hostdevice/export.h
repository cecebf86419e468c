#ifndef HOSTDEVICE_EXPORT_H
#define HOSTDEVICE_EXPORT_H

/// Marks what libhostdevice.so offers to others; the rest of it is built with hidden visibility.
#define HOSTDEVICE_EXPORT __attribute__((visibility("default")))

#endif  // HOSTDEVICE_EXPORT_H
