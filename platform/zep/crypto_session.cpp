#include "crypto_session.h"

#include "base/gate.h"
#include "base/process_end.h"

#include <openssl/crypto.h>
#include <openssl/err.h>

namespace zep
{
namespace
{
base::Gate g_gate;

// OpenSSL registers its exit handler when it starts. It is started first, so that the stage
// registered here runs before that handler. It starts only when it is asked for something: the
// configuration is what its first use loads anyway.
bool StartLibrary()
{
    static const bool s_started =
        OPENSSL_init_crypto(OPENSSL_INIT_LOAD_CONFIG, nullptr) == 1 &&
        base::ProcessEnd::Register<base::EndStage::kCrypto>([](base::Clock::time_point deadline)
                                                            { g_gate.Close(0, deadline); },
                                                            [] { g_gate.ForgetInside(); });
    return s_started;
}

// Not covered: a process that ends at the very moment of its first use.
bool Enter()
{
    if (!g_gate.Enter())
    {
        return false;
    }
    if (!StartLibrary())
    {
        g_gate.Leave();
        return false;
    }
    return true;
}

}  // namespace

CryptoSession::CryptoSession() : m_open(Enter())
{
    if (m_open)
    {
        ERR_set_mark();
    }
}

CryptoSession::~CryptoSession()
{
    if (m_open)
    {
        ERR_pop_to_mark();
        g_gate.Leave();
    }
}

}  // namespace zep
