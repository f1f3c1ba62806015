#include "fake_layers.h"

#include <arpa/inet.h>
#include <netdb.h>

#include <mutex>

#include "osak.h"
#include "osak/timers.h"

namespace corpdir_tool
{

namespace
{

// Held during each call of the observer: as in the FTP layer, it is not replaced meanwhile.
std::mutex g_observing;

}  // namespace

FakeLayers& Layers()
{
    static FakeLayers layers;
    return layers;
}

void FakeLayers::Observe(unsigned int kind, unsigned int task, const std::string& server,
                         const char* file, unsigned int code, const char* reason,
                         unsigned int reply) const
{
    tagTRAVEX_FTP_S_OBSERVATION seen = {};
    seen.ulKind = kind;
    seen.ulTaskID = task;
    seen.pcServer = server.c_str();
    seen.pcServerFile = file;
    seen.ullBytes = 24;
    seen.ullTotal = 48;
    seen.ulRet = code;
    seen.pcReason = reason;
    seen.ulReply = reply;
    const std::lock_guard<std::mutex> lock(g_observing);
    if (observer != nullptr)
    {
        observer(user, &seen);
    }
}

}  // namespace corpdir_tool

using corpdir_tool::Layers;

void TRAVEX_FTP_SetObserver(TRAVEX_FTP_OBSERVER_CB observer, void* user)
{
    const std::lock_guard<std::mutex> lock(corpdir_tool::g_observing);
    Layers().observer = observer;
    Layers().user = user;
}

unsigned int TRAVEX_FTP_SetLimits(const tagTRAVEX_FTP_S_LIMITS* limits)
{
    Layers().limits = *limits;
    return Layers().limitsResult;
}

unsigned int TRAVEX_FTP_SetServerName(unsigned int ipType, const unsigned char* address,
                                      const char* name)
{
    if (address == nullptr)
    {
        Layers().names.clear();
        return 0;
    }
    char text[INET6_ADDRSTRLEN] = "";
    (void)inet_ntop(ipType == 1 ? AF_INET6 : AF_INET, address, text, sizeof text);
    Layers().names.push_back(std::string(text) + "=" + name);
    return Layers().nameResult;
}

TRAVEX_FTP_HANDLE TRAVEX_FTP_CreateHandle()
{
    return reinterpret_cast<TRAVEX_FTP_HANDLE>(&Layers());
}

unsigned int TRAVEX_FTP_CloseHandle(TRAVEX_FTP_HANDLE)
{
    return 0;
}

unsigned int TRAVEX_FTP_SetCtrlParam(TRAVEX_FTP_HANDLE, const tagTRAVEX_FTP_S_CTRL_PARAM* param)
{
    Layers().trust = param->pcFtpCtrlInfo;
    if (Layers().refuseWith != 0)
    {
        Layers().Observe(TRAVEX_FTP_OBSERVED_REFUSED, 0, "", "", Layers().refuseWith,
                         "no such file");
    }
    return Layers().refuseWith;
}

int OSAK_GetAddrInfo(const char* node, const char* service, const struct addrinfo* hints,
                     struct addrinfo** result)
{
    return getaddrinfo(node, service, hints, result);
}

void OSAK_FreeAddrInfo(struct addrinfo* result)
{
    freeaddrinfo(result);
}

void osak::ExpireTimers() noexcept
{
    ++Layers().expiries;
}
