// Output of `fetch`: messages and progress on standard error, the result on standard output.
#ifndef CORPDIR_TOOL_REPORT_H
#define CORPDIR_TOOL_REPORT_H

#include <cstdint>
#include <cstdio>
#include <string>

#include "os/terminal.h"
#include "ui/progress.h"

namespace corpdir_tool
{

struct ReportSettings
{
    bool quiet = false;  // errors only, including failed servers
    bool progress = false;
};

// Not thread-safe: belongs to the main thread. Streams are not owned.
class Report
{
public:
    // messages must outlive the report.
    Report(const ReportSettings& settings, const Terminal& messages)
        : m_settings(settings), m_messages(messages), m_progress(messages)
    {
    }
    ~Report()
    {
        m_progress.Erase();
    }
    Report(const Report&) = delete;
    Report& operator=(const Report&) = delete;

    // "corpdir: message"
    void Error(const std::string& message);

    // "warning: text"
    void Warning(const std::string& text);

    // "hint: text"
    void Hint(const std::string& text);

    // "server: reason; next"
    void ServerFailed(const std::string& server, const std::string& reason,
                      const std::string& next);

    // total: TRAVEX_FTP_SIZE_UNKNOWN when not known.
    void Progress(const std::string& what, std::uint64_t bytes, std::uint64_t total);

private:
    void Line(const std::string& text);

    const ReportSettings m_settings;
    const Terminal& m_messages;
    ProgressDisplay m_progress;
};

// Prints the result, on two lines.
void PrintResult(const std::string& version, const std::string& path, std::uint64_t bytes,
                 std::FILE* output);

// "unchanged: VERSION"
void PrintUnchanged(const std::string& version, std::FILE* output);

// "12 of 48 bytes (25%)", or "12 bytes" when the total is not known.
std::string Amount(std::uint64_t bytes, std::uint64_t total);

}  // namespace corpdir_tool

#endif
