#ifndef ZYT_EXPORT_H
#define ZYT_EXPORT_H

/// Marks what clients of libzyttools.so may link against. Everything else is built with hidden visibility.
#define ZYT_EXPORT __attribute__((visibility("default")))

#endif  // ZYT_EXPORT_H
