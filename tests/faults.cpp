#include "faults.h"

#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <cerrno>
#include <cstdio>

namespace {

std::atomic<uint64_t> g_callsLeft[4];

bool Fails(zyttest::LibcCall call) {
    std::atomic<uint64_t>& left = g_callsLeft[static_cast<int>(call)];
    uint64_t count = left;
    while (count != 0 && !left.compare_exchange_weak(count, count - 1)) {
    }
    return count == 1;
}

}  // namespace

void zyttest::FailNth(LibcCall call, uint64_t n) { g_callsLeft[static_cast<int>(call)] = n; }

bool zyttest::FaultPending(LibcCall call) { return g_callsLeft[static_cast<int>(call)] != 0; }

// The names that the linker's --wrap looks for.
extern "C" {

void* __real_malloc(size_t size);
FILE* __real_fopen(const char* path, const char* mode);
void* __real_mmap(void* hint, size_t size, int protection, int flags, int fd, off_t offset);
int __real_pthread_create(pthread_t* id, const pthread_attr_t* attributes, void* (*body)(void*), void* argument);

void* __wrap_malloc(size_t size) { return Fails(zyttest::LibcCall::kMalloc) ? nullptr : __real_malloc(size); }

FILE* __wrap_fopen(const char* path, const char* mode) {
    return Fails(zyttest::LibcCall::kFopen) ? nullptr : __real_fopen(path, mode);
}

void* __wrap_mmap(void* hint, size_t size, int protection, int flags, int fd, off_t offset) {
    if (Fails(zyttest::LibcCall::kMmap)) return nullptr;
    return __real_mmap(hint, size, protection, flags, fd, offset);
}

int __wrap_pthread_create(pthread_t* id, const pthread_attr_t* attributes, void* (*body)(void*), void* argument) {
    if (Fails(zyttest::LibcCall::kPthreadCreate)) return EAGAIN;
    return __real_pthread_create(id, attributes, body, argument);
}

}  // extern "C"
