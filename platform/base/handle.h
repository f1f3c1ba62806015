// Handles: numbers in the interfaces' pointer types.
#ifndef CORPDIR_BASE_HANDLE_H
#define CORPDIR_BASE_HANDLE_H

#include <atomic>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace base
{
template <typename Pointer>
Pointer PointerOf(std::uintptr_t number)
{
    static_assert(std::is_pointer_v<Pointer>);
    Pointer pointer;
    std::memcpy(&pointer, &number, sizeof number);
    return pointer;
}

// A handle that was never given before in this process, so that a stale one is recognised without
// being dereferenced. Odd, so that none is mistaken for the address of something. Thread-safe.
template <typename Pointer>
Pointer NewHandle()
{
    static std::atomic<std::uintptr_t> s_last{1};
    return PointerOf<Pointer>(s_last += 2);
}

}  // namespace base

#endif
