// How a record becomes a line.
#ifndef CORPDIR_LOG_LINE_FORMATTER_H
#define CORPDIR_LOG_LINE_FORMATTER_H

#include "base/mutex.h"

#include <chrono>
#include <cstddef>
#include <ctime>
#include <string>
#include <string_view>

namespace corpdir_log
{
// "2025-03-01T09:30:00.125+01:00 TEXT", a line feed behind it: ISO 8601, local time. It holds no
// lock that the child of a fork is born with. One thread only.
class LineFormatter
{
public:
    void Append(std::chrono::system_clock::time_point time, std::string_view text,
                std::string& lines);

    // Around a fork: nobody is looking up the local time meanwhile.
    static void BeforeFork() CORPDIR_ANNOTATE(no_thread_safety_analysis);
    static void AfterFork() CORPDIR_ANNOTATE(no_thread_safety_analysis);

private:
    void SetSecond(std::time_t second);

    // Of the last record's second; many share one.
    std::time_t m_second = -1;
    char m_date[40] = "";  // up to the seconds
    std::size_t m_dateSize = 0;
    char m_offset[8] = "";
    std::size_t m_offsetSize = 0;
};

}  // namespace corpdir_log

#endif
