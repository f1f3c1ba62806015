#include "commands/run_log.h"

#include "commands/layer_settings.h"
#include "commands/tool_log.h"
#include "exit_error.h"

namespace corpdir_tool
{

namespace
{

// What tells one run from another; nothing secret.
std::string SettingsText(const Plan& plan)
{
    std::string protection = "FTP without TLS";
    if (!plan.plain)
    {
        protection = plan.verify ? "FTPS, certificates of " + plan.ca : "FTPS, not verified";
    }
    return "servers " + plan.servers + ", port " + std::to_string(plan.UsedPort()) + ", user " +
           plan.user + ", " + protection + ", " + std::to_string(plan.suites.size()) +
           " suites, files " + plan.versionFile + " and " + plan.directoryFile +
           (plan.outputDir.empty() ? "" : ", to " + plan.outputDir);
}

}  // namespace

RunLog::RunLog(const char* command, const Plan& plan) : m_command(command)
{
    Take(plan);
    if (const unsigned int code = Open(); code != 0)
    {
        throw LogError(plan, code);
    }
    TOOL_LOG(CORPDIR_LOG_NOTICE, "Begin of corpdir %s, version %s: %s", m_command, CORPDIR_VERSION,
             SettingsText(plan).c_str());
}

RunLog::~RunLog()
{
    if (m_settings)
    {
        CorpDir_CloseLog();
    }
}

void RunLog::Change(const Plan& plan)
{
    const bool hadLog = m_settings.has_value();
    Take(plan);
    if (hadLog && !m_settings)
    {
        CorpDir_CloseLog();
    }
    (void)Open();
    TOOL_LOG(CORPDIR_LOG_NOTICE, "Settings of corpdir %s: %s", m_command,
             SettingsText(plan).c_str());
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
void RunLog::Take(const Plan& plan)
{
    m_settings.reset();
    if (plan.logLevel)
    {
        m_settings = LogSettingsOf(plan);
    }
    __atomic_store_n(&g_LogMode, m_settings ? 0U : 1U, __ATOMIC_RELAXED);
}

// The service closes the log when it stops. An open log stays open, with the current settings.
unsigned int RunLog::Open()
{
    return m_settings ? CorpDir_OpenLog(&*m_settings) : 0;
}

}  // namespace corpdir_tool
