// Leave to call the crypto library, which stops working while the process ends.
#ifndef ZEP_CRYPTO_SESSION_H
#define ZEP_CRYPTO_SESSION_H

namespace zep
{
// Held around every use of the crypto library. The library frees its own state in an exit handler
// while threads that nobody stopped may still be inside it; a handler of ours, which runs before
// that one, admits no further session and waits for those in progress. A session also keeps the
// library's error queue of the calling thread as its owner left it. Thread-safe.
class CryptoSession
{
public:
    CryptoSession();
    ~CryptoSession();
    CryptoSession(const CryptoSession&) = delete;
    CryptoSession& operator=(const CryptoSession&) = delete;

    // False: the process is ending (or the library cannot start), nothing of it may be called.
    bool IsOpen() const
    {
        return m_open;
    }

private:
    bool m_open;
};

}  // namespace zep

#endif
