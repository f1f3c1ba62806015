// Strings: the C library's functions; null counts as the empty text.
#include "osak.h"

#include <climits>
#include <cstring>

unsigned int OSAK_StrLen(const char* text)
{
    const size_t length = text != nullptr ? std::strlen(text) : 0;
    // A wrapped length would look like a short text.
    return length < UINT_MAX ? static_cast<unsigned int>(length) : UINT_MAX;
}

int OSAK_StrCmp(const char* left, const char* right)
{
    return std::strcmp(left != nullptr ? left : "", right != nullptr ? right : "");
}
