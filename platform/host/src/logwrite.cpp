#include <android/log.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "internal.h"

namespace {

// Size of the platform's formatting buffer.
constexpr size_t kTextSize = 1024;

}  // namespace

int __android_log_write(int prio, const char* tag, const char* text) {
    return hostdevice::DeliverLog(prio, tag, text) ? 1 : -EPERM;
}

int __android_log_buf_write(int /*bufID*/, int prio, const char* tag, const char* text) {
    return __android_log_write(prio, tag, text);
}

int __android_log_vprint(int prio, const char* tag, const char* fmt, va_list ap) {
    char text[kTextSize];
    std::vsnprintf(text, sizeof text, fmt, ap);
    return __android_log_write(prio, tag, text);
}

int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    const int result = __android_log_vprint(prio, tag, fmt, args);
    va_end(args);
    return result;
}

int __android_log_is_loggable(int prio, const char* tag, int default_prio) {
    return hostdevice::IsLoggable(prio, tag, default_prio) ? 1 : 0;
}

void __android_log_assert(const char* cond, const char* tag, const char* fmt, ...) {
    char text[kTextSize] = "Unspecified assertion failed";
    if (fmt != nullptr) {
        va_list args;
        va_start(args, fmt);
        std::vsnprintf(text, sizeof text, fmt, args);
        va_end(args);
    } else if (cond != nullptr) {
        std::snprintf(text, sizeof text, "Assertion failed: %s", cond);
    }
    __android_log_write(ANDROID_LOG_FATAL, tag, text);
    std::abort();
}
