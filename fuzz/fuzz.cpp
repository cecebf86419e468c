// One of the suite's rules as a fuzz target; ZYT_RULE says which.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "rules.h"

// Part of the executable, so that an input behaves the same when it is replayed by hand.
extern "C" __attribute__((used)) const char* __asan_default_options() {
    return "strict_string_checks=1:detect_stack_use_after_return=1";
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    FuzzedDataProvider data(bytes, size);
    // In the current directory; fuzz.sh makes that a passing one.
    static const bool isMade = std::filesystem::create_directory("fuzz.tmp");
    static_cast<void>(isMade);
    if (zytrule::ZYT_RULE(data, "fuzz.tmp")) return 0;
    std::fprintf(stderr, "BROKEN RULE\n");
    std::abort();
}
