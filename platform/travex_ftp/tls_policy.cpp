#include "tls_policy.h"

#include <openssl/err.h>

namespace travex_ftp
{
namespace
{
// The caller's thread finds OpenSSL's error queue as it left it.
class QuietErrors
{
public:
    QuietErrors()
    {
        (void)ERR_set_mark();
    }
    ~QuietErrors()
    {
        (void)ERR_pop_to_mark();
    }
    QuietErrors(const QuietErrors&) = delete;
    QuietErrors& operator=(const QuietErrors&) = delete;
};

}  // namespace

bool TlsPolicy::Read(const tagTRAVEX_FTP_S_CTRL_PARAM& record, bool implicitPort, Failure& failure)
{
    const QuietErrors quiet;
    encrypted = record.ulServerType == 1;
    if (!encrypted)
    {
        return true;
    }
    if (!ChooseSuites(record.piCipherList, record.ulCipherNum, suites, failure))
    {
        return false;
    }
    verify = record.ulCertVerify != 0;
    veto = record.pfnFtpsVerify;
    // Whoever does not check certificates need not say whom to trust.
    const bool given = record.pcFtpCtrlInfo != nullptr && *record.pcFtpCtrlInfo != '\0';
    if ((verify || given) && !ParseTrustText(record.pcFtpCtrlInfo, trust, failure))
    {
        return false;
    }
    implicit = implicitPort || trust.implicit;
    return !verify || LoadAnchors(trust.authorities, anchors, failure);
}

bool TlsPolicy::operator==(const TlsPolicy& other) const
{
    return encrypted == other.encrypted && implicit == other.implicit && verify == other.verify &&
           veto == other.veto && identity == other.identity && suites == other.suites &&
           trust.names == other.trust.names && trust.authorities == other.trust.authorities &&
           anchors.digest == other.anchors.digest;
}

}  // namespace travex_ftp
