// Addresses: the system's functions with null taken care of.
#include "osak.h"
#include "thread.h"

int OSAK_Inet_Pton(int family, const char* text, void* dest)
{
    osak::NoteWork();
    return text != nullptr && dest != nullptr ? inet_pton(family, text, dest) : 0;
}

unsigned int OSAK_InetAddr(const char* text)
{
    osak::NoteWork();
    return text != nullptr ? inet_addr(text) : INADDR_NONE;
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
