// Replaces the global allocation functions of any test program that asks for
// allocationCount(), so that a test can prove a call allocates nothing.
#include <cstdlib>
#include <new>

#include "support/TestSupport.h"

namespace {
thread_local std::size_t tAllocations = 0;

void* countedAllocate(std::size_t size) {
    ++tAllocations;
    if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
    throw std::bad_alloc();
}
}  // namespace

void* operator new(std::size_t size) { return countedAllocate(size); }
void* operator new[](std::size_t size) { return countedAllocate(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    ++tAllocations;
    return std::malloc(size == 0 ? 1 : size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    ++tAllocations;
    return std::malloc(size == 0 ? 1 : size);
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }

namespace qrl::test {
std::size_t allocationCount() { return tAllocations; }
bool allocationCountingAvailable() { return true; }
}  // namespace qrl::test
