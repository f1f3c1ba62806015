// Handles are numbers that are given once: a stale one is recognised and never dereferenced.
#ifndef OSAK_HANDLE_H
#define OSAK_HANDLE_H

#include <cstdint>
#include <cstring>
#include <type_traits>

namespace osak
{
// The number in the guise of the pointer type that the interface shows.
template <typename Pointer>
Pointer PointerOf(std::uintptr_t number)
{
    static_assert(std::is_pointer<Pointer>::value, "as wide as the number");
    Pointer pointer;
    std::memcpy(&pointer, &number, sizeof(number));
    return pointer;
}

template <typename Pointer>
std::uintptr_t NumberOf(Pointer pointer)
{
    return reinterpret_cast<std::uintptr_t>(pointer);
}

}  // namespace osak

#endif
