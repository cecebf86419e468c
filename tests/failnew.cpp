// In the tests that need it only: with an operator of its own a program loses a sanitizer's check of new against
// delete.

#include <algorithm>
#include <cstdlib>
#include <new>

#include "support.h"

static void* New(size_t size) noexcept {
    return zyttest::Fails(zyttest::Call::kNew) ? nullptr : std::malloc(std::max<size_t>(size, 1));
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
