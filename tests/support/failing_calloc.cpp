#include "failing_calloc.h"

#include <atomic>
#include <cstddef>

namespace
{
std::atomic<unsigned int> g_callsUntilFailure{0};  // 0: none is to fail

bool Fails()
{
    unsigned int calls = g_callsUntilFailure;
    while (calls != 0 && !g_callsUntilFailure.compare_exchange_weak(calls, calls - 1))
    {
    }
    return calls == 1;
}

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier): the linker requires these names.
extern "C"
{
    void* __real_calloc(std::size_t count, std::size_t size);
    void* __wrap_calloc(std::size_t count, std::size_t size);

    void* __wrap_calloc(std::size_t count, std::size_t size)
    {
        return Fails() ? nullptr : __real_calloc(count, size);
    }
}
// NOLINTEND(bugprone-reserved-identifier)

namespace support
{
void FailCalloc(unsigned int nth)
{
    g_callsUntilFailure = nth;
}

}  // namespace support
