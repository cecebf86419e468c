#include <android/log.h>

#include <cstdio>
#include <cstdlib>

#include "internal.h"

namespace {

void Deliver(const __android_logger_data* data, const char* message) {
    hostdevice::DeliverLog(data->priority, data->tag, message);
}

// Runs at load: a library that links to this one may log in its static initialisers.
[[maybe_unused]] const bool g_installed = [] {
    __android_log_set_logger(Deliver);
    // Outside a device, liblog drops messages below INFO by default.
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    if (std::getenv("HOSTDEVICE_TRACE") != nullptr) {
        std::fprintf(stderr,
                     "hostdevice: no trace: this build has the platform's own tracing, which does nothing here\n");
    }
    return true;
}();

}  // namespace
