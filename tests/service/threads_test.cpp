// All threads of the service at once: the worker, the timer's and the notifications'.
#include <atomic>
#include <thread>

#include "service_test.h"

namespace
{

class ThreadsTest : public ServiceTest
{
};

std::atomic<unsigned int> g_ulReported{0};

void CountCall(unsigned int, unsigned int, const char*, void*)
{
    ++g_ulReported;
}

constexpr unsigned int EXPIRIES = 5000;
constexpr unsigned int FAILURES = 10000;

}  // namespace

// With two servers every second failure of the version file queues a check; each expiry of the
// timer queues one. All of them are started, and every failure is reported.
TEST_F(ThreadsTest, ExpiriesAndFailuresBesideARunningWorkerAllGetTheirDownload)
{
    fakes::SetWorkerMode(fakes::WorkerMode::Free);
    fakes::SetRecording(false);
    g_ulReported = 0;
    tag_CORPDIR_DOWNLOADINFO stInfo = ARequest("192.0.2.1;192.0.2.2");
    ASSERT_EQ(client.CorpDirInit(&stLogInfo), 0U);
    ASSERT_EQ(client.CorpDirDownloadNetaddr(&stInfo, CountCall), 0U);

    std::thread timer(
        []
        {
            for (unsigned int i = 0; i < EXPIRIES; ++i)
            {
                inside::TimerCallback()(nullptr);
            }
        });
    std::thread notifier(
        []
        {
            for (unsigned int i = 0; i < FAILURES; ++i)
            {
                Notification(FAILED, 0xFFFFFFFF, "pub/version.txt").Deliver();
            }
        });
    timer.join();
    notifier.join();
    // The queue must be empty too: the stop would hide a surplus task by dropping it.
    Await(
        [&]
        {
            return fakes::LastDownload().ulTaskID >= 1 + EXPIRIES + FAILURES / 2 &&
                   members.m_listThreadPro.empty();
        });
    client.CorpDirUninit();
    EXPECT_EQ(g_ulReported, FAILURES);
    EXPECT_EQ(fakes::LastDownload().ulTaskID, 1 + EXPIRIES + FAILURES / 2);
}

// A start of a running service replaces the mutex that its worker polls with, and drops the queue.
TEST_F(ThreadsTest, StartsOfARunningServiceBesideItsWorkerKeepIt)
{
    fakes::SetWorkerMode(fakes::WorkerMode::Free);
    fakes::SetRecording(false);
    tag_CORPDIR_DOWNLOADINFO stInfo = ARequest();
    ASSERT_EQ(client.CorpDirInit(&stLogInfo), 0U);
    ASSERT_EQ(client.CorpDirDownloadNetaddr(&stInfo, CountCall), 0U);
    for (int i = 0; i < 1000; ++i)
    {
        inside::TimerCallback()(nullptr);
        ASSERT_EQ(client.CorpDirInit(&stLogInfo), 0U);
    }
    const unsigned int ulBefore = fakes::LastDownload().ulTaskID;
    inside::TimerCallback()(nullptr);
    Await([&] { return fakes::LastDownload().ulTaskID != ulBefore; });
    client.CorpDirUninit();
    EXPECT_EQ(fakes::LiveFtpHandles(), 0U);
    EXPECT_EQ(fakes::LiveMemory(), 0U);
}
