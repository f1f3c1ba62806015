#include "commands/run_log.h"

#include "commands/layer_settings.h"
#include "corpdir_log.h"
#include "exit_error.h"

namespace corpdir_tool
{

namespace
{

// One record of the program.
#define TOOL_LOG(level, ...)                                                                  \
    do                                                                                        \
    {                                                                                         \
        CCorpDirLog* const toolLog = __atomic_load_n(&g_LogOne, __ATOMIC_ACQUIRE);            \
        if (toolLog != nullptr && __atomic_load_n(&g_LogMode, __ATOMIC_RELAXED) == 0)         \
        {                                                                                     \
            toolLog->WriteLog("corpdir", __func__, __FILE__, __LINE__, (level), __VA_ARGS__); \
        }                                                                                     \
    } while (false)

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

RunLog::RunLog(const char* command, const Plan& plan) : m_command(command), m_plan(plan)
{
    if (!m_plan.logLevel)
    {
        return;
    }
    tag_CORPDIR_LOGINFO info = LogSettingsOf(m_plan);
    if (const unsigned int code = CorpDir_OpenLog(&info); code != 0)
    {
        throw LogError(m_plan, code);
    }
    TOOL_LOG(CORPDIR_LOG_NOTICE, "Begin of corpdir %s, version %s: %s", m_command, CORPDIR_VERSION,
             SettingsText(m_plan).c_str());
}

RunLog::~RunLog()
{
    if (m_plan.logLevel)
    {
        CorpDir_CloseLog();
    }
}

void RunLog::End(int status, const std::string& outcome)
{
    tag_CORPDIR_LOGINFO info = LogSettingsOf(m_plan);
    if (!m_plan.logLevel || CorpDir_OpenLog(&info) != 0)
    {
        return;
    }
    if (status == kExitFetched)
    {
        TOOL_LOG(CORPDIR_LOG_NOTICE, "End of corpdir %s with status 0: %s", m_command,
                 outcome.c_str());
        return;
    }
    TOOL_LOG(CORPDIR_LOG_ERROR, "End of corpdir %s with status %d: %s", m_command, status,
             outcome.c_str());
}

}  // namespace corpdir_tool
