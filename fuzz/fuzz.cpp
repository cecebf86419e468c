// Fuzz target for one of the suite's rules, selected by ZYT_RULE.
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "rules.h"

// In the executable, so that a manual replay of an input has the same options.
extern "C" __attribute__((used)) const char* __asan_default_options() {
    return "strict_string_checks=1:detect_stack_use_after_return=1";
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    zytrule::Choices data(bytes, size);
    // In the current directory, which fuzz.sh makes temporary.
    [[maybe_unused]] static const bool isMade = std::filesystem::create_directory("fuzz.tmp");
    if (zytrule::ZYT_RULE(data, "fuzz.tmp")) return 0;
    std::fprintf(stderr, "BROKEN RULE\n");
    std::abort();
}
