#include "crypto_session.h"

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>

namespace zep
{
namespace
{
// The longest that the end of the process waits for a session; one takes microseconds.
constexpr std::chrono::seconds kLongestWait{1};

std::atomic<bool> g_ending{false};
std::atomic<unsigned int> g_sessions{0};

void OnExit()
{
    g_ending.store(true);
    const auto deadline = std::chrono::steady_clock::now() + kLongestWait;
    while (g_sessions.load() != 0 && std::chrono::steady_clock::now() < deadline)
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

// Runs in the child of a fork, on its only thread: the sessions in progress stayed with the parent.
void OnFork()
{
    g_sessions.store(0);
}

// The library registers its exit handler when it starts. Handlers run in reverse order, so starting
// it first puts ours before its own. Asked for nothing it does not start, so it is asked for what
// its first use asks for. Before both the fork handler, so that a child that waits at its exit has
// forgotten its parent's sessions.
bool StartLibrary()
{
    static const bool s_started = pthread_atfork(nullptr, nullptr, OnFork) == 0 &&
                                  OPENSSL_init_crypto(OPENSSL_INIT_LOAD_CONFIG, nullptr) == 1 &&
                                  std::atexit(OnExit) == 0;
    return s_started;
}

// Announce first, look second: OnExit does the same the other way round, so that one of the two
// sees the other. The first look keeps refused callers from being taken for sessions. Not covered
// is a process that ends in the very moment of its first use.
bool Enter()
{
    if (g_ending.load())
    {
        return false;
    }
    g_sessions.fetch_add(1);
    if (g_ending.load() || !StartLibrary())
    {
        g_sessions.fetch_sub(1);
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
        g_sessions.fetch_sub(1);
    }
}

}  // namespace zep
