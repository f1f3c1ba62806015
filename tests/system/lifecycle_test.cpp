// Many starts and stops against a real server.
//
// CORPDIR_CYCLES: how often each test repeats them. The defaults keep the suite quick, with fewer
// under sanitizers, which slow everything down.
#include <atomic>
#include <random>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "lifecycle_counts.h"
#include "service_client.h"

namespace integration
{
namespace
{

using support::FtpServerOptions;
using support::PyFtpServer;
using support::TestCertificates;
using support::Tls;
using support::WaitUntil;
using ::testing::Each;

std::size_t Cycles(std::size_t usual)
{
    return Count("CORPDIR_CYCLES", usual, usual / 3);
}

class Lifecycle : public ::testing::TestWithParam<Tls>
{
protected:
    Lifecycle()
    {
        FtpServerOptions options;
        options.tls = GetParam();
        options.certificate = m_certificates.Good();
        m_server = std::make_unique<PyFtpServer>(options);
        m_server->AddFile("version.txt", "edition 17\n");
        m_server->AddFile("directory.csv", "number,name\n1,Ada\n");
    }

    void StartAndAsk()
    {
        ASSERT_EQ(m_client.Start(), 0u);
        ASSERT_EQ(m_client.Ask(RequestTo(*m_server, &m_certificates)), 0u);
    }

    TestCertificates m_certificates;
    std::unique_ptr<PyFtpServer> m_server;
    Client m_client;
};

TEST_P(Lifecycle, ManyFetches)
{
    const std::size_t cycles = Cycles(200);
    for (std::size_t cycle = 1; cycle <= cycles; ++cycle)
    {
        ASSERT_NO_FATAL_FAILURE(StartAndAsk());
        ASSERT_TRUE(m_client.WaitForResults(cycle)) << "cycle " << cycle;
        m_client.Stop();
    }
    EXPECT_EQ(m_client.Results().size(), cycles);
    EXPECT_THAT(m_client.Results(), Each(kFetched));
}

// The service may be anywhere when it is stopped: connecting, logged in, between the files, done.
TEST_P(Lifecycle, ManyStopsAtAnyMoment)
{
    const std::size_t cycles = Cycles(200);
    std::mt19937 generator(1);
    std::uniform_int_distribution<int> microseconds(0, 40000);
    for (std::size_t cycle = 1; cycle <= cycles; ++cycle)
    {
        ASSERT_NO_FATAL_FAILURE(StartAndAsk());
        std::this_thread::sleep_for(std::chrono::microseconds(microseconds(generator)));
        m_client.Stop();
        EXPECT_LE(m_client.Results().size(), cycle);
    }
    EXPECT_THAT(m_client.Results(), Each(kFetched));
}

TEST_P(Lifecycle, ManyStopsWithinTheCallback)
{
    const std::size_t cycles = Cycles(300);
    std::atomic<std::size_t> stopped{0};
    m_client.OnResult(
        [this, &stopped]
        {
            m_client.Stop();
            ++stopped;
        });
    for (std::size_t cycle = 1; cycle <= cycles; ++cycle)
    {
        ASSERT_NO_FATAL_FAILURE(StartAndAsk());
        // The next start only after the stop has returned: one call at a time.
        ASSERT_TRUE(WaitUntil([&] { return stopped == cycle; })) << "cycle " << cycle;
    }
    m_client.Stop();
    m_client.OnResult(nullptr);
    EXPECT_EQ(m_client.Results().size(), cycles);
    EXPECT_THAT(m_client.Results(), Each(kFetched));
}

TEST_P(Lifecycle, ManyStopsWhileTheCallbackRuns)
{
    const std::size_t cycles = Cycles(300);
    std::atomic<std::size_t> entered{0};
    std::atomic<std::size_t> stopping{0};
    std::atomic<std::size_t> left{0};
    m_client.OnResult(
        [&]
        {
            const std::size_t cycle = ++entered;
            // The stop is about to begin: stay until it is likely to be inside the service.
            (void)WaitUntil([&] { return stopping >= cycle; });
            std::this_thread::sleep_for(std::chrono::microseconds(200 * (cycle % 8)));
            ++left;
        });
    for (std::size_t cycle = 1; cycle <= cycles; ++cycle)
    {
        ASSERT_NO_FATAL_FAILURE(StartAndAsk());
        ASSERT_TRUE(WaitUntil([&] { return entered == cycle; })) << "cycle " << cycle;
        ++stopping;
        m_client.Stop();
        ASSERT_EQ(left, cycle) << "the stop did not wait for the callback";
    }
    m_client.OnResult(nullptr);
    EXPECT_EQ(m_client.Results().size(), cycles);
    EXPECT_THAT(m_client.Results(), Each(kFetched));
}

INSTANTIATE_TEST_SUITE_P(Service, Lifecycle, ::testing::Values(Tls::kNone, Tls::kExplicit),
                         NameOfTls);

}  // namespace
}  // namespace integration
