#ifndef ZYT_LOG_SITE_H
#define ZYT_LOG_SITE_H

/// @file
/// The log site: one message for both logs, with its origin.

#include "logging/zytlogutil.h"
#include "logging/zytofflinelog.h"

namespace zyt {

/// Returns the part of a compile-time path after its last '/', or all of it.
constexpr const char* BaseName(const char* path) {
    const char* name = path;
    for (const char* p = path; *p != '\0'; ++p) {
        if (*p == '/') name = p + 1;
    }
    return name;
}

/// Evaluates the arguments of a log call that would write nothing.
template <typename... Args>
inline void EvaluateOnly(Args...) {}

}  // namespace zyt

/// Writes a message to both logs: `ZYT_LOG(I, name.c_str(), "took %u rows", rows)` gives the line
/// "[name] file.cpp:12 Function() took 10 rows".
///
/// `letter` is E, W, D, I or V, `name` a const char*, and the message a string literal with its arguments, at most 30,
/// checked like those of printf. The platform log is written first. The name and the arguments are evaluated twice,
/// once for each log, even when neither log wants the line: they must not have side effects.
#define ZYT_LOG(letter, name, ...)                                                                           \
    ZYT_LOG_TWICE(ZYTLogUtil::Is##letter##On, ZYTLogUtil::Log##letter, ZYTOfflineLog::ZYTOfflineLog##letter, \
                  "[%s] %s:%d %s() " ZYT_LOG_FORMAT(__VA_ARGS__, 0), name, zytFile, __LINE__,                \
                  __func__ ZYT_LOG_ARGUMENTS(__VA_ARGS__))

/// The same for an object that is known by its address: "file.cpp:12 Function() [address] message".
#define ZYT_LOG_AT(letter, object, ...)                                                                      \
    ZYT_LOG_TWICE(ZYTLogUtil::Is##letter##On, ZYTLogUtil::Log##letter, ZYTOfflineLog::ZYTOfflineLog##letter, \
                  "%s:%d %s() [%p] " ZYT_LOG_FORMAT(__VA_ARGS__, 0), zytFile, __LINE__, __func__,            \
                  static_cast<const void*>(object) ZYT_LOG_ARGUMENTS(__VA_ARGS__))

// Below is how the two work. The letter is pasted to the functions' names above, before a macro of its name, such as
// the imaginary unit I of <complex.h>, can be expanded.

// Both logs are asked first, because compilers do not inline functions with variable arguments: a line that neither log
// wants costs no call.
#define ZYT_LOG_TWICE(isOn, log, offlineLog, ...)                \
    do {                                                         \
        constexpr const char* zytFile = zyt::BaseName(__FILE__); \
        if (isOn() || ZYTOfflineLog::IsOn()) {                   \
            log(__VA_ARGS__);                                    \
            offlineLog(__VA_ARGS__);                             \
        } else {                                                 \
            zyt::EvaluateOnly(__VA_ARGS__);                      \
            zyt::EvaluateOnly(__VA_ARGS__);                      \
        }                                                        \
    } while (false)

// Standard C++17 has no way to drop the comma before an empty list, so a message with arguments and one without have a
// macro each, chosen by the number of arguments.
#define ZYT_LOG_FORMAT(format, ...) format
#define ZYT_LOG_ARGUMENTS(...)                                                                                       \
    ZYT_LOG_32ND(__VA_ARGS__, SOME, SOME, SOME, SOME, SOME, SOME, SOME, SOME, SOME, SOME, SOME, SOME, SOME, SOME,    \
                 SOME, SOME, SOME, SOME, SOME, SOME, SOME, SOME, SOME, SOME, SOME, SOME, SOME, SOME, SOME, SOME, NO, \
                 0)                                                                                                  \
    (__VA_ARGS__)
#define ZYT_LOG_32ND(a, b, c, d, e, f, g, h, i, j, k, l, m, n, o, p, q, r, s, t, u, v, w, x, y, z, aa, bb, cc, dd, ee, \
                     kind, ...)                                                                                        \
    ZYT_LOG_##kind##_ARGUMENTS
#define ZYT_LOG_NO_ARGUMENTS(format)
#define ZYT_LOG_SOME_ARGUMENTS(format, ...) , __VA_ARGS__

#endif  // ZYT_LOG_SITE_H
