// The C library's allocator with a counter before it. operator new comes here too; blocks are freed
// by the C library as ever, since they are its own.
#include "allocations.h"

namespace
{

thread_local bench::Allocations t_allocations;

void Count(std::size_t bytes)
{
    ++t_allocations.count;
    t_allocations.bytes += bytes;
}

}  // namespace

namespace bench
{

Allocations AllocationsSoFar()
{
    return t_allocations;
}

}  // namespace bench

extern "C"
{
    void* __libc_malloc(std::size_t size);
    void* __libc_calloc(std::size_t number, std::size_t size);
    void* __libc_realloc(void* block, std::size_t size);

    __attribute__((visibility("default"))) void* malloc(std::size_t size)
    {
        Count(size);
        return __libc_malloc(size);
    }

    __attribute__((visibility("default"))) void* calloc(std::size_t number, std::size_t size)
    {
        Count(number * size);
        return __libc_calloc(number, size);
    }

    __attribute__((visibility("default"))) void* realloc(void* block, std::size_t size)
    {
        Count(size);
        return __libc_realloc(block, size);
    }
}
