#include "memory.h"

#include <atomic>

namespace
{

struct Counting
{
    bool bOn = false;
    unsigned int ulPaused = 0;
    unsigned int ulSeen = 0;
    unsigned int ulNth = 0;
    memory::Failing eFailing = memory::Failing::One;
    bool bFailed = false;
};

// A count belongs to one thread, so that threads beside the one under test are left alone.
thread_local Counting t_stCounting;

std::atomic<long> g_lLive{0};

// Precedes each block and records whether it was counted; as wide as the strictest alignment.
struct alignas(alignof(std::max_align_t)) Header
{
    bool bCounted;
};

bool Counts()
{
    return t_stCounting.bOn && t_stCounting.ulPaused == 0;
}

}  // namespace

namespace memory
{

void StartCounting(unsigned int ulNth, Failing eFailing)
{
    t_stCounting = Counting{};
    t_stCounting.ulNth = ulNth;
    t_stCounting.eFailing = eFailing;
    t_stCounting.bOn = true;
}

bool StopCounting()
{
    t_stCounting.bOn = false;
    return t_stCounting.bFailed;
}

bool CountAllocation()
{
    if (!Counts())
    {
        return false;
    }
    ++t_stCounting.ulSeen;
    const bool bFails =
        t_stCounting.ulNth != 0 &&
        (t_stCounting.eFailing == Failing::One ? t_stCounting.ulSeen == t_stCounting.ulNth
                                               : t_stCounting.ulSeen >= t_stCounting.ulNth);
    t_stCounting.bFailed = t_stCounting.bFailed || bFails;
    return bFails;
}

long LiveBlocks()
{
    return g_lLive;
}

Paused::Paused()
{
    ++t_stCounting.ulPaused;
}

Paused::~Paused()
{
    --t_stCounting.ulPaused;
}

void* Allocate(size_t ulSize) noexcept
{
    if (CountAllocation())
    {
        return nullptr;
    }
    auto* const pHeader = static_cast<Header*>(__real_malloc(sizeof(Header) + ulSize));
    if (pHeader == nullptr)
    {
        return nullptr;
    }
    pHeader->bCounted = Counts();
    g_lLive += pHeader->bCounted ? 1 : 0;
    return pHeader + 1;
}

void Release(void* pBlock) noexcept
{
    if (pBlock != nullptr)
    {
        auto* const pHeader = static_cast<Header*>(pBlock) - 1;
        g_lLive -= pHeader->bCounted ? 1 : 0;
        __real_free(pHeader);
    }
}

}  // namespace memory
