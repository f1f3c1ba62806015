// The mutexes of the operating-system layer.
#include "osak.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace
{
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// A mutex that ends with the test.
class ScopedMutex
{
public:
    ScopedMutex()
    {
        EXPECT_EQ(OSAK_OK, OSAK_MutexInitRecursive(&m_storage, nullptr));
    }
    ~ScopedMutex()
    {
        (void)OSAK_MutexDestroy(&m_storage);  // tests that end it themselves get a code here
    }
    OSAK_MUTEX* Get()
    {
        return &m_storage;
    }

private:
    OSAK_MUTEX m_storage;
};

// Another thread that holds a mutex from the construction on.
class Holder
{
public:
    explicit Holder(OSAK_MUTEX* mutex) : m_thread([this, mutex] { Run(mutex); })
    {
        m_held.get_future().wait();
    }
    ~Holder()
    {
        Release();
        m_thread.join();
    }
    void Release()
    {
        if (!m_released)
        {
            m_released = true;
            m_release.set_value();
        }
    }

private:
    void Run(OSAK_MUTEX* mutex)
    {
        EXPECT_EQ(OSAK_OK, OSAK_MutexLock(mutex));
        m_held.set_value();
        m_release.get_future().wait();
        EXPECT_EQ(OSAK_OK, OSAK_MutexUnLock(mutex));
    }

    bool m_released = false;
    std::promise<void> m_held;
    std::promise<void> m_release;
    std::thread m_thread;
};

unsigned int OnAnotherThread(unsigned int (*operation)(OSAK_MUTEX*), OSAK_MUTEX* mutex)
{
    return std::async(std::launch::async, operation, mutex).get();
}

// Another thread that calls an operation, which is to wait within it.
class Caller
{
public:
    Caller(unsigned int (*operation)(OSAK_MUTEX*), OSAK_MUTEX* mutex)
        : m_code(std::async(std::launch::async,
                            [this, operation, mutex]
                            {
                                m_thread.set_value(gettid());
                                return operation(mutex);
                            }))
    {
        const pid_t thread = m_thread.get_future().get();
        while (StateOf(thread) != 'S')
        {
            std::this_thread::yield();
        }
    }
    unsigned int Code()
    {
        return m_code.get();
    }

private:
    // The kernel's letter for what the thread does; S: it sleeps.
    static char StateOf(pid_t thread)
    {
        std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
        std::string text;
        std::getline(file, text);
        const size_t name = text.rfind(')');
        return name != std::string::npos && name + 2 < text.size() ? text[name + 2] : '?';
    }

    std::promise<pid_t> m_thread;
    std::future<unsigned int> m_code;
};

void ExpectNoMutex(OSAK_MUTEX* mutex)
{
    EXPECT_EQ(OSAK_ERR_NO_MUTEX, OSAK_MutexLock(mutex));
    EXPECT_EQ(OSAK_ERR_NO_MUTEX, OSAK_MutexUnLock(mutex));
    EXPECT_EQ(OSAK_ERR_NO_MUTEX, OSAK_MutexDestroy(mutex));
}

TEST(OsakMutex, NullGetsACode)
{
    EXPECT_EQ(OSAK_ERR_PARAM, OSAK_MutexInitRecursive(nullptr, nullptr));
    EXPECT_EQ(OSAK_ERR_PARAM, OSAK_MutexLock(nullptr));
    EXPECT_EQ(OSAK_ERR_PARAM, OSAK_MutexUnLock(nullptr));
    EXPECT_EQ(OSAK_ERR_PARAM, OSAK_MutexDestroy(nullptr));
}

TEST(OsakMutex, AttributesAreRefused)
{
    OSAK_MUTEX storage;
    int attributes = 0;
    EXPECT_EQ(OSAK_ERR_PARAM, OSAK_MutexInitRecursive(&storage, &attributes));
    ExpectNoMutex(&storage);
}

TEST(OsakMutex, StorageIsNeitherReadNorWritten)
{
    void* const page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(MAP_FAILED, page);
    auto* mutex = static_cast<OSAK_MUTEX*>(page);
    ExpectNoMutex(mutex);
    EXPECT_EQ(OSAK_OK, OSAK_MutexInitRecursive(mutex, nullptr));
    EXPECT_EQ(OSAK_OK, OSAK_MutexLock(mutex));
    EXPECT_EQ(OSAK_OK, OSAK_MutexUnLock(mutex));
    EXPECT_EQ(OSAK_OK, OSAK_MutexDestroy(mutex));
    ExpectNoMutex(mutex);
    EXPECT_EQ(0, munmap(page, 4096));
}

TEST(OsakMutex, IsRecursive)
{
    ScopedMutex mutex;
    for (int i = 0; i < 3; ++i)
    {
        EXPECT_EQ(OSAK_OK, OSAK_MutexLock(mutex.Get()));
    }
    auto other = std::async(std::launch::async,
                            [&mutex]
                            {
                                const unsigned int code = OSAK_MutexLock(mutex.Get());
                                EXPECT_EQ(OSAK_OK, OSAK_MutexUnLock(mutex.Get()));
                                return code;
                            });
    EXPECT_EQ(OSAK_OK, OSAK_MutexUnLock(mutex.Get()));
    EXPECT_EQ(OSAK_OK, OSAK_MutexUnLock(mutex.Get()));
    EXPECT_EQ(std::future_status::timeout, other.wait_for(milliseconds(20)));
    EXPECT_EQ(OSAK_OK, OSAK_MutexUnLock(mutex.Get()));
    EXPECT_EQ(OSAK_OK, other.get());
}

TEST(OsakMutex, UnlockIsRefusedToOneWhoDoesNotHoldIt)
{
    ScopedMutex mutex;
    EXPECT_EQ(OSAK_ERR_OWNER, OSAK_MutexUnLock(mutex.Get()));
    Holder holder(mutex.Get());
    EXPECT_EQ(OSAK_ERR_OWNER, OSAK_MutexUnLock(mutex.Get()));
}

TEST(OsakMutex, OneUnlockTooManyIsRefused)
{
    ScopedMutex mutex;
    EXPECT_EQ(OSAK_OK, OSAK_MutexLock(mutex.Get()));
    EXPECT_EQ(OSAK_OK, OSAK_MutexUnLock(mutex.Get()));
    EXPECT_EQ(OSAK_ERR_OWNER, OSAK_MutexUnLock(mutex.Get()));
}

TEST(OsakMutex, SecondInitIsRefusedAndTheMutexGoesOn)
{
    ScopedMutex mutex;
    Holder holder(mutex.Get());
    EXPECT_EQ(OSAK_ERR_PARAM, OSAK_MutexInitRecursive(mutex.Get(), nullptr));
    EXPECT_EQ(OSAK_ERR_OWNER, OSAK_MutexUnLock(mutex.Get()));
    holder.Release();
    EXPECT_EQ(OSAK_OK, OSAK_MutexLock(mutex.Get()));
    EXPECT_EQ(OSAK_OK, OSAK_MutexUnLock(mutex.Get()));
}

TEST(OsakMutex, DestroyIsRefusedToItsHolder)
{
    ScopedMutex mutex;
    EXPECT_EQ(OSAK_OK, OSAK_MutexLock(mutex.Get()));
    EXPECT_EQ(OSAK_ERR_OWNER, OSAK_MutexDestroy(mutex.Get()));
    EXPECT_EQ(OSAK_OK, OSAK_MutexUnLock(mutex.Get()));
    EXPECT_EQ(OSAK_OK, OSAK_MutexDestroy(mutex.Get()));
}

TEST(OsakMutex, DestroyedMutexGetsACode)
{
    ScopedMutex mutex;
    EXPECT_EQ(OSAK_OK, OSAK_MutexDestroy(mutex.Get()));
    ExpectNoMutex(mutex.Get());
}

TEST(OsakMutex, AnAddressMayHoldOneMutexAfterAnother)
{
    ScopedMutex mutex;
    for (int i = 0; i < 100; ++i)
    {
        EXPECT_EQ(OSAK_OK, OSAK_MutexDestroy(mutex.Get()));
        EXPECT_EQ(OSAK_OK, OSAK_MutexInitRecursive(mutex.Get(), nullptr));
        EXPECT_EQ(OSAK_OK, OSAK_MutexLock(mutex.Get()));
        EXPECT_EQ(OSAK_OK, OSAK_MutexUnLock(mutex.Get()));
    }
}

TEST(OsakMutex, DestroyWaitsForAHolder)
{
    ScopedMutex mutex;
    Holder holder(mutex.Get());
    Caller destroy(OSAK_MutexDestroy, mutex.Get());
    holder.Release();
    EXPECT_EQ(OSAK_OK, destroy.Code());
}

TEST(OsakMutex, DestroyOfAMutexThatStaysHeldGivesUpAfterASecond)
{
    ScopedMutex mutex;
    Holder holder(mutex.Get());
    const Clock::time_point begin = Clock::now();
    EXPECT_EQ(OSAK_ERR_BUSY, OSAK_MutexDestroy(mutex.Get()));
    const Clock::duration took = Clock::now() - begin;
    EXPECT_GE(took, milliseconds(1000));
    EXPECT_LT(took, milliseconds(3000));
    holder.Release();
    EXPECT_EQ(OSAK_OK, OSAK_MutexLock(mutex.Get()));  // it goes on living
    EXPECT_EQ(OSAK_OK, OSAK_MutexUnLock(mutex.Get()));
}

TEST(OsakMutex, LockersWaitOutADestroyThatGivesUp)
{
    ScopedMutex mutex;
    Holder holder(mutex.Get());
    auto destroyed = std::async(std::launch::async, OSAK_MutexDestroy, mutex.Get());
    auto locked = std::async(std::launch::async,
                             [&mutex]
                             {
                                 const unsigned int code = OSAK_MutexLock(mutex.Get());
                                 EXPECT_EQ(OSAK_OK, OSAK_MutexUnLock(mutex.Get()));
                                 return code;
                             });
    EXPECT_EQ(OSAK_ERR_BUSY, destroyed.get());
    holder.Release();
    EXPECT_EQ(OSAK_OK, locked.get());
}

// A thread that waits to destroy the mutex goes before those that wait to lock it.
TEST(OsakMutex, WaitingThreadsGetACodeWhenItIsDestroyed)
{
    for (int i = 0; i < 50; ++i)
    {
        ScopedMutex mutex;
        Holder holder(mutex.Get());
        Caller first(OSAK_MutexLock, mutex.Get());
        Caller second(OSAK_MutexLock, mutex.Get());
        Caller destroy(OSAK_MutexDestroy, mutex.Get());
        Caller last(OSAK_MutexLock, mutex.Get());
        holder.Release();
        EXPECT_EQ(OSAK_OK, destroy.Code());
        EXPECT_EQ(OSAK_ERR_NO_MUTEX, first.Code());
        EXPECT_EQ(OSAK_ERR_NO_MUTEX, second.Code());
        EXPECT_EQ(OSAK_ERR_NO_MUTEX, last.Code());
    }
}

TEST(OsakMutex, OfTwoThreadsThatDestroyItOneSucceeds)
{
    for (int i = 0; i < 200; ++i)
    {
        ScopedMutex mutex;
        auto other = std::async(std::launch::async, OSAK_MutexDestroy, mutex.Get());
        const unsigned int mine = OSAK_MutexDestroy(mutex.Get());
        const unsigned int others = other.get();
        EXPECT_TRUE((mine == OSAK_OK && others == OSAK_ERR_NO_MUTEX) ||
                    (mine == OSAK_ERR_NO_MUTEX && others == OSAK_OK))
            << mine << " " << others;
    }
}

TEST(OsakMutex, OfTwoThreadsThatInitAnAddressOneSucceeds)
{
    OSAK_MUTEX storage;
    for (int i = 0; i < 200; ++i)
    {
        auto other = std::async(std::launch::async, OSAK_MutexInitRecursive, &storage, nullptr);
        const unsigned int mine = OSAK_MutexInitRecursive(&storage, nullptr);
        const unsigned int others = other.get();
        EXPECT_TRUE((mine == OSAK_OK && others == OSAK_ERR_PARAM) ||
                    (mine == OSAK_ERR_PARAM && others == OSAK_OK))
            << mine << " " << others;
        EXPECT_EQ(OSAK_OK, OSAK_MutexDestroy(&storage));
    }
}

TEST(OsakMutex, NeitherEndedThreadNorItsSuccessorPassesForTheHolder)
{
    // Held for ever, so the address is not to serve another test, nor this one once more.
    static std::vector<std::unique_ptr<OSAK_MUTEX>> s_storages;
    s_storages.push_back(std::make_unique<OSAK_MUTEX>());
    OSAK_MUTEX* const mutex = s_storages.back().get();
    ASSERT_EQ(OSAK_OK, OSAK_MutexInitRecursive(mutex, nullptr));
    EXPECT_EQ(OSAK_OK, OnAnotherThread(OSAK_MutexLock, mutex));
    // The system is free to give the next thread the identity of the one that ended.
    EXPECT_EQ(OSAK_ERR_OWNER, OnAnotherThread(OSAK_MutexUnLock, mutex));
    EXPECT_EQ(OSAK_ERR_BUSY, OSAK_MutexDestroy(mutex));
}

TEST(OsakMutex, ExcludesThreadsFromOneAnother)
{
    ScopedMutex mutex;
    unsigned int counter = 0;  // not atomic: the thread sanitizer watches it
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int t = 0; t < 4; ++t)
    {
        threads.emplace_back(
            [&]
            {
                for (int i = 0; i < 5000; ++i)
                {
                    EXPECT_EQ(OSAK_OK, OSAK_MutexLock(mutex.Get()));
                    EXPECT_EQ(OSAK_OK, OSAK_MutexLock(mutex.Get()));
                    ++counter;
                    EXPECT_EQ(OSAK_OK, OSAK_MutexUnLock(mutex.Get()));
                    EXPECT_EQ(OSAK_OK, OSAK_MutexUnLock(mutex.Get()));
                }
            });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(20000U, counter);
}

TEST(OsakMutex, ThousandsLiveAtOnce)
{
    std::vector<OSAK_MUTEX> storages(5000);
    for (OSAK_MUTEX& storage : storages)
    {
        ASSERT_EQ(OSAK_OK, OSAK_MutexInitRecursive(&storage, nullptr));
    }
    for (OSAK_MUTEX& storage : storages)
    {
        ASSERT_EQ(OSAK_OK, OSAK_MutexLock(&storage));
    }
    for (OSAK_MUTEX& storage : storages)
    {
        ASSERT_EQ(OSAK_OK, OSAK_MutexUnLock(&storage));
        ASSERT_EQ(OSAK_OK, OSAK_MutexDestroy(&storage));
        ASSERT_EQ(OSAK_ERR_NO_MUTEX, OSAK_MutexLock(&storage));
    }
}

// Locks and unlocks as fast as it can, whatever the main thread does to the mutex meanwhile.
class Poller
{
public:
    explicit Poller(std::atomic<OSAK_MUTEX*>& mutex) : m_mutex(mutex), m_thread([this] { Run(); })
    {
        AwaitProgress();
    }
    ~Poller()
    {
        m_stop = true;
        m_thread.join();
    }
    void AwaitProgress() const
    {
        const unsigned int before = m_passes;
        while (m_passes == before)
        {
            std::this_thread::yield();
        }
    }

private:
    void Run()
    {
        while (!m_stop)
        {
            OSAK_MUTEX* const mutex = m_mutex;
            const unsigned int locked = OSAK_MutexLock(mutex);
            if (locked == OSAK_OK)
            {
                EXPECT_EQ(OSAK_OK, OSAK_MutexUnLock(mutex));
            }
            else
            {
                EXPECT_EQ(OSAK_ERR_NO_MUTEX, locked);
            }
            ++m_passes;
        }
    }

    std::atomic<OSAK_MUTEX*>& m_mutex;
    std::atomic<bool> m_stop{false};
    std::atomic<unsigned int> m_passes{0};
    std::thread m_thread;
};

TEST(OsakMutex, IsReplaced10000TimesBeneathAPollingThread)
{
    const auto make = []
    {
        auto* mutex = static_cast<OSAK_MUTEX*>(OSAK_MemMallocD(sizeof(OSAK_MUTEX), 1, "test"));
        EXPECT_EQ(OSAK_OK, OSAK_MutexInitRecursive(mutex, nullptr));
        return mutex;
    };
    std::atomic<OSAK_MUTEX*> current{make()};
    {
        const Poller poller(current);
        for (int i = 0; i < 10000; ++i)
        {
            OSAK_MUTEX* const old = current;
            ASSERT_EQ(OSAK_OK, OSAK_MutexDestroy(old));
            OSAK_MemFreeD(old, 1, "test");
            current = make();
        }
        poller.AwaitProgress();
    }
    EXPECT_EQ(OSAK_OK, OSAK_MutexDestroy(current));
    OSAK_MemFreeD(current, 1, "test");
}

TEST(OsakMutex, IsReplaced10000TimesAtOneAddressBeneathTwoPollingThreads)
{
    OSAK_MUTEX storage;
    std::atomic<OSAK_MUTEX*> current{&storage};
    ASSERT_EQ(OSAK_OK, OSAK_MutexInitRecursive(&storage, nullptr));
    {
        const Poller first(current);
        const Poller second(current);
        for (int i = 0; i < 10000; ++i)
        {
            ASSERT_EQ(OSAK_OK, OSAK_MutexLock(&storage));
            ASSERT_EQ(OSAK_OK, OSAK_MutexUnLock(&storage));
            ASSERT_EQ(OSAK_OK, OSAK_MutexDestroy(&storage));
            ASSERT_EQ(OSAK_OK, OSAK_MutexInitRecursive(&storage, nullptr));
        }
        first.AwaitProgress();
        second.AwaitProgress();
    }
    EXPECT_EQ(OSAK_OK, OSAK_MutexDestroy(&storage));
}

}  // namespace
