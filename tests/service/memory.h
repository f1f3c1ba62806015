// Allocations of the unit tests: operator new of the whole test program, and malloc and free as the
// service calls them. Allocations of a thread can be made to fail by count.
#ifndef TESTS_SERVICE_MEMORY_H
#define TESTS_SERVICE_MEMORY_H

#include <cstddef>

namespace memory
{

// Which allocations fail once the count is reached.
enum class Failing
{
    One,   // the Nth alone
    Rest,  // the Nth and all behind it
};

// Counts the calling thread's allocations from now on and fails the ulNth of them (from 1; 0:
// none).
void StartCounting(unsigned int ulNth, Failing eFailing);

// Ends the counting. True when an allocation was made to fail.
bool StopCounting();

// Counts one allocation of a layer like those of the service. True: it must fail.
bool CountAllocation();

// Counted blocks, those allocated while a count was on, that have not been released yet.
long LiveBlocks();

// Operator new and delete: a counted block, null when the allocation must fail.
void* Allocate(size_t ulSize) noexcept;
void Release(void* pBlock) noexcept;

// Allocations of a fake for its own records do not count.
class Paused
{
public:
    Paused();
    ~Paused();
    Paused(const Paused&) = delete;
    Paused& operator=(const Paused&) = delete;
};

}  // namespace memory

// The C runtime's own, below the wrappers that fakes.cpp defines.
extern "C" void* __real_malloc(size_t ulSize);
extern "C" void __real_free(void* pBlock);

#endif
