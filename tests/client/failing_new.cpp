#include "failing_new.h"

#include <stdlib.h>

#include <new>

thread_local bool failing_new::t_fails = false;

// Not inlined: gcc would see free() on memory of operator new, and warn.
[[gnu::noinline]] void* operator new(std::size_t size)
{
    void* const block = failing_new::t_fails ? nullptr : malloc(size);
    if (block == nullptr)
    {
        throw std::bad_alloc();
    }
    return block;
}

[[gnu::noinline]] void operator delete(void* block) noexcept
{
    free(block);
}

[[gnu::noinline]] void operator delete(void* block, std::size_t) noexcept
{
    free(block);
}
