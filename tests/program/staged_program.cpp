// Replaces functions of the OS layer in the program under test. A timer of ten minutes takes 0.6 s.
// CORPDIR_TEST_HOSTS defines names: "one.test=127.0.0.1,::1 two.test=hang"; the lookup of a name
// with "hang" never ends.
#include <unistd.h>

#include <cstdlib>
#include <sstream>
#include <string>

#include "osak.h"

namespace
{

// The addresses of a name, separated by ","; empty when the variable has none.
std::string StagedAddresses(const std::string& name)
{
    const char* const hosts = std::getenv("CORPDIR_TEST_HOSTS");
    std::istringstream entries(hosts == nullptr ? "" : hosts);
    for (std::string entry; entries >> entry;)
    {
        if (entry.rfind(name + "=", 0) == 0)
        {
            return entry.substr(name.size() + 1);
        }
    }
    return "";
}

[[noreturn]] void Hang()
{
    for (;;)
    {
        (void)pause();
    }
}

}  // namespace

extern "C"
{
    unsigned int __real_OSAK_StartRelTimer(OSAK_TIMER timer, unsigned int ms, void* param);
    unsigned int __wrap_OSAK_StartRelTimer(OSAK_TIMER timer, unsigned int ms, void* param);
    int __real_OSAK_GetAddrInfo(const char* node, const char* service, const addrinfo* hints,
                                addrinfo** result);
    int __wrap_OSAK_GetAddrInfo(const char* node, const char* service, const addrinfo* hints,
                                addrinfo** result);

    unsigned int __wrap_OSAK_StartRelTimer(OSAK_TIMER timer, unsigned int ms, void* param)
    {
        return __real_OSAK_StartRelTimer(timer, ms / 1000, param);
    }

    // The entries of the system's lists are separate blocks, which can be linked.
    int __wrap_OSAK_GetAddrInfo(const char* node, const char* service, const addrinfo* hints,
                                addrinfo** result)
    {
        std::istringstream addresses(StagedAddresses(node));
        addrinfo** end = result;
        for (std::string address; std::getline(addresses, address, ',');)
        {
            if (address == "hang")
            {
                Hang();
            }
            const int error = __real_OSAK_GetAddrInfo(address.c_str(), service, hints, end);
            while (error == 0 && *end != nullptr)
            {
                end = &(*end)->ai_next;
            }
        }
        return end != result ? 0 : __real_OSAK_GetAddrInfo(node, service, hints, result);
    }
}
