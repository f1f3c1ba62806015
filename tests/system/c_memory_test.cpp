// That the C library leaves no copy of the password behind, and what it says when memory runs out.
// As in memory_test.cpp, the test knows the password in changed form only, and looks for its end.
#include <pthread.h>
#include <string.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <new>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "c_client.h"
#include "memory_search.h"

// The thread that has no memory; null: none.
static std::atomic<const char*> g_no_memory{nullptr};
// Allocations of this thread until one fails; negative: none does.
static thread_local int t_left = -1;

// The library's calls come here too: a program's definition goes first.
static bool FailsNow()
{
    if (t_left >= 0 && t_left-- == 0)
    {
        return true;
    }
    const char* const thread = g_no_memory;
    char name[16] = "";
    return thread != nullptr && pthread_getname_np(pthread_self(), name, sizeof name) == 0 &&
           strcmp(name, thread) == 0;
}

void* operator new(std::size_t size)
{
    void* const block = FailsNow() ? nullptr : std::malloc(size);
    if (block == nullptr)
    {
        throw std::bad_alloc();
    }
    return block;
}

namespace integration
{
namespace
{

using support::PlacesInMemory;
using support::Scrambled;
using ::testing::IsEmpty;
using ::testing::Not;

// Backwards, so that nothing in this process holds it as it is.
const std::string kReversedEnd = "-gnihtyna-rof-doog-ton-drowssap";

class CMemory : public ::testing::Test
{
protected:
    CMemory() : m_secret(Scrambled::Reversed(kReversedEnd))
    {
        support::FtpServerOptions options;
        options.tls = support::Tls::kExplicit;
        options.certificate = m_certificates.Good();
        m_server = std::make_unique<support::PyFtpServer>(options);
        m_server->AddFile("version.txt", "edition 17\n");
        EXPECT_EQ(corpdir_open(nullptr, &m_client), CORPDIR_OK);
    }

    ~CMemory() override
    {
        corpdir_close(m_client);
    }

    // The caller's copy is wiped after the call, as the header asks for.
    corpdir_code Start(const std::function<void(corpdir_request&)>& change)
    {
        char password[128] = {};
        const std::string reversed = kReversedEnd + std::string(40, '.');
        std::reverse_copy(reversed.begin(), reversed.end(), password);
        CRequest request(*m_server, m_certificates, m_output.Path(), m_events);
        request.record.password = password;
        change(request.record);
        EXPECT_THAT(PlacesInMemory(m_secret), Not(IsEmpty())) << "the search finds nothing";
        const corpdir_code code = corpdir_start(m_client, &request.record);
        explicit_bzero(password, sizeof password);
        return code;
    }

