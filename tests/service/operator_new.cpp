// operator new and delete of the whole test program, so that its allocations are counted and can be
// made to fail. Not part of builds whose sanitizer has its own.
#include <new>

#include "memory.h"

static void* AllocateOrThrow(size_t ulSize)
{
    void* const pBlock = memory::Allocate(ulSize);
    if (pBlock == nullptr)
    {
        throw std::bad_alloc();
    }
    return pBlock;
}

void* operator new(size_t ulSize)
{
    return AllocateOrThrow(ulSize);
}

void* operator new[](size_t ulSize)
{
    return AllocateOrThrow(ulSize);
}

void* operator new(size_t ulSize, const std::nothrow_t&) noexcept
{
    return memory::Allocate(ulSize);
}

void* operator new[](size_t ulSize, const std::nothrow_t&) noexcept
{
    return memory::Allocate(ulSize);
}

void operator delete(void* pBlock) noexcept
{
    memory::Release(pBlock);
}

void operator delete[](void* pBlock) noexcept
{
    memory::Release(pBlock);
}

void operator delete(void* pBlock, size_t) noexcept
{
    memory::Release(pBlock);
}

void operator delete[](void* pBlock, size_t) noexcept
{
    memory::Release(pBlock);
}

void operator delete(void* pBlock, const std::nothrow_t&) noexcept
{
    memory::Release(pBlock);
}

void operator delete[](void* pBlock, const std::nothrow_t&) noexcept
{
    memory::Release(pBlock);
}
