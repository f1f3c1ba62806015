// What the user sees: the result on standard output, messages and progress on standard error.
#ifndef CORPDIR_TOOL_REPORT_H
#define CORPDIR_TOOL_REPORT_H

#include <cstdint>
#include <cstdio>
#include <string>

namespace corpdir_tool
{

struct ReportSettings
{
    std::FILE* output = stdout;
    std::FILE* messages = stderr;
    bool quiet = false;     // errors only; a server that failed is one
    bool progress = false;  // a line that is rewritten, for terminals
};

// Not thread-safe: belongs to the main thread. Streams are not owned.
class Report
{
public:
    explicit Report(const ReportSettings& settings) : m_settings(settings) {}
    ~Report()
    {
        EndProgress();
    }
    Report(const Report&) = delete;
    Report& operator=(const Report&) = delete;

    // "corpdir: message"
    void Error(const std::string& message);

    // A failure at one server, named as it happens: "server: reason; next".
    void ServerFailed(const std::string& server, const std::string& reason,
                      const std::string& next);

    // Bytes of a file, on one line that is rewritten. total: TRAVEX_FTP_SIZE_UNKNOWN when unknown.
    void Progress(const std::string& what, std::uint64_t bytes, std::uint64_t total);

    // The result. False when it could not be written.
    [[nodiscard]] bool Result(const std::string& version, const std::string& path,
                              std::uint64_t bytes);

private:
    void Line(const std::string& text);
    void EndProgress();

    const ReportSettings m_settings;
    std::size_t m_progressWidth = 0;  // of the progress line on the screen; 0: none
};

// "12 of 48 bytes (25%)", or "12 bytes" when the total is not known.
std::string Amount(std::uint64_t bytes, std::uint64_t total);

}  // namespace corpdir_tool

#endif