    support::TestCertificates m_certificates;
    std::unique_ptr<support::PyFtpServer> m_server;
    support::TemporaryDirectory m_output;
    Scrambled m_secret;
    RecordedEvents m_events;
    corpdir_client* m_client = nullptr;
};

TEST_F(CMemory, ARequestThatIsRefusedLeavesNoPassword)
{
    // Found last, when the password was copied long ago.
    EXPECT_EQ(Start([](corpdir_request& request) { request.without_verification = 2; }),
              CORPDIR_ERR_VERIFICATION);
    EXPECT_THAT(PlacesInMemory(m_secret), IsEmpty());
}

TEST_F(CMemory, AStartThatFailsLeavesNoPassword)
{
    EXPECT_EQ(Start([](corpdir_request& request) { request.trust = "ca=/nonexistent.pem"; }),
              CORPDIR_ERR_AUTHORITIES);
    EXPECT_THAT(PlacesInMemory(m_secret), IsEmpty());
}

// The password goes all the way to the server, which does not accept it.
TEST_F(CMemory, ACloseLeavesNoPassword)
{
    EXPECT_EQ(Start([](corpdir_request&) {}), CORPDIR_OK);
    ASSERT_TRUE(m_events.WaitFor(CORPDIR_EVENT_FAILED, 2));
    corpdir_close(m_client);
    EXPECT_EQ(m_events.OfKind(CORPDIR_EVENT_FAILED).front().code, CORPDIR_ERR_LOGIN);
    EXPECT_THAT(PlacesInMemory(m_secret), IsEmpty());
}

// A request that waits for its next check keeps the password sealed.
TEST_F(CMemory, BetweenTwoChecksThePasswordIsSealed)
{
    EXPECT_EQ(Start([](corpdir_request&) {}), CORPDIR_OK);
    ASSERT_TRUE(m_events.WaitFor(CORPDIR_EVENT_WAITING));
    EXPECT_THAT(PlacesInMemory(m_secret), IsEmpty());
    ASSERT_EQ(corpdir_check_now(m_client), CORPDIR_OK);
    ASSERT_TRUE(m_events.WaitFor(CORPDIR_EVENT_WAITING, 2));
    EXPECT_EQ(m_events.OfKind(CORPDIR_EVENT_FAILED).back().code, CORPDIR_ERR_LOGIN);
    EXPECT_THAT(PlacesInMemory(m_secret), IsEmpty());
}

TEST_F(CMemory, EventsThatAreLostAreReported)
{
    g_no_memory = "corpdir-notify";
    const corpdir_code code = Start([](corpdir_request&) {});
    EXPECT_TRUE(m_events.WaitFor(CORPDIR_EVENT_LOST));
    g_no_memory = nullptr;
    EXPECT_EQ(code, CORPDIR_OK);
    const Event lost = m_events.OfKind(CORPDIR_EVENT_LOST).front();
    EXPECT_EQ(lost.server + lost.file + lost.reason, "");
    EXPECT_EQ(lost.total, CORPDIR_SIZE_UNKNOWN);
    m_server->AddFile("directory.csv", "number,name\n");
    EXPECT_EQ(Start([this](corpdir_request& request)
                    { request.password = m_server->Options().password.c_str(); }),
              CORPDIR_OK);
    EXPECT_TRUE(m_events.WaitFor(CORPDIR_EVENT_DELIVERED));
}

// Another check begins a second later.
TEST_F(CMemory, AfterALossTheClientGoesOnByItself)
{
    m_server->AddFile("directory.csv", "number,name\n");
    g_no_memory = "corpdir-notify";
    EXPECT_EQ(Start([this](corpdir_request& request)
                    { request.password = m_server->Options().password.c_str(); }),
              CORPDIR_OK);
    EXPECT_TRUE(m_events.WaitFor(CORPDIR_EVENT_LOST));
    g_no_memory = nullptr;
    EXPECT_TRUE(m_events.WaitFor(CORPDIR_EVENT_DELIVERED));
    EXPECT_LE(m_events.OfKind(CORPDIR_EVENT_LOST).size(), 3u);
}

TEST_F(CMemory, AStopNeedsNoMemory)
{
    for (int i = 0; i < 2; ++i)
    {
        // The callback of these tests needs memory.
        EXPECT_EQ(Start([](corpdir_request& request) { request.on_event = nullptr; }), CORPDIR_OK);
        g_no_memory = "corpdir-client";
        i == 0 ? (void)corpdir_stop(m_client) : corpdir_close(m_client);
        g_no_memory = nullptr;
    }
}

TEST_F(CMemory, AStartWithoutMemoryGivesItsCode)
{
    g_no_memory = "corpdir-client";
    const corpdir_code code = Start([](corpdir_request& request) { request.on_event = nullptr; });
    g_no_memory = nullptr;
    EXPECT_EQ(code, CORPDIR_ERR_MEMORY);
    char reason[64] = "";
    (void)corpdir_start_reason(m_client, reason, sizeof reason);
    EXPECT_STREQ(reason, "memory, threads or descriptors ran out");
}

// Whatever allocation fails, the next open succeeds.
TEST_F(CMemory, AnOpenWithoutMemoryLeavesNothing)
{
    corpdir_close(m_client);
    corpdir_code code = CORPDIR_ERR_MEMORY;
    for (int allocations = 0; code != CORPDIR_OK; ++allocations)
    {
        ASSERT_LT(allocations, 200);
        t_left = allocations;
        code = corpdir_open(nullptr, &m_client);
        t_left = -1;
        if (code != CORPDIR_OK)
        {
            EXPECT_EQ(code, CORPDIR_ERR_MEMORY);
            EXPECT_EQ(m_client, nullptr);
            EXPECT_EQ(corpdir_open(nullptr, &m_client), CORPDIR_OK) << allocations;
            corpdir_close(m_client);
        }
    }
}

}  // namespace
}  // namespace integration
