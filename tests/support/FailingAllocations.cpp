#include "support/FailingAllocations.h"

#include <cstdlib>
#include <new>
#include <utility>

namespace {

thread_local long t_until_failure = 0;

void* allocate(std::size_t size) noexcept {
    if (t_until_failure > 0 && --t_until_failure == 0) return nullptr;
    return std::malloc(size == 0 ? 1 : size);
}

}  // namespace

long fail_allocation(long nth) {
    return std::exchange(t_until_failure, nth);
}

// These stand before the standard library's own.
void* operator new(std::size_t size) {
    if (void* const memory = allocate(size)) return memory;
    throw std::bad_alloc();
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return allocate(size);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept {
    std::free(memory);
}
