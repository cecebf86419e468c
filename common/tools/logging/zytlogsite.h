#ifndef ZYT_LOG_SITE_H
#define ZYT_LOG_SITE_H

/// @file
/// The log site: one message for both logs, with where it comes from.

#include "logging/zytlogutil.h"
#include "logging/zytofflinelog.h"

namespace zyt {

/// The part of a compile-time path after its last '/', or all of it.
constexpr const char* BaseName(const char* path) {
    const char* name = path;
    for (const char* p = path; *p != '\0'; ++p) {
        if (*p == '/') name = p + 1;
    }
    return name;
}

/// Stands in for a log call that would write nothing, so that its arguments are evaluated all the same.
template <typename... Args>
inline void EvaluateOnly(Args...) {}

}  // namespace zyt

/// Writes one message twice: to the platform log, then to the offline log; letter is E, W, D, I or V. Each log
/// evaluates the arguments anew, as two calls written by hand would. Whether either log wants the line is asked here
/// first, because compilers do not inline functions with variable arguments: a line that neither wants then costs no
/// call at all.
#define ZYT_LOG_TWICE(letter, ...)                                   \
    do {                                                             \
        constexpr const char* zytFile = zyt::BaseName(__FILE__);     \
        if (ZYTLogUtil::Is##letter##On() || ZYTOfflineLog::IsOn()) { \
            ZYTLogUtil::Log##letter(__VA_ARGS__);                    \
            ZYTOfflineLog::ZYTOfflineLog##letter(__VA_ARGS__);       \
        } else {                                                     \
            zyt::EvaluateOnly(__VA_ARGS__);                          \
            zyt::EvaluateOnly(__VA_ARGS__);                          \
        }                                                            \
    } while (false)

/// A log site of an object with a name (a const char*): "[name] file:line function() message".
#define ZYT_LOG(letter, name, format, ...) \
    ZYT_LOG_TWICE(letter, "[%s] %s:%d %s() " format, name, zytFile, __LINE__, __func__, ##__VA_ARGS__)

/// A log site of an object known by its address: "file:line function() [address] message".
#define ZYT_LOG_AT(letter, object, format, ...)                                                                     \
    ZYT_LOG_TWICE(letter, "%s:%d %s() [%p] " format, zytFile, __LINE__, __func__, static_cast<const void*>(object), \
                  ##__VA_ARGS__)

#endif  // ZYT_LOG_SITE_H
