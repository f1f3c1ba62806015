#include "line_formatter.h"

#include "base/mutex.h"

#include <pthread.h>

#include <cstdio>
#include <cstdlib>
#include <new>

namespace corpdir_log
{
namespace
{
constexpr std::size_t kMilliseconds = 20;  // their place in the column

// The C library locks its time zone and does not unlock it in the child of a fork. As long as this
// is held around both, a fork never meets it locked by this layer.
base::Mutex g_zone;

void LockZone() CORPDIR_ANNOTATE(no_thread_safety_analysis)
{
    g_zone.Lock();
}

void UnlockZone() CORPDIR_ANNOTATE(no_thread_safety_analysis)
{
    g_zone.Unlock();
}

std::tm LocalTime(std::time_t second)
{
    const base::MutexLock lock(g_zone);
    std::tm local = {};
    (void)localtime_r(&second, &local);  // no clock shows a time that has no date
    return local;
}

// The column without its milliseconds.
std::string TimeColumn(std::time_t second)
{
    const std::tm local = LocalTime(second);
    const long minutes = std::labs(local.tm_gmtoff) / 60;
    char column[80];
    (void)snprintf(column, sizeof column, "%04d-%02d-%02dT%02d:%02d:%02d.000%c%02ld:%02ld ",
                   local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour,
                   local.tm_min, local.tm_sec, local.tm_gmtoff < 0 ? '-' : '+', minutes / 60,
                   minutes % 60);
    return column;
}

}  // namespace

LineFormatter::LineFormatter()
{
    // A static whose making throws is made again by the next opening.
    static const bool s_watching =
        pthread_atfork(LockZone, UnlockZone, UnlockZone) == 0 ? true : throw std::bad_alloc();
    (void)s_watching;
}

void LineFormatter::Append(std::chrono::system_clock::time_point time, std::string_view text,
                           std::string& lines)
{
    using std::chrono::milliseconds;
    const auto since = std::chrono::floor<milliseconds>(time.time_since_epoch());
    const auto second = std::chrono::floor<std::chrono::seconds>(since);
    if (second.count() != m_second)
    {
        m_column = TimeColumn(second.count());
        m_second = second.count();
    }
    const auto rest = static_cast<unsigned int>((since - second).count());
    m_column[kMilliseconds] = static_cast<char>('0' + rest / 100);
    m_column[kMilliseconds + 1] = static_cast<char>('0' + rest / 10 % 10);
    m_column[kMilliseconds + 2] = static_cast<char>('0' + rest % 10);
    lines.append(m_column).append(text).append("\n");
}

}  // namespace corpdir_log
