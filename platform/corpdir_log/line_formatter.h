// Formats a record as a line.
#ifndef CORPDIR_LOG_LINE_FORMATTER_H
#define CORPDIR_LOG_LINE_FORMATTER_H

#include <chrono>
#include <cstddef>
#include <ctime>
#include <string>
#include <string_view>

namespace corpdir_log
{
// "2025-03-01T09:30:00.125+01:00 TEXT" and a line feed: ISO 8601, local time. It takes no lock that
// the child of a fork could find locked. One thread only.
class LineFormatter
{
public:
    // Throws std::bad_alloc.
    LineFormatter();

    void Append(std::chrono::system_clock::time_point time, std::string_view text,
                std::string& lines);

private:
    // The column of the last record's second; many share one.
    std::time_t m_second = -1;
    std::string m_column;
};

}  // namespace corpdir_log

#endif
