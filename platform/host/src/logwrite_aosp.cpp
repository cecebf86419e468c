#include <android/log.h>

#include "internal.h"

namespace {

void Deliver(const __android_logger_data* data, const char* message) {
    hostdevice::DeliverLog(data->priority, data->tag, message);
}

// At load: a library that links to this one may log in its own static initialisers.
[[maybe_unused]] const bool g_installed = [] {
    __android_log_set_logger(Deliver);
    // Off a device liblog would drop all below INFO.
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    return true;
}();

}  // namespace
