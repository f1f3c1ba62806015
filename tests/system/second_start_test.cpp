// A service that is started a second time while its worker polls: the start takes the mutex away
// beneath the worker.
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

// A fetch shows that the worker, which starts the directory's transfer, goes on with the new mutex.
void ExpectThatAFetchSucceeds(Client& client, const PyFtpServer& server)
{
    const std::size_t told = client.Results().size();
    ASSERT_EQ(client.Ask(RequestTo(server)), 0u);
    ASSERT_TRUE(client.WaitForResults(told + 1));
    EXPECT_THAT(client.Results(), Each(kFetched));
}

TEST(SecondStart, LeavesThePollingWorkerUnharmed)
{
    const std::size_t count = Count("CORPDIR_SECOND_STARTS", 10000, 5000);
    PyFtpServer server{FtpServerOptions{}};
    server.AddFile("version.txt", "edition 17\n");
    server.AddFile("directory.csv", "number,name\n1,Ada\n");
    Client client;
    std::mt19937 random(1);
    // The worker's pause is 50 us: the second start finds it anywhere.
    std::uniform_int_distribution<int> microseconds(0, 150);
    for (std::size_t i = 1; i <= count; ++i)
    {
        ASSERT_EQ(client.Start(0), 0u);
        std::this_thread::sleep_for(std::chrono::microseconds(microseconds(random)));
        ASSERT_EQ(client.Start(0), 0u);
        if (i % 500 == 0)
        {
            ASSERT_NO_FATAL_FAILURE(ExpectThatAFetchSucceeds(client, server));
        }
        client.Stop();
    }
    EXPECT_EQ(osak::CountLiveMemory().blocks, 0u);
    // Each second start met a live mutex, and no layer had anything to complain about.
    EXPECT_EQ(CountLines(client.Log(), "Mutex existed, it will be destoried."), count);
    EXPECT_EQ(CountLines(client.Log(), ""), count);
}

// One start after the other, without a stop in between.
TEST(SecondStart, MayBeFollowedByManyMore)
{
    const std::size_t count = Count("CORPDIR_SECOND_STARTS", 10000, 5000);
    PyFtpServer server{FtpServerOptions{}};
    server.AddFile("version.txt", "edition 17\n");
    server.AddFile("directory.csv", "number,name\n1,Ada\n");
    Client client;
    ASSERT_EQ(client.Start(0), 0u);
    for (std::size_t i = 1; i <= count; ++i)
    {
        ASSERT_EQ(client.Start(0), 0u);
    }
    ASSERT_NO_FATAL_FAILURE(ExpectThatAFetchSucceeds(client, server));
    client.Stop();
    EXPECT_EQ(osak::CountLiveMemory().blocks, 0u);
    EXPECT_EQ(CountLines(client.Log(), "Mutex existed, it will be destoried."), count);
    EXPECT_EQ(CountLines(client.Log(), ""), count);
}

}  // namespace
}  // namespace integration
