#ifndef ZYT_FUZZ_FUZZSUPPORT_H
#define ZYT_FUZZ_FUZZSUPPORT_H

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

/// What the fuzz targets share. Each compares the library with a slow reference of its own. What the library answers by
/// ending the process is sorted out before the call, so that whatever ends a target is a finding.

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

constexpr uint64_t kMax32 = UINT32_MAX;

/// A name below fuzz.tmp in the current directory; fuzz.sh makes that a passing one.
inline std::string Scratch(const char* name) {
    std::filesystem::create_directory("fuzz.tmp");
    return std::string("fuzz.tmp/") + name;
}

/// Bytes as far as a C function sees them.
inline std::string UpToNul(const std::string& bytes) { return bytes.c_str(); }

/// A heap block of exactly that many bytes: the address sanitizer sees every access beyond it.
class Memory {
public:
    Memory(size_t size, size_t seed) : m_size(size), m_bytes(new unsigned char[size]) {
        for (size_t i = 0; i < size; ++i) m_bytes[i] = static_cast<unsigned char>(seed + i * 7 + i / 251);
    }
    unsigned char* Data() const { return m_bytes.get(); }
    bool operator==(const Memory& other) const { return std::memcmp(Data(), other.Data(), m_size) == 0; }

private:
    size_t m_size;
    std::unique_ptr<unsigned char[]> m_bytes;
};

#endif  // ZYT_FUZZ_FUZZSUPPORT_H
