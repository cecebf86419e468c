#ifndef ZYT_FUZZ_FUZZSUPPORT_H
#define ZYT_FUZZ_FUZZSUPPORT_H

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#define FUZZ_CHECK(condition)                                                            \
    do {                                                                                 \
        if (condition) break;                                                            \
        std::fprintf(stderr, "FUZZ_CHECK: %s:%d: %s\n", __FILE__, __LINE__, #condition); \
        std::abort();                                                                    \
    } while (false)

// Part of the executable, so that an input behaves the same when it is replayed by hand.
extern "C" inline __attribute__((used)) const char* __asan_default_options() {
    return "strict_string_checks=1:detect_stack_use_after_return=1";
}

/// Bytes as far as a C function sees them.
inline std::string UpToNul(const std::string& bytes) { return bytes.c_str(); }

/// A name below fuzz.tmp in the current directory; fuzz.sh makes that a passing one.
inline std::string Scratch(const char* name) {
    std::filesystem::create_directory("fuzz.tmp");
    return std::string("fuzz.tmp/") + name;
}

#endif  // ZYT_FUZZ_FUZZSUPPORT_H
