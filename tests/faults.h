#ifndef ZYT_TESTS_FAULTS_H
#define ZYT_TESTS_FAULTS_H

#include <cstdint>

/// Faults in the C library's calls, for executables that hold the library's objects themselves: these calls are wrapped
/// by the linker there, so that only the library's own (and the test's) can fail, never those of the standard library.
/// The emulated device stages all others.
namespace zyttest {

enum class LibcCall { kMalloc, kFopen, kMmap, kPthreadCreate };

/// Makes the n-th such call from now fail (1: the next one), once; 0 disarms. A failing mmap returns null.
void FailNth(LibcCall call, uint64_t n);

/// Whether a fault is armed and has not fired yet.
bool FaultPending(LibcCall call);

}  // namespace zyttest

#endif  // ZYT_TESTS_FAULTS_H
