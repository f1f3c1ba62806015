// The process ends while threads are inside the crypto library, or use it afterwards. Functions of
// a digest are replaced at link time: one waits when a test asks for it, the others must not be
// called once the library has ended.
#include "zep.h"
#include "zep/digest.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <thread>
#include <vector>

// The thread sanitizer otherwise sleeps for a second at each exit.
extern "C" const char* __tsan_default_options();
extern "C" const char* __tsan_default_options()
{
    return "atexit_sleep_ms=0";
}

// A digest that the end of the process interrupts is not freed, since the library is gone.
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions()
{
    return "leak:libcrypto";
}

namespace
{
std::atomic<bool> g_holdReads{false};
std::atomic<bool> g_reading{false};
std::atomic<bool> g_libraryEnded{false};
std::atomic<int> g_error{0};  // of a digest that has failed

void Await(const std::atomic<bool>& flag)
{
    while (!flag)
    {
        std::this_thread::yield();
    }
}

// The C library's, or the crypto library's.
template <typename Function>
Function* Real(const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

void DemandThatTheLibraryIsThere()
{
    if (g_libraryEnded)
    {
        _exit(8);
    }
}

}  // namespace

// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
extern "C" __attribute__((visibility("default"))) ssize_t pread(int descriptor, void* buffer,
                                                                size_t size, off_t offset)
{
    static const auto s_real = Real<ssize_t(int, void*, size_t, off_t)>("pread");
    if (g_holdReads)
    {
        g_reading = true;
        Await(g_libraryEnded);
    }
    return s_real(descriptor, buffer, size, offset);
}

extern "C" __attribute__((visibility("default"))) int EVP_DigestUpdate(EVP_MD_CTX* context,
                                                                       const void* bytes,
                                                                       size_t size)
{
    static const auto s_real = Real<int(EVP_MD_CTX*, const void*, size_t)>("EVP_DigestUpdate");
    DemandThatTheLibraryIsThere();
    return s_real(context, bytes, size);
}

extern "C" __attribute__((visibility("default"))) void EVP_MD_CTX_free(EVP_MD_CTX* context)
{
    static const auto s_real = Real<void(EVP_MD_CTX*)>("EVP_MD_CTX_free");
    DemandThatTheLibraryIsThere();
    s_real(context);
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)

namespace
{
// The child's exit status; 128 and the signal after a crash.
int StatusOfChild(const std::function<void()>& body)
{
    const pid_t child = fork();
    if (child == 0)
    {
        body();
        std::exit(0);
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

unsigned int Seal()
{
    const unsigned char key[32] = {};
    const unsigned char iv[16] = {};
    const unsigned char text[] = "a password";
    unsigned char out[32];
    unsigned int size = sizeof out;
    return ZEP_CPYPT_Encrypt(0, key, sizeof key, iv, sizeof iv, text, sizeof text, out, &size);
}

// Of a file large enough that the end of the process most often falls within the digest.
bool DigestOfThisProgram()
{
    static const int s_program = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
    unsigned char digest[32] = {};
    std::uint64_t size = 0;
    return zep::Sha256OfFile(s_program, digest, size) && size != 0;
}

// True when a forked child that does nothing ends well, and long before the layer's one second.
bool ChildEndsAtOnce()
{
    const auto start = std::chrono::steady_clock::now();
    return StatusOfChild([] {}) == 0 &&
           std::chrono::steady_clock::now() - start < std::chrono::milliseconds(900);
}

// Registered before the layer's handler, so it runs after it.
void UseAfterTheEnd()
{
    unsigned char byte = 0;
    const bool isRefused = Seal() == ZEP_ERR_CIPHER &&
                           ZEP_CPYPT_RealRandom(&byte, 1) == ZEP_ERR_RANDOM &&
                           !DigestOfThisProgram() && errno == ESHUTDOWN;
    _exit(isRefused ? 7 : 8);
}

TEST(ZepExit, AfterTheExitHandlersCallsAreRefused)
{
    EXPECT_EQ(StatusOfChild(
                  []
                  {
                      std::atexit(UseAfterTheEnd);
                      EXPECT_EQ(Seal(), 0U);
                  }),
              7);
}

// The end does not wait for the disk, and a digest that goes on afterwards uses no library.
TEST(ZepExit, ADigestInProgressFailsWhenTheProcessEnds)
{
    EXPECT_EQ(StatusOfChild(
                  []
                  {
                      std::atexit(  // runs after the layer's
                          []
                          {
                              g_libraryEnded = true;
                              while (g_error == 0)
                              {
                                  std::this_thread::yield();
                              }
                              _exit(g_error == ESHUTDOWN ? 7 : 9);
                          });
                      EXPECT_EQ(Seal(), 0U);
                      g_holdReads = true;
                      std::thread([] { g_error = DigestOfThisProgram() ? -1 : errno; }).detach();
                      Await(g_reading);
                  }),
              7);
}

TEST(ZepExit, AForkedChildDoesNotWaitForThreadsOfItsParent)
{
    EXPECT_EQ(StatusOfChild(
                  []
                  {
                      // After the layer's handler, before the leak checker's: that one would
                      // complain, in the children, of what the parent's thread holds.
                      std::atexit([] { _exit(0); });
                      EXPECT_EQ(Seal(), 0U);
                      static std::atomic<bool> s_stop{false};
                      std::thread sealing(
                          []
                          {
                              // So large that nearly every fork falls within a session.
                              std::vector<unsigned char> out((4U << 20) + 16);
                              while (!s_stop)
                              {
                                  (void)ZEP_CPYPT_RealRandom(out.data(), 4U << 20);
                              }
                          });
                      bool isWell = true;
                      for (int child = 0; child < 5; ++child)
                      {
                          std::this_thread::sleep_for(std::chrono::milliseconds(5));
                          isWell = ChildEndsAtOnce() && isWell;
                      }
                      s_stop = true;
                      sealing.join();
                      _exit(isWell ? 0 : 1);
                  }),
              0);
}

TEST(ZepExit, ThreadsThatNobodyStopsDoNotCrashTheEnd)
{
    for (int round = 0; round < 100; ++round)
    {
        ASSERT_EQ(StatusOfChild(
                      []
                      {
                          // Never joined and never destroyed: the process ends while they run.
                          static std::vector<std::thread>& s_threads =
                              *new std::vector<std::thread>;
                          static std::atomic<int> s_running{0};
                          EXPECT_EQ(Seal(), 0U);
                          for (int index = 0; index < 4; ++index)
                          {
                              s_threads.emplace_back(
                                  []
                                  {
                                      unsigned char byte[32];
                                      for (++s_running; Seal() == 0;)
                                      {
                                          (void)ZEP_CPYPT_RealRandom(byte, sizeof byte);
                                      }
                                      pause();  // refused: the end has begun
                                  });
                          }
                          s_threads.emplace_back(
                              []
                              {
                                  for (++s_running; DigestOfThisProgram();)
                                  {
                                  }
                                  pause();
                              });
                          while (s_running < 5)
                          {
                              std::this_thread::yield();
                          }
                      }),
                  0)
            << "round " << round;
    }
}

}  // namespace
