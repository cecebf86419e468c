#ifndef ZYT_FATAL_H
#define ZYT_FATAL_H

#include <android/set_abort_message.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace zyt {

/// Ends the process with abort() after telling the developer why: on a device in the tombstone's abort message, at a
/// desk on stderr. Nothing goes to either log, whose own locks and memory may be what is broken. Formatted as by
/// printf, cut to 255 characters. Thread-safe.
[[noreturn]] __attribute__((cold, noinline, format(printf, 1, 2))) inline void Fatal(const char* format, ...) {
    char message[256];
    va_list args;
    va_start(args, format);
    std::vsnprintf(message, sizeof(message), format, args);
    va_end(args);
    android_set_abort_message(message);
    std::abort();
}

}  // namespace zyt

#endif  // ZYT_FATAL_H
