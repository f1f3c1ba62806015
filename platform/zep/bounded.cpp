// Bounded memory and string helpers.
#include "ranges.h"
#include "zep.h"

#include <stdint.h>
#include <string.h>

namespace
{
// No object is larger. A larger count is a negative number that was converted.
constexpr size_t kLargestCount = PTRDIFF_MAX;

int RefuseText(char* dest, size_t destMax, int code)
{
    if (dest != nullptr && destMax != 0)
    {
        dest[0] = '\0';
    }
    return code;
}

}  // namespace

int zep_memcpy_s(void* dest, size_t destMax, const void* src, size_t count)
{
    if (dest == nullptr || src == nullptr)
    {
        return ZEP_ERR_PARAM;
    }
    if (count > destMax || count > kLargestCount)
    {
        return ZEP_ERR_CAPACITY;
    }
    if (zep::RangesOverlap(dest, count, src, count))
    {
        return ZEP_ERR_OVERLAP;
    }
    memcpy(dest, src, count);
    return ZEP_OK;
}

int zep_memset_s(void* dest, size_t destMax, int c, size_t count)
{
    if (dest == nullptr)
    {
        return ZEP_ERR_PARAM;
    }
    if (count > destMax || count > kLargestCount)
    {
        return ZEP_ERR_CAPACITY;
    }
    memset(dest, c, count);
    // The compiler must assume that this reads the bytes, so that it cannot drop the memset of an
    // object about to die, even when link-time optimisation has inlined this function.
    __asm__ volatile("" : : "r"(dest) : "memory");
    return ZEP_OK;
}

int zep_strncpy_s(char* dest, size_t destMax, const char* src, size_t count)
{
    if (dest == nullptr || src == nullptr)
    {
        return RefuseText(dest, destMax, ZEP_ERR_PARAM);
    }
    if (count > kLargestCount)
    {
        return RefuseText(dest, destMax, ZEP_ERR_CAPACITY);
    }
    // A text that fits ends within destMax bytes, so no more of it is ever read.
    const size_t length = strnlen(src, count < destMax ? count : destMax);
    if (length >= destMax)
    {
        return RefuseText(dest, destMax, ZEP_ERR_CAPACITY);
    }
    if (zep::RangesOverlap(dest, length + 1, src, length))
    {
        return RefuseText(dest, destMax, ZEP_ERR_OVERLAP);
    }
    memcpy(dest, src, length);
    dest[length] = '\0';
    return ZEP_OK;
}
