// What a control record demands of TLS.
#ifndef TRAVEX_FTP_TLS_POLICY_H
#define TRAVEX_FTP_TLS_POLICY_H

#include "cipher_suites.h"
#include "failure.h"
#include "identity.h"
#include "trust.h"

namespace travex_ftp
{
// Immutable once read. Two policies are equal when a connection made under one may serve the other.
struct TlsPolicy
{
    bool encrypted = false;  // control and data channel
    bool implicit = false;   // TLS from the first byte on, else AUTH TLS
    bool verify = false;     // chain, dates and identity
    CipherSuites suites;
    TrustText trust;
    Identity identity;                    // with verify only
    Anchors anchors;                      // with verify only
    TRAVEX_FTP_VERIFY_CB veto = nullptr;  // the client's last word

    // Takes the TLS side of a record, which plain FTP has none of. The files of the trust text are
    // read when certificates are checked. Throws std::bad_alloc.
    bool Read(const tagTRAVEX_FTP_S_CTRL_PARAM& record, bool implicitPort, Failure& failure);

    bool operator==(const TlsPolicy& other) const;
};

}  // namespace travex_ftp

#endif
