#include "settings_check.h"

#include <string.h>

namespace client
{

namespace
{

// The reason of a refusal, while this thread checks settings.
thread_local char (*t_reason)[512] = nullptr;

}  // namespace

bool IsOfSettingsCheck(const tagTRAVEX_FTP_S_OBSERVATION& seen)
{
    if (t_reason == nullptr || seen.ulKind != TRAVEX_FTP_OBSERVED_REFUSED)
    {
        return false;
    }
    (void)strncpy(*t_reason, seen.pcReason, sizeof *t_reason - 1);
    return true;
}

void CheckSettings(const Settings& settings)
{
    tagTRAVEX_FTP_S_CTRL_PARAM parameters = {};  // no address: nothing is sent
    parameters.ulServerType = settings.plain ? 0 : 1;
    parameters.ulServerPort = settings.port;
    (void)strncpy(parameters.acUserName, settings.user.c_str(), sizeof parameters.acUserName - 1);
    parameters.acPassword[0] = '-';  // the real one stays sealed
    parameters.acWorkDir[0] = '.';
    parameters.pcFtpCtrlInfo = settings.trust.c_str();
    parameters.piCipherList = settings.suites.data();
    parameters.ulCipherNum = static_cast<unsigned int>(settings.suites.size());
    parameters.ulCertVerify = settings.verify ? 1 : 0;

    char reason[512] = "";
    TRAVEX_FTP_HANDLE const handle = TRAVEX_FTP_CreateHandle();
    t_reason = &reason;
    const unsigned int code = TRAVEX_FTP_SetCtrlParam(handle, &parameters);
    t_reason = nullptr;
    (void)TRAVEX_FTP_CloseHandle(handle);
    if (code != TRAVEX_FTP_OK)
    {
        throw SettingsError(
            code, *reason != '\0' ? reason
                                  : "the settings are refused (code " + std::to_string(code) + ")");
    }
}

}  // namespace client
