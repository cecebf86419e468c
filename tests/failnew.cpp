// In the tests that need it only: with an operator of its own a program loses a sanitizer's check of new against
// delete.

#include <algorithm>
#include <cstdlib>
#include <new>

#include "support.h"

static thread_local bool t_failsNew = false;

void zyttest::FailNew(bool fails) { t_failsNew = fails; }

// Not inlined: gcc would report a mismatch of new and free.
__attribute__((noinline)) void* operator new(size_t size) {
    void* block = t_failsNew ? nullptr : std::malloc(std::max<size_t>(size, 1));
    return block != nullptr ? block : throw std::bad_alloc();
}
__attribute__((noinline)) void operator delete(void* block) noexcept { std::free(block); }
__attribute__((noinline)) void operator delete(void* block, size_t) noexcept { std::free(block); }
