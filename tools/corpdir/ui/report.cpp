#include "ui/report.h"

#include "text.h"
#include "travex_ftp.h"

namespace corpdir_tool
{

std::string Amount(std::uint64_t bytes, std::uint64_t total)
{
    if (total == TRAVEX_FTP_SIZE_UNKNOWN)
    {
        return std::to_string(bytes) + " bytes";
    }
    return std::to_string(bytes) + " of " + std::to_string(total) + " bytes (" +
           PercentOf(bytes, total) + ")";
}

void PrintResult(const std::string& version, const std::string& path, std::uint64_t bytes,
                 std::FILE* output)
{
    (void)std::fprintf(output, "version: %s\ndirectory: %s (%llu bytes)\n",
                       Printable(version).c_str(), Printable(path).c_str(),
                       static_cast<unsigned long long>(bytes));
}

void PrintUnchanged(const std::string& version, std::FILE* output)
{
    (void)std::fprintf(output, "unchanged: %s\n", Printable(version).c_str());
}

void Report::Error(const std::string& message)
{
    Line(m_messages.Styled(Style::kBad, "corpdir:") + " " + Printable(message));
}

void Report::Warning(const std::string& text)
{
    Line(m_messages.Styled(Style::kWarn, "warning:") + " " + Printable(text));
}

void Report::Hint(const std::string& text)
{
    if (!m_settings.quiet)
    {
        Line(m_messages.Styled(Style::kFaint, "hint:") + " " + text);
    }
}

void Report::ServerFailed(const std::string& server, const std::string& reason,
                          const std::string& next)
{
    Line(m_messages.Styled(Style::kWarn, Printable(server) + ":") + " " + Printable(reason) +
         (next.empty() ? "" : "; " + next));
}

void Report::Progress(const std::string& what, std::uint64_t bytes, std::uint64_t total)
{
    if (m_settings.progress && !m_settings.quiet)
    {
        m_progress.Show(what, bytes, total, ProgressDisplay::Clock::now());
    }
}

// Replaces the progress bar, which is drawn again below the line.
void Report::Line(const std::string& text)
{
    m_progress.Erase();
    (void)std::fprintf(m_messages.Stream(), "%s\n", text.c_str());
    (void)std::fflush(m_messages.Stream());
}

}  // namespace corpdir_tool
