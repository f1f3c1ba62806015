// Addresses: the system's functions, with null accepted.
#include "base/resolved_names.h"
#include "osak.h"

#include <cstring>

namespace
{
void NoteAddresses(const char* node, const struct addrinfo* entry)
{
    for (; node != nullptr && entry != nullptr; entry = entry->ai_next)
    {
        if (entry->ai_family == AF_INET)
        {
            sockaddr_in v4;
            memcpy(&v4, entry->ai_addr, sizeof v4);
            base::ResolvedNames::OfThisThread().Note(AF_INET, &v4.sin_addr, node);
        }
        if (entry->ai_family == AF_INET6)
        {
            sockaddr_in6 v6;
            memcpy(&v6, entry->ai_addr, sizeof v6);
            base::ResolvedNames::OfThisThread().Note(AF_INET6, &v6.sin6_addr, node);
        }
    }
}

}  // namespace

int OSAK_Inet_Pton(int family, const char* text, void* dest)
{
    const int converted = text != nullptr && dest != nullptr ? inet_pton(family, text, dest) : 0;
    if (converted == 1)
    {
        base::ResolvedNames::OfThisThread().Note(family, dest, text);
    }
    return converted;
}

unsigned int OSAK_InetAddr(const char* text)
{
    const unsigned int address = text != nullptr ? inet_addr(text) : INADDR_NONE;
    if (address != INADDR_NONE)
    {
        base::ResolvedNames::OfThisThread().Note(AF_INET, &address, text);
    }
    return address;
}

int OSAK_GetAddrInfo(const char* node, const char* service, const struct addrinfo* hints,
                     struct addrinfo** result)
{
    if (result == nullptr)
    {
        return EAI_FAIL;
    }
    *result = nullptr;
    const int error = getaddrinfo(node, service, hints, result);
    if (error != 0)
    {
        *result = nullptr;  // the standard leaves it undefined
        return error;
    }
    NoteAddresses(node, *result);
    // Callers read the first entry without asking.
    return *result != nullptr ? 0 : EAI_NONAME;
}

void OSAK_FreeAddrInfo(struct addrinfo* result)
{
    if (result != nullptr)
    {
        freeaddrinfo(result);
    }
}
