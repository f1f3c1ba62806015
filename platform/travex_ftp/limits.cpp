#include "limits.h"

#include <algorithm>
#include <cstdlib>

#include "base/mutex.h"

namespace travex_ftp
{
namespace
{
// 20 days: even doubled it fits into 32 bits of milliseconds.
constexpr uint64_t kLongest = 1000ull * 3600 * 24 * 20;

// The value of a variable; 0: not set, or not a positive number. secure_getenv: the caller of a
// set-user-id program cannot change its limits.
uint64_t FromEnvironment(const char* name)
{
    const char* const text = secure_getenv(name);
    if (text == nullptr || *text < '0' || *text > '9')
    {
        return 0;
    }
    char* end = nullptr;
    const unsigned long long number = std::strtoull(text, &end, 10);
    return *end == '\0' && number <= 1ull << 62 ? number : 0;
}

using Set = tagTRAVEX_FTP_S_LIMITS;

// A limit: its environment variable, its member of Limits, its member of the program's record.
template <class Value, class Number>
struct Entry
{
    const char* variable;
    Value Limits::*limit;
    Number Set::*set;
};

constexpr Entry<milliseconds, unsigned int> kTimes[] = {
    {"CORPDIR_FTP_CONNECT_MS", &Limits::connect, &Set::ulConnectMs},
    {"CORPDIR_FTP_HANDSHAKE_MS", &Limits::handshake, &Set::ulHandshakeMs},
    {"CORPDIR_FTP_RESPONSE_MS", &Limits::response, &Set::ulResponseMs},
    {"CORPDIR_FTP_STALL_MS", &Limits::stall, &Set::ulStallMs},
    {"CORPDIR_FTP_CONFIRM_MS", &Limits::confirm, &Set::ulConfirmMs},
    {"CORPDIR_FTP_TRANSFER_MS", &Limits::transfer, &Set::ulTransferMs},
    {"CORPDIR_FTP_IDLE_MS", &Limits::idle, &Set::ulIdleMs},
    {"CORPDIR_FTP_OBSERVE_MS", &Limits::observe, &Set::ulObserveMs},
};

constexpr Entry<uint64_t, uint64_t> kCounts[] = {
    {"CORPDIR_FTP_STALL_BYTES", &Limits::stallBytes, &Set::ullStallBytes},
    {"CORPDIR_FTP_FILE_BYTES", &Limits::fileBytes, &Set::ullFileBytes},
    {"CORPDIR_FTP_REPLY_BYTES", &Limits::replyBytes, &Set::ullReplyBytes},
    {"CORPDIR_FTP_REPLY_LINES", &Limits::replyLines, &Set::ullReplyLines},
};

// Sets each limit to what `choose` returns for its entry; 0: the limit stays.
template <class Choose>
void Apply(Limits& limits, const Choose& choose)
{
    for (const auto& entry : kTimes)
    {
        const uint64_t number = choose(entry);
        const milliseconds limit(std::min(number, kLongest));
        limits.*entry.limit = number != 0 ? limit : limits.*entry.limit;
    }
    for (const auto& entry : kCounts)
    {
        const uint64_t number = choose(entry);
        limits.*entry.limit = number != 0 ? number : limits.*entry.limit;
    }
}

Limits EnvironmentLimits()
{
    Limits limits;
    Apply(limits, [](const auto& entry) { return FromEnvironment(entry.variable); });
    return limits;
}

// Never destroyed: transfers may begin until the process has ended.
struct Setting
{
    tagTRAVEX_FTP_S_LIMITS Get() CORPDIR_EXCLUDES(mutex)
    {
        const base::MutexLock lock(mutex);
        return set;
    }

    base::Mutex mutex;
    tagTRAVEX_FTP_S_LIMITS set CORPDIR_GUARDED_BY(mutex){};
};

Setting& TheSetting()
{
    static Setting* const s_setting = new Setting;
    return *s_setting;
}

}  // namespace

Limits Limits::Current()
{
    static const Limits s_environment = EnvironmentLimits();
    Limits limits = s_environment;
    const tagTRAVEX_FTP_S_LIMITS set = TheSetting().Get();
    Apply(limits, [&set](const auto& entry) { return set.*entry.set; });
    return limits;
}

void SetLimits(const tagTRAVEX_FTP_S_LIMITS* limits)
{
    Setting& setting = TheSetting();
    const base::MutexLock lock(setting.mutex);
    setting.set = limits != nullptr ? *limits : tagTRAVEX_FTP_S_LIMITS{};
}

}  // namespace travex_ftp
