// Tracked memory. The C library does the allocating; what is known of a block stands in tables
// beside it, so that a pointer can be judged without being followed: a live block is in one table,
// one released lately in the other, and anything else is none of ours.
#include "base/mutex.h"
#include "base/never_destroyed.h"
#include "osak.h"
#include "osak_diagnostics.h"
#include "osak_log.h"
#include "process.h"

#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

// A released block that is kept would look alive to the address sanitizer unless it is told; gcc
// and clang name the sanitizer in different ways.
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

// Text of a place for a record.
const char* FileOf(const Place& place)
{
    return place.file != nullptr ? place.file : "?";
}

// What is known of a block.
struct Block
{
    size_t size = 0;
    Place place;  // of the request; of the release once it is in the quarantine
};

// Released blocks that are not given back yet, so that a stale pointer meets no new owner: the last
// 1,024, and of those no more than 16 MiB, which a client that works in large pieces would
// otherwise turn into gigabytes. Not thread-safe: the memory's mutex covers it.
class Quarantine
{
public:
    static constexpr size_t kMostBlocks = 1024;
    static constexpr size_t kMostBytes = size_t{16} << 20;

    using Entry = std::pair<void*, Block>;

    // Takes a block in. Returns one that is to be given back instead, null for none. A full ring
    // thus loses one for each that comes, and never overflows; when the bytes want more to go, the
    // caller asks Surplus for them.
    Entry Keep(void* address, const Block& block)
    {
        m_bytes += block.size;
        m_ring[(m_first + m_count) % m_ring.size()] = {address, block};
        ++m_count;
        return Surplus();
    }

    // The oldest block when there are too many; null otherwise.
    Entry Surplus()
    {
        if (m_count <= kMostBlocks && m_bytes <= kMostBytes)
        {
            return {};
        }
        const Entry oldest = m_ring[m_first];
        m_first = (m_first + 1) % m_ring.size();
        --m_count;
        m_bytes -= oldest.second.size;
        return oldest;
    }

    // Where the block at this address was released; an unknown place when it is not here.
    Place ReleaseOf(const void* address) const
    {
        for (size_t i = 0; i < m_count; ++i)
        {
            const Entry& entry = m_ring[(m_first + i) % m_ring.size()];
            if (entry.first == address)
            {
                return entry.second.place;
            }
        }
        return Place{};
    }

private:
    // One place more than is kept, for the block that pushes another out. A fixed array: a release
    // must not need memory.
    std::array<Entry, kMostBlocks + 1> m_ring{};
    size_t m_first = 0;
    size_t m_count = 0;
    size_t m_bytes = 0;
};

// The key of a live block: its address with all bits turned over, so that the table does not hide
// forgotten blocks from a leak checker, which follows pointers.
std::uintptr_t KeyOf(const void* address)
{
    return ~reinterpret_cast<std::uintptr_t>(address);
}

// Thread-safe: everything is under the mutex.
struct Memory
{
    base::Mutex mutex;
    std::unordered_map<std::uintptr_t, Block> live CORPDIR_GUARDED_BY(mutex);
    Quarantine released CORPDIR_GUARDED_BY(mutex);
};

Memory& TheMemory()
{
    static base::NeverDestroyed<Memory> s_memory;
    return s_memory.Get();
}

// Enters a block among the live ones. False when there is no memory for the entry.
bool Enter(void* address, const Block& block)
{
    Memory& memory = TheMemory();
    try
    {
        const base::MutexLock lock(memory.mutex);
        memory.live.emplace(KeyOf(address), block);
        return true;
    }
    catch (const std::bad_alloc&)
    {
        return false;
    }
}

// Takes a block out of the live ones; from then on it is the caller's alone. When it is none,
// *releasedAt tells where it was released, if that is known.
bool TakeOut(void* address, Block* block, Place* releasedAt)
{
    Memory& memory = TheMemory();
    const base::MutexLock lock(memory.mutex);
    const auto found = memory.live.find(KeyOf(address));
    if (found == memory.live.end())
    {
        // Looked up under the same hold: no other thread releases the address in between.
        *releasedAt = memory.released.ReleaseOf(address);
        return false;
    }
    *block = found->second;
    memory.live.erase(found);
    return true;
}

// Hands a block back to the C library, which wants it addressable.
void GiveBack(const Quarantine::Entry& entry)
{
    ASAN_UNPOISON_MEMORY_REGION(entry.first, entry.second.size);
    std::free(entry.first);
}

