#include "failing_new.h"

#include <stdlib.h>

#include <new>

thread_local int support::t_allocationsLeft = -1;

namespace
{

bool FailsNow()
{
    return support::t_allocationsLeft >= 0 && support::t_allocationsLeft-- == 0;
}

}  // namespace

// Not inlined: gcc would see free() on memory of operator new, and warn.
[[gnu::noinline]] void* operator new(std::size_t size)
{
    void* const block = FailsNow() ? nullptr : malloc(size);
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
