#ifndef HOSTDEVICE_INTERNAL_H
#define HOSTDEVICE_INTERNAL_H

#include "hostdevice/hostdevice.h"

namespace hostdevice {

/// Counts one call that `fault` could hit; true when this is the call to fail.
bool TakeFault(Fault fault);

/// Hands a message to the sink, or prints it to stderr. A null tag stands for the program's name. False when a property
/// keeps the tag's messages of that priority back.
bool DeliverLog(int priority, const char* tag, const char* text);

/// Ends the process where the platform's own code would run into a null pointer, and says so on stderr.
[[noreturn]] void CrashOnNull(const char* what);

/// GraphicBuffer objects alive in the process.
uint64_t CountGraphicBuffers();

/// The process's one T, built on first use and never destroyed: static destructors of other libraries and threads that
/// outlive main() still log and read properties.
template <typename T>
T& Immortal() {
    static T* const object = new T;
    return *object;
}

}  // namespace hostdevice

#endif  // HOSTDEVICE_INTERNAL_H