// Puts a block into the quarantine, and gives back those that it pushes out. One that alone
// exceeds the quarantine does not push the others out.
void PutAway(void* address, const Block& block)
{
    if (block.size > Quarantine::kMostBytes)
    {
        GiveBack({address, block});
        return;
    }
    Memory& memory = TheMemory();
    Quarantine::Entry evicted;
    {
        const base::MutexLock lock(memory.mutex);
        evicted = memory.released.Keep(address, block);
    }
    // One at a time, each outside the mutex: the room for a large block may be that of many small.
    while (evicted.first != nullptr)
    {
        GiveBack(evicted);
        const base::MutexLock lock(memory.mutex);
        evicted = memory.released.Surplus();
    }
}

// Both records name the place of the free that was refused; the first also the one that was not.
void LogNotLive(const void* address, const Place& place, const Place& releasedAt)
{
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

// A zeroed, tracked block or null. Sizes that no object can have are refused here: some allocators
// end the process over them.
void* Allocate(size_t size, const Place& place)
{
    if (size == 0 || size > PTRDIFF_MAX || IsForkedChild())
    {
        return nullptr;
    }
    WatchProcess();
    void* const address = std::calloc(1, size);
    if (address != nullptr && !Enter(address, Block{size, place}))
    {
        std::free(address);
        return nullptr;
    }
    return address;
}

// The address is not followed unless it proves to be that of a live block.
void Release(void* address, const Place& place)
{
    if (address == nullptr || IsForkedChild())
    {
        return;
    }
    Block block;
    Place releasedAt;
    if (!TakeOut(address, &block, &releasedAt))
    {
        LogNotLive(address, place, releasedAt);
        return;
    }
    // No secret outlives its block, and the sanitizer sees a use of it as it would after free().
    std::memset(address, 0, block.size);
    ASAN_POISON_MEMORY_REGION(address, block.size);
    PutAway(address, Block{block.size, place});
}

// Live blocks by place, summed up by the text of the file, not by its address: one header's text
// has an address in each unit.
using UseByPlace = std::map<std::pair<std::string, unsigned int>, std::pair<Place, OSAK_MEM_USE>>;

// Grouped after a copy was taken, so that requests wait for the copy only.
UseByPlace SumUp(OSAK_MEM_USE* total)
{
    std::vector<Block> blocks;
    {
        Memory& memory = TheMemory();
        const base::MutexLock lock(memory.mutex);
        for (const auto& entry : memory.live)
        {
            blocks.push_back(entry.second);
        }
    }
    UseByPlace places;
    for (const Block& block : blocks)
    {
        auto& use = places[{FileOf(block.place), block.place.line}];
        use.first = block.place;
        for (OSAK_MEM_USE* sum : {total, &use.second})
        {
            ++sum->ulBlocks;
            sum->ulBytes += block.size;
        }
    }
    return places;
}

// One line of the report that goes to the log.
void LogPlace(const char* file, unsigned int line, const OSAK_MEM_USE* use, void* /*user*/)
{
    OSAK_LOG(CORPDIR_LOG_NOTICE, "Live: %zu blocks, %zu bytes from %s:%u", use->ulBlocks,
             use->ulBytes, FileOf(Place{file, line}), line);
}

}  // namespace
}  // namespace osak

void* OSAK_MemMallocD(size_t size, unsigned int line, const char* file)
{
    return osak::Allocate(size, osak::Place{file, line});
}

void* OSAK_MemMallocS(size_t size, unsigned int /*zero*/, unsigned int line, const char* file)
{
    return osak::Allocate(size, osak::Place{file, line});
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

unsigned int OSAK_MemReport(OSAK_MEM_USE* total, OSAK_MEM_PLACE_PROC each, void* user)
{
    if (osak::IsForkedChild())
    {
        return OSAK_ERR_SYSTEM;
    }
    // Summed up before anything is reported, so that a failure reports nothing.
    try
    {
        OSAK_MEM_USE sum{};
        const osak::UseByPlace places = osak::SumUp(&sum);
        if (total != nullptr)
        {
            *total = sum;
        }
        for (const auto& entry : places)
        {
            if (each != nullptr)
            {
                each(entry.second.first.file, entry.second.first.line, &entry.second.second, user);
            }
        }
        return OSAK_OK;
    }
    catch (const std::bad_alloc&)
    {
        return OSAK_ERR_SYSTEM;
    }
}

void OSAK_MemLogReport()
{
    OSAK_MEM_USE total{};
    if (OSAK_MemReport(&total, nullptr, nullptr) != OSAK_OK || total.ulBlocks == 0)
    {
        return;
    }
    OSAK_LOG(CORPDIR_LOG_NOTICE, "Live: %zu blocks, %zu bytes", total.ulBlocks, total.ulBytes);
    (void)OSAK_MemReport(nullptr, osak::LogPlace, nullptr);  // out of memory: the sum must do
}
