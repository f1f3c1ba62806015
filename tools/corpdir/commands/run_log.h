// What the program itself writes into the log.
#ifndef CORPDIR_TOOL_RUN_LOG_H
#define CORPDIR_TOOL_RUN_LOG_H

#include <optional>
#include <string>

#include "cli/options.h"
#include "corpdir_log.h"

namespace corpdir_tool
{

// Without a log it does nothing. Belongs to the main thread; one at a time.
class RunLog
{
public:
    // Opens the log and writes the version and the settings, without the password. Throws ExitError
    // when the log cannot be written. command: static text.
    RunLog(const char* command, const Plan& plan);
    ~RunLog();  // closes the log
    RunLog(const RunLog&) = delete;
    RunLog& operator=(const RunLog&) = delete;

    // Takes other settings, and writes them. When their log cannot be opened, the one before is
    // used until the start of the service fails for the same reason.
    void Change(const Plan& plan);

    // level: tagCORPDIR_LOG_LEVEL.
    void Write(unsigned int level, const std::string& sentence);

    // Writes the outcome. A status other than 0 is an error.
    void End(int status, const std::string& outcome);

private:
    void Take(const Plan& plan);
    unsigned int Open();

    const char* const m_command;
    std::optional<tag_CORPDIR_LOGINFO> m_settings;  // none: no log
};

}  // namespace corpdir_tool

#endif
