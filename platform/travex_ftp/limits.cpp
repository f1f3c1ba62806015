#include "limits.h"

#include <algorithm>
#include <cstdlib>

#include "common/guard.h"

namespace travex_ftp
{
namespace
{
// No time is longer: twice this many milliseconds fit into 32 bits.
constexpr uint64_t kLongest = 1000ull * 3600 * 24 * 20;

milliseconds Bounded(uint64_t number)
{
    return milliseconds(std::min(number, kLongest));
}

// The value of a variable, else `otherwise`. secure_getenv: a set-user-id program does not let its
// caller loosen a limit.
uint64_t FromEnvironment(const char* name, uint64_t otherwise)
{
    const char* const text = secure_getenv(name);
    if (text == nullptr || *text < '0' || *text > '9')
    {
        return otherwise;
    }
    char* end = nullptr;
    const unsigned long long number = std::strtoull(text, &end, 10);
    return *end == '\0' && number > 0 && number <= 1ull << 62 ? number : otherwise;
}

void Read(const char* name, milliseconds& value)
{
    value = Bounded(FromEnvironment(name, static_cast<uint64_t>(value.count())));
}

void Read(const char* name, uint64_t& value)
{
    value = FromEnvironment(name, value);
}

Limits OfEnvironment()
{
    Limits limits;
    Read("CORPDIR_FTP_CONNECT_MS", limits.connect);
    Read("CORPDIR_FTP_HANDSHAKE_MS", limits.handshake);
    Read("CORPDIR_FTP_RESPONSE_MS", limits.response);
    Read("CORPDIR_FTP_STALL_MS", limits.stall);
    Read("CORPDIR_FTP_STALL_BYTES", limits.stallBytes);
    Read("CORPDIR_FTP_CONFIRM_MS", limits.confirm);
    Read("CORPDIR_FTP_TRANSFER_MS", limits.transfer);
    Read("CORPDIR_FTP_IDLE_MS", limits.idle);
    Read("CORPDIR_FTP_OBSERVE_MS", limits.observe);
    Read("CORPDIR_FTP_FILE_BYTES", limits.fileBytes);
    Read("CORPDIR_FTP_REPLY_BYTES", limits.replyBytes);
    Read("CORPDIR_FTP_REPLY_LINES", limits.replyLines);
    return limits;
}

// Never destroyed: transfers may begin until the process is gone.
struct Setting
{
    tagTRAVEX_FTP_S_LIMITS Get() CORPDIR_EXCLUDES(guard)
    {
        const common::Hold hold(guard);
        return set;
    }

    common::Guard guard;
    tagTRAVEX_FTP_S_LIMITS set CORPDIR_GUARDED_BY(guard){};
};

Setting& TheSetting()
{
    static Setting* const setting = new Setting;
    return *setting;
}

void Take(unsigned int set, milliseconds& value)
{
    value = set != 0 ? Bounded(set) : value;
}

void Take(uint64_t set, uint64_t& value)
{
    value = set != 0 ? set : value;
}

}  // namespace

Limits Limits::Current()
{
    static const Limits environment = OfEnvironment();
    Limits limits = environment;
    const tagTRAVEX_FTP_S_LIMITS set = TheSetting().Get();
    Take(set.ulConnectMs, limits.connect);
    Take(set.ulHandshakeMs, limits.handshake);
    Take(set.ulResponseMs, limits.response);
    Take(set.ulStallMs, limits.stall);
    Take(set.ullStallBytes, limits.stallBytes);
    Take(set.ulConfirmMs, limits.confirm);
    Take(set.ulTransferMs, limits.transfer);
    Take(set.ulIdleMs, limits.idle);
    Take(set.ulObserveMs, limits.observe);
    Take(set.ullFileBytes, limits.fileBytes);
    Take(set.ullReplyBytes, limits.replyBytes);
    Take(set.ullReplyLines, limits.replyLines);
    return limits;
}

void SetLimits(const tagTRAVEX_FTP_S_LIMITS* limits)
{
    Setting& setting = TheSetting();
    const common::Hold hold(setting.guard);
    setting.set = limits != nullptr ? *limits : tagTRAVEX_FTP_S_LIMITS{};
}

}  // namespace travex_ftp
