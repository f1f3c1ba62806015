#include "line_formatter.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>

namespace corpdir_log
{
namespace
{
// The C library locks its time zone and does not unlock it in the child of a fork. As long as this
// is held around both, a fork never meets it locked by this layer.
base::Mutex g_zone;

// All zero when the time has no date.
std::tm LocalTime(std::time_t second)
{
    const base::MutexLock lock(g_zone);
    std::tm local = {};
    if (localtime_r(&second, &local) == nullptr)
    {
        local = {};
    }
    return local;
}

// What snprintf wrote into `size` bytes.
std::size_t Written(int length, std::size_t size)
{
    return length < 0 ? 0 : std::min(static_cast<std::size_t>(length), size - 1);
}

}  // namespace

void LineFormatter::BeforeFork()
{
    g_zone.Lock();
}

void LineFormatter::AfterFork()
{
    g_zone.Unlock();
}

void LineFormatter::SetSecond(std::time_t second)
{
    const std::tm local = LocalTime(second);
    m_dateSize = Written(
        snprintf(m_date, sizeof m_date, "%04d-%02d-%02dT%02d:%02d:%02d", local.tm_year + 1900,
                 local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec),
        sizeof m_date);
    const long minutes = std::labs(local.tm_gmtoff) / 60;
    m_offsetSize = Written(snprintf(m_offset, sizeof m_offset, "%c%02ld:%02ld",
                                    local.tm_gmtoff < 0 ? '-' : '+', minutes / 60, minutes % 60),
                           sizeof m_offset);
    m_second = second;
}

void LineFormatter::Append(std::chrono::system_clock::time_point time, std::string_view text,
                           std::string& lines)
{
    using std::chrono::milliseconds;
    const auto since = std::chrono::floor<milliseconds>(time.time_since_epoch());
    const auto second = std::chrono::floor<std::chrono::seconds>(since);
    if (second.count() != m_second)
    {
        SetSecond(second.count());
    }
    const auto rest = static_cast<unsigned int>((since - second).count());
    const char fraction[] = {'.', static_cast<char>('0' + rest / 100),
                             static_cast<char>('0' + rest / 10 % 10),
                             static_cast<char>('0' + rest % 10)};
    lines.append(m_date, m_dateSize).append(fraction, sizeof fraction);
    lines.append(m_offset, m_offsetSize).append(" ").append(text).append("\n");
}

}  // namespace corpdir_log
