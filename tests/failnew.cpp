// In the tests that need it only: with an operator of its own a program loses a sanitizer's check of new against
// delete.

#include <algorithm>
#include <cstdlib>
#include <new>
#include <utility>

#include "support.h"

static thread_local uint64_t t_newsUntilFailure = 0;  // 0: none fails

bool zyttest::FailNthNew(uint64_t n) { return std::exchange(t_newsUntilFailure, n) == 0; }

static void* New(size_t size) noexcept {
    const bool fails = t_newsUntilFailure > 0 && --t_newsUntilFailure == 0;
    return fails ? nullptr : std::malloc(std::max<size_t>(size, 1));
}

// Not inlined: gcc would report a mismatch of new and free.
__attribute__((noinline)) void* operator new(size_t size) {
    void* block = New(size);
    return block != nullptr ? block : throw std::bad_alloc();
}
__attribute__((noinline)) void* operator new(size_t size, const std::nothrow_t&) noexcept { return New(size); }
__attribute__((noinline)) void operator delete(void* block) noexcept { std::free(block); }
__attribute__((noinline)) void operator delete(void* block, size_t) noexcept { std::free(block); }
__attribute__((noinline)) void operator delete(void* block, const std::nothrow_t&) noexcept { std::free(block); }
