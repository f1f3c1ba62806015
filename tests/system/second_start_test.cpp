// A service that is started a second time while its worker polls: the start replaces the mutex that
// the worker uses.
//
// CORPDIR_SECOND_STARTS: how often.
#include <chrono>
#include <random>
#include <sstream>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "lifecycle_counts.h"
#include "osak/live_memory.h"
#include "service_client.h"

namespace integration
{
namespace
{

using support::FtpServerOptions;
using support::PyFtpServer;
using ::testing::Each;

std::size_t CountLines(const std::string& text, const std::string& part)
{
    std::istringstream stream(text);
    std::size_t count = 0;
    for (std::string line; std::getline(stream, line);)
    {
        count += line.find(part) != std::string::npos ? 1 : 0;
    }
    return count;
}

class SecondStart : public ::testing::Test
{
protected:
    SecondStart()
    {
        m_server.AddFile("version.txt", "edition 17\n");
        m_server.AddFile("directory.csv", "number,name\n1,Ada\n");
    }

    // A fetch shows that the worker, which starts the directory's transfer, works with the new
    // mutex.
    void ExpectThatAFetchSucceeds()
    {
        const std::size_t before = m_client.Results().size();
        ASSERT_EQ(m_client.Ask(RequestTo(m_server)), 0u);
        ASSERT_TRUE(m_client.WaitForResults(before + 1));
        EXPECT_THAT(m_client.Results(), Each(kFetched));
    }

    // Each second start found a live mutex, no layer logged anything else, and no block is left.
    void ExpectCleanEnd()
    {
        EXPECT_EQ(osak::CountLiveMemory().blocks, 0u);
        EXPECT_EQ(CountLines(m_client.Log(), "Mutex existed, it will be destoried."), m_count);
        EXPECT_EQ(CountLines(m_client.Log(), ""), m_count);
    }

    const std::size_t m_count = Count("CORPDIR_SECOND_STARTS", 10000, 5000);
    PyFtpServer m_server{FtpServerOptions{}};
    Client m_client;
};

TEST_F(SecondStart, LeavesThePollingWorkerUnharmed)
{
    std::mt19937 random(1);
    // The worker sleeps for 50 us or more: the second start comes at a random moment of its loop.
    std::uniform_int_distribution<int> microseconds(0, 150);
    for (std::size_t i = 1; i <= m_count; ++i)
    {
        ASSERT_EQ(m_client.Start(0), 0u);
        std::this_thread::sleep_for(std::chrono::microseconds(microseconds(random)));
        ASSERT_EQ(m_client.Start(0), 0u);
        if (i % 500 == 0)
        {
            ASSERT_NO_FATAL_FAILURE(ExpectThatAFetchSucceeds());
        }
        m_client.Stop();
    }
    ExpectCleanEnd();
}

// One start after the other, without a stop in between.
TEST_F(SecondStart, MayBeFollowedByManyMore)
{
    ASSERT_EQ(m_client.Start(0), 0u);
    for (std::size_t i = 1; i <= m_count; ++i)
    {
        ASSERT_EQ(m_client.Start(0), 0u);
    }
    ASSERT_NO_FATAL_FAILURE(ExpectThatAFetchSucceeds());
    m_client.Stop();
    ExpectCleanEnd();
}

}  // namespace
}  // namespace integration
