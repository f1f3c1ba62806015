// Settings that the FTP layer refuses, found without a request.
#ifndef CORPDIR_CLIENT_SETTINGS_CHECK_H
#define CORPDIR_CLIENT_SETTINGS_CHECK_H

#include <stdexcept>
#include <string>

#include "settings.h"
#include "travex_ftp.h"

namespace client
{

// Every server would refuse the settings.
class SettingsError : public std::runtime_error
{
public:
    // code: tagTRAVEX_FTP_RESULT
    SettingsError(unsigned int code, const std::string& reason)
        : runtime_error(reason), m_code(code)
    {
    }

    unsigned int Code() const
    {
        return m_code;
    }

private:
    unsigned int m_code;
};

// Has the FTP layer read the authorities and the cipher suites, as for a transfer. The layer runs.
// Throws SettingsError.
void CheckSettings(const Settings& settings);

// For the FTP layer's observer: true when the observation belongs to a check of settings on this
// thread, and to nothing else.
bool IsOfSettingsCheck(const tagTRAVEX_FTP_S_OBSERVATION& seen);

}  // namespace client

#endif
