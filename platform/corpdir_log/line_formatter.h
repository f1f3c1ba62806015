// How a record becomes a line.
#ifndef CORPDIR_LOG_LINE_FORMATTER_H
#define CORPDIR_LOG_LINE_FORMATTER_H

#include "common/guard.h"

#include <spdlog/formatter.h>

#include <cstddef>
#include <ctime>

namespace corpdir_log
{
// "2025-03-01T09:30:00.125+01:00 TEXT", a line feed behind it: ISO 8601, local time. Unlike
// spdlog's own formatter, whose lock of the time zone a fork in the middle of it leaves locked in
// the child for ever, it holds no lock that a child is born with.
class LineFormatter final : public spdlog::formatter
{
public:
    void format(const spdlog::details::log_msg& message, spdlog::memory_buf_t& line) override;
    std::unique_ptr<spdlog::formatter> clone() const override;

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
