#ifndef HOSTDEVICE_INTERNAL_H
#define HOSTDEVICE_INTERNAL_H

#include "hostdevice/hostdevice.h"

namespace hostdevice {

/// Counts one call that `fault` can hit. Returns true when this call must fail.
bool TakeFault(Fault fault);

/// Passes a message to the sink, or prints it to stderr. A null tag stands for the program's name. Returns false when a
/// property suppresses the tag's messages of that priority.
bool DeliverLog(int priority, const char* tag, const char* text);

/// Returns true when a message of that priority is written, as __android_log_is_loggable does.
bool IsLoggable(int priority, const char* tag, int defaultLevel);

/// Ends the process, with a line on stderr, where the platform's own code would crash on a null pointer.
[[noreturn]] void CrashOnNull(const char* what);

/// Returns the number of live GraphicBuffer objects in the process.
uint64_t CountGraphicBuffers();

/// Returns the process's only T, created on first use and never destroyed: static destructors of other libraries and
/// threads that outlive main() still log and read properties.
template <typename T>
T& Immortal() {
    static T* const object = new T;
    return *object;
}

}  // namespace hostdevice

#endif  // HOSTDEVICE_INTERNAL_H
