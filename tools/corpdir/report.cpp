#include "report.h"

#include <algorithm>

#include "text.h"
#include "travex_ftp.h"

namespace corpdir_tool
{

namespace
{

unsigned int Percent(std::uint64_t bytes, std::uint64_t total)
{
    if (bytes >= total)
    {
        return 100;
    }
    // The product of large numbers would not fit.
    return static_cast<unsigned int>(static_cast<double>(bytes) * 100.0 /
                                     static_cast<double>(total));
}

}  // namespace

std::string Amount(std::uint64_t bytes, std::uint64_t total)
{
    if (total == TRAVEX_FTP_SIZE_UNKNOWN)
    {
        return std::to_string(bytes) + " bytes";
    }
    return std::to_string(bytes) + " of " + std::to_string(total) + " bytes (" +
           std::to_string(Percent(bytes, total)) + "%)";
}

void Report::Error(const std::string& message)
{
    Line("corpdir: " + message);
}

void Report::ServerFailed(const std::string& server, const std::string& reason,
                          const std::string& next)
{
    Line(server + ": " + reason + (next.empty() ? "" : "; " + next));
}

void Report::Progress(const std::string& what, std::uint64_t bytes, std::uint64_t total)
{
    if (!m_settings.progress || m_settings.quiet)
    {
        return;
    }
    const std::string text = what + ": " + Amount(bytes, total);
    // Blanks wipe what a longer line left.
    const std::size_t width = std::max(text.size(), m_progressWidth);
    (void)std::fprintf(m_settings.messages, "\r%-*s", static_cast<int>(width), text.c_str());
    (void)std::fflush(m_settings.messages);
    m_progressWidth = text.size();
}

bool Report::Result(const std::string& version, const std::string& path, std::uint64_t bytes)
{
    EndProgress();
    if (m_settings.quiet)
    {
        return true;
    }
    (void)std::fprintf(m_settings.output, "version: %s\ndirectory: %s (%llu bytes)\n",
                       Printable(version).c_str(), Printable(path).c_str(),
                       static_cast<unsigned long long>(bytes));
    return std::fflush(m_settings.output) == 0 && std::ferror(m_settings.output) == 0;
}

void Report::Line(const std::string& text)
{
    // A message starts a line of its own below the progress.
    EndProgress();
    (void)std::fprintf(m_settings.messages, "%s\n", Printable(text).c_str());
    (void)std::fflush(m_settings.messages);
}

void Report::EndProgress()
{
    if (m_progressWidth > 0)
    {
        (void)std::fputc('\n', m_settings.messages);
        m_progressWidth = 0;
    }
}

}  // namespace corpdir_tool
