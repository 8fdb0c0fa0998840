#pragma once

#include <cstdlib>
#include <new>

/// Stands in for the allocation of objects, so that memory can run out. For one source of a
/// program. Not inline, as the compiler would see `free` where it expects `operator delete`.
namespace klarbox::test {

/// Asked at every allocation, on any thread, whether it is to fail; must not allocate.
inline bool (*isMemoryOut)() = nullptr;

/// How many allocations of this thread succeed still; all of them when negative.
inline thread_local int allocationsLeft = -1;

} // namespace klarbox::test

[[gnu::noinline]] void *operator new(std::size_t size) {
    using namespace klarbox::test;
    void *memory = allocationsLeft == 0 || (isMemoryOut != nullptr && isMemoryOut())
                       ? nullptr
                       : std::malloc(size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    allocationsLeft -= allocationsLeft > 0 ? 1 : 0;
    return memory;
}

[[gnu::noinline]] void operator delete(void *memory) noexcept {
    std::free(memory);
}

[[gnu::noinline]] void operator delete(void *memory, std::size_t) noexcept {
    std::free(memory);
}
