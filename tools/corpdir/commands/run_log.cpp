#include "commands/run_log.h"

#include <exception>

#include "commands/layer_settings.h"
#include "commands/tool_log.h"
#include "exit_error.h"

namespace corpdir_tool
{

namespace
{

const char* FileOf(const Options& options)
{
    return options.settingsFile.empty() ? "none" : options.settingsFile.c_str();
}

}  // namespace

RunLog::RunLog(const char* command, const Options& options) : m_command(command)
{
    Take(options);
    if (const unsigned int code = Open(); code != 0)
    {
        throw LogError(options, code);
    }
    TOOL_LOG(CORPDIR_LOG_NOTICE, "Begin of corpdir %s, version %s, settings file %s: %s", m_command,
             CORPDIR_VERSION, FileOf(options), options.given.c_str());
}

RunLog::~RunLog()
{
    if (m_settings)
    {
        CorpDir_CloseLog();
    }
}

void RunLog::Change(const Options& options)
{
    const bool hadLog = m_settings.has_value();
    Take(options);
    if (hadLog && !m_settings)
    {
        CorpDir_CloseLog();
    }
    (void)Open();
    TOOL_LOG(CORPDIR_LOG_NOTICE, "Settings of corpdir %s, settings file %s: %s", m_command,
             FileOf(options), options.given.c_str());
}

void RunLog::Write(unsigned int level, const std::string& sentence)
{
    switch (level)
    {
        case CORPDIR_LOG_ERROR:
            (void)Open();  // a failure may have stopped the service
            TOOL_LOG(CORPDIR_LOG_ERROR, "Event: %s", sentence.c_str());
            break;
        case CORPDIR_LOG_NOTICE:
            TOOL_LOG(CORPDIR_LOG_NOTICE, "Event: %s", sentence.c_str());
            break;
        default:
            TOOL_LOG(CORPDIR_LOG_INFO, "Event: %s", sentence.c_str());
            break;
    }
}

void RunLog::End(int status, const std::string& outcome)
{
    (void)Open();
    if (status == kExitFetched)
    {
        TOOL_LOG(CORPDIR_LOG_NOTICE, "End of corpdir %s with status 0: %s", m_command,
                 outcome.c_str());
        return;
    }
    TOOL_LOG(CORPDIR_LOG_ERROR, "End of corpdir %s with status %d: %s", m_command, status,
             outcome.c_str());
}

// The service opens a log in any case; without one here, records of errors would go to standard
// error.
void RunLog::Take(const Options& options)
{
    m_settings.reset();
    if (options.UsedLogLevel())
    {
        m_settings = LogSettingsOf(options);
    }
    __atomic_store_n(&g_LogMode, m_settings ? 0U : 1U, __ATOMIC_RELAXED);
}

// The service closes the log when it stops. An open log stays open, with the current settings.
unsigned int RunLog::Open()
{
    return m_settings ? CorpDir_OpenLog(&*m_settings) : 0;
}

void LogRefusal(const char* command, const Options& options, const ExitError& error) noexcept
{
    try
    {
        if (options.logDir.size() < sizeof tag_CORPDIR_LOGINFO::szLogDir)  // else it would be cut
        {
            RunLog(command, options).End(error.Status(), error.what());
        }
    }
    catch (const std::exception&)
    {
        // The message is on standard error.
    }
}

}  // namespace corpdir_tool
