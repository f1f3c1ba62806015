#include "hints.h"

#include "travex_ftp.h"

namespace corpdir_tool
{

std::string HintFor(unsigned int code)
{
    switch (code)
    {
        case TRAVEX_FTP_ERR_CONNECT:
            return "is the server up, and does it listen on --port (21 unless given)?";
        case TRAVEX_FTP_ERR_TLS:
            return "--port 990 is implicit FTPS, other ports explicit; --plain is FTP without TLS; "
                   "'corpdir ciphers' lists what --ciphers can offer";
        case TRAVEX_FTP_ERR_CERT:
            return "--ca names the authorities to trust, --verify-name what the certificate is "
                   "for; 'corpdir check' shows the certificate";
        case TRAVEX_FTP_ERR_LOGIN:
            return "check --user and the password; some servers let nobody in without TLS";
        case TRAVEX_FTP_ERR_FILE:
            return "check --version-file and --directory-file; without a leading '/' they are "
                   "relative to the directory after the login";
        case TRAVEX_FTP_ERR_TIMEOUT:
            return "a firewall may drop packets: FTP needs the server's passive ports too; "
                   "--connect-timeout allows more time to connect";
        case TRAVEX_FTP_ERR_PARTIAL:
            return "the server, or something between, ended the file early; its log may say why";
        case TRAVEX_FTP_ERR_TOO_LARGE:
            return "--max-size allows more";
        case TRAVEX_FTP_ERR_LOCAL_FILE:
            return "see to space and rights in --output-dir";
        case TRAVEX_FTP_ERR_REPLY:
        case TRAVEX_FTP_ERR_TRANSFER:
            return "--log-dir DIR writes a log of every step";
        default:
            return "";
    }
}

}  // namespace corpdir_tool
