#include "commands/layer_settings.h"

#include <string>

#include "text.h"
#include "travex_ftp.h"

namespace corpdir_tool
{

tag_CORPDIR_LOGINFO LogSettingsOf(const Options& options)
{
    tag_CORPDIR_LOGINFO log = {};
    CopyText(log.szLogDir, options.logDir);
    log.ulLogLevel = options.UsedLogLevel().value_or(0);
    log.ulMaxFileSize = options.logSize;
    log.ulMaxFileCount = options.logFiles;
    return log;
}

ExitError LogError(const Options& options, unsigned int code)
{
    const std::string place =
        options.logDir.empty() ? "standard error" : "--log-dir '" + Printable(options.logDir) + "'";
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
