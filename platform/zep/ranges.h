// Memory ranges, compared as numbers: comparing pointers into different objects is undefined.
#ifndef ZEP_RANGES_H
#define ZEP_RANGES_H

#include <stddef.h>
#include <stdint.h>

namespace zep
{
// True when the two ranges share a byte. A length may be larger than any object: nothing is added
// to an address, so nothing wraps around.
inline bool RangesOverlap(const void* left, size_t leftSize, const void* right, size_t rightSize)
{
    const auto leftAddress = reinterpret_cast<uintptr_t>(left);
    const auto rightAddress = reinterpret_cast<uintptr_t>(right);
    if (leftAddress <= rightAddress)
    {
        return rightAddress - leftAddress < leftSize && rightSize != 0;
    }
    return leftAddress - rightAddress < rightSize && leftSize != 0;
}

}  // namespace zep

#endif
