// Tracked memory. The C library allocates; what is known of a block is in tables apart from it, so
// that a pointer can be judged without being followed: a live block is in one table, a block
// released lately in the other, and the layer did not hand out anything else.
#include "base/mutex.h"
#include "base/never_destroyed.h"
#include "live_memory.h"
#include "osak.h"
#include "osak_log.h"
#include "process.h"

#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <unordered_map>

// A released block that is kept would look alive to the address sanitizer; gcc and clang name the
// sanitizer in different ways.
#if defined(__SANITIZE_ADDRESS__)
#define OSAK_HAS_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define OSAK_HAS_ASAN 1
#endif
#endif
#if defined(OSAK_HAS_ASAN)
#include <sanitizer/asan_interface.h>
#else
#define ASAN_POISON_MEMORY_REGION(address, size) ((void)(address), (void)(size))
#define ASAN_UNPOISON_MEMORY_REGION(address, size) ((void)(address), (void)(size))
#endif

namespace osak
{
namespace
{
// A place in the source. The text of the file is the caller's and lasts.
struct Place
{
    const char* file = nullptr;
    unsigned int line = 0;
};

const char* FileOf(const Place& place)
{
    return place.file != nullptr ? place.file : "?";
}

struct Block
{
    void* address = nullptr;
    size_t size = 0;
    Place releasedAt;
};

// Returns a block to the C library, which needs it addressable.
void GiveBack(const Block& block)
{
    ASAN_UNPOISON_MEMORY_REGION(block.address, block.size);
    std::free(block.address);
}

// Released blocks that are not given back yet, so that a stale pointer meets no new owner: the last
// 1,024, and at most 16 MiB of them, since a client that works in large pieces would otherwise keep
// gigabytes. A fixed array, since a release must not need memory. Not thread-safe.
class Quarantine
{
public:
    // A block that alone exceeds the quarantine does not push the others out.
    void Keep(const Block& block)
    {
        if (block.size > kMostBytes)
        {
            GiveBack(block);
            return;
        }
        while (m_count == m_ring.size() || m_bytes + block.size > kMostBytes)
        {
            GiveBackOldest();
        }
        m_ring[(m_first + m_count) % m_ring.size()] = block;
        ++m_count;
        m_bytes += block.size;
    }

    // Null: the block at this address is not here.
    const Block* Find(const void* address) const
    {
        for (size_t i = 0; i < m_count; ++i)
        {
            const Block& block = m_ring[(m_first + i) % m_ring.size()];
            if (block.address == address)
            {
                return &block;
            }
        }
        return nullptr;
    }

private:
    static constexpr size_t kMostBytes = size_t{16} << 20;

    void GiveBackOldest()
    {
        const Block& oldest = m_ring[m_first];
        m_bytes -= oldest.size;
        GiveBack(oldest);
        m_first = (m_first + 1) % m_ring.size();
        --m_count;
    }

    std::array<Block, 1024> m_ring{};
    size_t m_first = 0;
    size_t m_count = 0;
    size_t m_bytes = 0;
};

// The key of a live block: its address with all bits inverted, so that the table does not hide
// leaks from a leak checker, which follows pointers.
std::uintptr_t KeyOf(const void* address)
{
    return ~reinterpret_cast<std::uintptr_t>(address);
}

// Thread-safe: everything is under the mutex.
struct Memory
{
    base::Mutex mutex;
    std::unordered_map<std::uintptr_t, size_t> sizes CORPDIR_GUARDED_BY(mutex);  // of live blocks
    Quarantine released CORPDIR_GUARDED_BY(mutex);
};

Memory& TheMemory()
{
    static base::NeverDestroyed<Memory> s_memory;
    return s_memory.Get();
}

// False when there is no memory for the entry.
bool AddLive(const void* address, size_t size)
{
    Memory& memory = TheMemory();
    try
    {
        const base::MutexLock lock(memory.mutex);
        memory.sizes.emplace(KeyOf(address), size);
        return true;
    }
    catch (const std::bad_alloc&)
    {
        return false;
    }
}

// A zeroed, tracked block or null. Sizes that no object can have are refused here: some allocators
// end the process over them.
void* Allocate(size_t size)
{
    if (size == 0 || size > PTRDIFF_MAX || IsForkedChild())
    {
        return nullptr;
    }
    WatchProcess();
    void* const address = std::calloc(1, size);
    if (address != nullptr && !AddLive(address, size))
    {
        std::free(address);
        return nullptr;
    }
    return address;
}

// Clears a live block and puts it into the quarantine. False when the address is not a live block;
// *releasedAt is then where it was released, if that is known. The address is not followed unless
// it proves to be a live block.
bool Retire(void* address, const Place& place, Place* releasedAt)
{
    Memory& memory = TheMemory();
    const base::MutexLock lock(memory.mutex);
    const auto found = memory.sizes.find(KeyOf(address));
    if (found == memory.sizes.end())
    {
        const Block* const released = memory.released.Find(address);
        *releasedAt = released != nullptr ? released->releasedAt : Place{};
        return false;
    }
    const Block block{address, found->second, place};
    memory.sizes.erase(found);
    // No secret outlives its block, and the sanitizer reports a use of it as after free().
    std::memset(address, 0, block.size);
    ASAN_POISON_MEMORY_REGION(address, block.size);
    memory.released.Keep(block);
    return true;
}

void Release(void* address, const Place& place)
{
    Place releasedAt;
    if (address == nullptr || IsForkedChild() || Retire(address, place, &releasedAt))
    {
        return;
    }
    if (releasedAt.file != nullptr || releasedAt.line != 0)
    {
        OSAK_LOG(CORPDIR_LOG_ERROR, "Free of %p at %s:%u: it was released at %s:%u", address,
                 FileOf(place), place.line, FileOf(releasedAt), releasedAt.line);
    }
    else
    {
        OSAK_LOG(CORPDIR_LOG_ERROR, "Free of %p at %s:%u: it is not a live block", address,
                 FileOf(place), place.line);
    }
}

}  // namespace

LiveMemory CountLiveMemory()
{
    Memory& memory = TheMemory();
    const base::MutexLock lock(memory.mutex);
    LiveMemory live{memory.sizes.size(), 0};
    for (const auto& entry : memory.sizes)
    {
        live.bytes += entry.second;
    }
    return live;
}

}  // namespace osak

void* OSAK_MemMallocD(size_t size, unsigned int /*line*/, const char* /*file*/)
{
    return osak::Allocate(size);
}

void* OSAK_MemMallocS(size_t size, unsigned int /*zero*/, unsigned int /*line*/,
                      const char* /*file*/)
{
    return osak::Allocate(size);
}

void OSAK_MemFreeD(void* block, unsigned int line, const char* file)
{
    osak::Release(block, osak::Place{file, line});
}

void OSAK_MemFreeSetNullD(void** block, unsigned int line, const char* file)
{
    if (block != nullptr)
    {
        osak::Release(*block, osak::Place{file, line});
        *block = nullptr;
    }
}
