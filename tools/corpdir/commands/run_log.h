// The first and the last record of a run in the log.
#ifndef CORPDIR_TOOL_RUN_LOG_H
#define CORPDIR_TOOL_RUN_LOG_H

#include <string>

#include "cli/options.h"

namespace corpdir_tool
{

// Without a log it does nothing. Belongs to the main thread; one at a time.
class RunLog
{
public:
    // Opens the log and writes the version and the settings, without the password. Throws ExitError
    // when the log cannot be written. command: static text. plan must outlive it.
    RunLog(const char* command, const Plan& plan);
    ~RunLog();  // closes the log
    RunLog(const RunLog&) = delete;
    RunLog& operator=(const RunLog&) = delete;

    // Writes the outcome; the service may have closed the log. A status other than 0 is an error.
    void End(int status, const std::string& outcome);

private:
    const char* const m_command;
    const Plan& m_plan;
};

}  // namespace corpdir_tool

#endif
