#include "commands/layer_settings.h"

#include <string>

#include "text.h"
#include "travex_ftp.h"

namespace corpdir_tool
{

tag_CORPDIR_LOGINFO LogSettingsOf(const Plan& plan)
{
    tag_CORPDIR_LOGINFO log = {};
    CopyText(log.szLogDir, plan.logDir);
    log.ulLogLevel = plan.logLevel.value_or(0);
    log.ulMaxFileSize = plan.logSize;
    log.ulMaxFileCount = plan.logFiles;
    return log;
}

ExitError LogError(const Plan& plan, unsigned int code)
{
    const std::string place =
        plan.logDir.empty() ? "standard error" : "--log-dir '" + Printable(plan.logDir) + "'";
    return {kExitLocalFile,
            "cannot write the log to " + place + ": " + SystemMessage(static_cast<int>(code))};
}

void SetLimits(const Plan& plan, std::uint64_t fileBytes)
{
    tagTRAVEX_FTP_S_LIMITS limits = {};
    limits.ullFileBytes = fileBytes;
    limits.ulConnectMs = plan.connectTimeout * 1000;
    if (const unsigned int code = TRAVEX_FTP_SetLimits(&limits); code != 0)
    {
        throw ExitError(kExitInternal,
                        "the limits could not be set (code " + std::to_string(code) + ")");
    }
}

void RegisterServers(const std::vector<Server>& servers, const Plan& plan)
{
    if (const unsigned int code = client::RegisterNames(servers, plan.verifyNames); code != 0)
    {
        throw ExitError(kExitInternal, "the names of the servers could not be registered (code " +
                                           std::to_string(code) + ")");
    }
}

}  // namespace corpdir_tool
