#ifndef ZYT_EXPORT_H
#define ZYT_EXPORT_H

/// Marks what clients of libzyttools.so may link against. Everything else is built with hidden visibility.
#define ZYT_EXPORT __attribute__((visibility("default")))

/// Marks a private member of an exported class that no inline function uses, so that clients cannot link against it.
#define ZYT_LOCAL __attribute__((visibility("hidden")))

#endif  // ZYT_EXPORT_H
