// What the program itself writes into the log.
#ifndef CORPDIR_TOOL_RUN_LOG_H
#define CORPDIR_TOOL_RUN_LOG_H

#include <optional>
#include <string>

#include "cli/options.h"
#include "corpdir_log.h"
#include "exit_error.h"

namespace corpdir_tool
{

// Without a log it does nothing. Belongs to the main thread; one at a time.
class RunLog
{
public:
    // Opens the log and writes the version and the options, which have no secret. Throws ExitError
    // when the log cannot be written. command: static text.
    RunLog(const char* command, const Options& options);
    ~RunLog();  // closes the log
    RunLog(const RunLog&) = delete;
    RunLog& operator=(const RunLog&) = delete;

    // Takes other settings, and writes them. When their log cannot be opened, the one before is
    // used until the start of the service fails for the same reason.
    void Change(const Options& options);

    // level: tagCORPDIR_LOG_LEVEL.
    void Write(unsigned int level, const std::string& sentence);

    // Writes the outcome. A status other than 0 is an error.
    void End(int status, const std::string& outcome);

private:
    void Take(const Options& options);
    unsigned int Open();

    const char* const m_command;
    std::optional<tag_CORPDIR_LOGINFO> m_settings;  // none: no log
};

// Logs a run that ends before it begins, if possible. error: why.
void LogRefusal(const char* command, const Options& options, const ExitError& error) noexcept;

// What make() returns. An ExitError of it is logged.
template <typename Make>
auto OrLogged(const char* command, const Options& options, const Make& make)
{
    try
    {
        return make();
    }
    catch (const ExitError& error)
    {
        LogRefusal(command, options, error);
        throw;
    }
}

}  // namespace corpdir_tool

#endif
