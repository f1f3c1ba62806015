// What the user of `fetch` sees: messages and progress on standard error, the result on standard
// output.
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
    bool quiet = false;  // errors only; a server that failed is one
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

    // What to do next: "hint: text".
    void Hint(const std::string& text);

    // A failure at one server, named as it happens: "server: reason; next".
    void ServerFailed(const std::string& server, const std::string& reason,
                      const std::string& next);

    // Bytes of a file. total: TRAVEX_FTP_SIZE_UNKNOWN when unknown.
    void Progress(const std::string& what, std::uint64_t bytes, std::uint64_t total);

private:
    void Line(const std::string& text);

    const ReportSettings m_settings;
    const Terminal& m_messages;
    ProgressDisplay m_progress;
};

// The result, on two lines.
void PrintResult(const std::string& version, const std::string& path, std::uint64_t bytes,
                 std::FILE* output);

// "12 of 48 bytes (25%)", or "12 bytes" when the total is not known.
std::string Amount(std::uint64_t bytes, std::uint64_t total);

}  // namespace corpdir_tool

#endif
