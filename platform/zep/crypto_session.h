// A use of the crypto library, which stops working while the process ends.
#ifndef ZEP_CRYPTO_SESSION_H
#define ZEP_CRYPTO_SESSION_H

namespace zep
{
// Held around every use of the crypto library. The library frees its state in an exit handler,
// while threads that were not stopped may be inside it. Our stage of the process's end runs before
// that handler: it admits no further session and waits for those in progress. A session also leaves
// the calling thread's error queue of the library as it was. Thread-safe.
class CryptoSession
{
public:
    CryptoSession();
    ~CryptoSession();
    CryptoSession(const CryptoSession&) = delete;
    CryptoSession& operator=(const CryptoSession&) = delete;

    // False: the process is ending, or the library cannot start. Nothing of it may be called.
    bool IsOpen() const
    {
        return m_open;
    }

private:
    bool m_open;
};

}  // namespace zep

#endif
