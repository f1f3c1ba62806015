#include "commands/run_log.h"

#include <cstdio>

#include "commands/layer_settings.h"
#include "corpdir_log.h"
#include "exit_error.h"

namespace corpdir_tool
{

namespace
{

constexpr unsigned int kError = 0;
constexpr unsigned int kNotice = 1;

void Write(unsigned int level, const char* function, unsigned int line, const std::string& text)
{
    CCorpDirLog* const log = __atomic_load_n(&g_LogOne, __ATOMIC_ACQUIRE);
    if (log != nullptr)
    {
        log->WriteLog("corpdir", function, "run_log.cpp", line, level, "%s", text.c_str());
    }
}

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
           " suites, files " + plan.versionFile + " and " + plan.directoryFile + ", to " +
           plan.outputDir;
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
    Write(kNotice, __func__, __LINE__,
          std::string("corpdir " CORPDIR_VERSION " begins ") + m_command + ": " +
              SettingsText(m_plan));
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
    if (m_plan.logLevel && CorpDir_OpenLog(&info) == 0)
    {
        Write(status == kExitFetched ? kNotice : kError, __func__, __LINE__,
              std::string("corpdir ends ") + m_command + " with status " + std::to_string(status) +
                  ": " + outcome);
    }
}

}  // namespace corpdir_tool
