// Server names: resolved at the same time, registered with the FTP layer.
#include "server_names.h"

#include <gmock/gmock.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>

#include <atomic>
#include <condition_variable>
#include <future>
#include <mutex>
#include <new>
#include <thread>

#include "fake_layers.h"

namespace client
{
namespace
{

using corpdir_tool::Layers;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

std::vector<ServerEntry> Entries(const std::vector<std::string>& texts)
{
    std::vector<ServerEntry> entries;
    for (const std::string& text : texts)
    {
        entries.push_back({text, FamilyOf(text.c_str()) != AF_UNSPEC});
    }
    return entries;
}

ResolvedServers Resolve(const std::vector<std::string>& texts, const Lookup& lookup,
                        milliseconds limit = kLookupLimit)
{
    ServerLookup servers(Entries(texts), AF_UNSPEC, lookup);
    return servers.Wait(limit);
}

std::vector<std::string> Labels(const ResolvedServers& resolved)
{
    std::vector<std::string> labels;
    for (const Server& server : resolved.servers)
    {
        labels.push_back(server.Label());
    }
    return labels;
}

std::vector<std::string> Problems(const ResolvedServers& resolved)
{
    std::vector<std::string> problems;
    for (const LeftOut& entry : resolved.leftOut)
    {
        problems.push_back(entry.text + ": " + entry.problem);
    }
    return problems;
}

// Blocks the callers of a lookup until it is opened. They own it too, since one may outlive the
// test.
class Gate
{
public:
    void Pass()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        ++m_waiting;
        m_changed.notify_all();
        m_changed.wait(lock, [this] { return m_open; });
    }

    void Open()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_open = true;
        m_changed.notify_all();
    }

    void Await(std::size_t waiting)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [this, waiting] { return m_waiting == waiting; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::size_t m_waiting = 0;
    bool m_open = false;
};

TEST(ServerNames, EveryAddressOfANameComesOnceAndInOrder)
{
    const Lookup lookup = [](const std::string& name, int)
    {
        return name == "a.example" ? LookupResult{{"192.0.2.2", "2001:db8::2"}, ""}
                                   : LookupResult{{"192.0.2.3", "192.0.2.2"}, ""};
    };
    const ResolvedServers resolved =
        Resolve({"192.0.2.1", "a.example", "b.example", "192.0.2.1"}, lookup);
    EXPECT_THAT(Labels(resolved), ElementsAre("192.0.2.1", "192.0.2.2 (a.example)",
                                              "2001:db8::2 (a.example)", "192.0.2.3 (b.example)"));
    EXPECT_THAT(resolved.leftOut, IsEmpty());
}

TEST(ServerNames, ANameWithoutAnAddressIsLeftOut)
{
    const Lookup lookup = [](const std::string&, int) { return LookupResult{{}, "no such name"}; };
    const ResolvedServers resolved = Resolve({"dead.example", "192.0.2.1"}, lookup);
    EXPECT_THAT(Labels(resolved), ElementsAre("192.0.2.1"));
    EXPECT_THAT(Problems(resolved), ElementsAre("dead.example: no such name"));
}

TEST(ServerNames, AddressesAreNotLookedUp)
{
    const Lookup lookup = [](const std::string& name, int)
    {
        ADD_FAILURE() << name;
        return LookupResult{};
    };
    EXPECT_THAT(Labels(Resolve({"192.0.2.1", "2001:db8::1"}, lookup)),
                ElementsAre("192.0.2.1", "2001:db8::1"));
}

TEST(ServerNames, ANameIsLookedUpOnceInTheFamilyAskedFor)
{
    std::atomic<int> lookups{0};
    const Lookup lookup = [&lookups](const std::string&, int family)
    {
        EXPECT_EQ(family, AF_INET6);
        ++lookups;
        return LookupResult{{"2001:db8::1"}, ""};
    };
    ServerLookup servers(Entries({"a.example", "a.example"}), AF_INET6, lookup);
    EXPECT_THAT(servers.Wait().servers, SizeIs(1));
    EXPECT_EQ(lookups, 1);
}

TEST(ServerNames, AllNamesOfAListAreLookedUpAtOnce)
{
    const auto gate = std::make_shared<Gate>();
    std::vector<std::string> names;
    for (int i = 100; i < 300; ++i)
    {
        names.push_back(std::string(49, 'a') + std::to_string(i) + ".example");
    }
    ASSERT_EQ(names.front().size(), 60U);
    const Lookup lookup = [gate](const std::string& name, int)
    {
        gate->Pass();
        return LookupResult{{"192.0.2." + std::to_string(std::stoi(name.substr(49)) - 99)}, ""};
    };
    ServerLookup servers(Entries(names), AF_UNSPEC, lookup);
    gate->Await(names.size());  // lookups one after the other would never reach this count
    gate->Open();
    const ResolvedServers resolved = servers.Wait();
    ASSERT_THAT(resolved.servers, SizeIs(200));
    EXPECT_EQ(resolved.servers[199].Label(), "192.0.2.200 (" + names[199] + ")");
    ASSERT_EQ(RegisterNames(resolved.servers, {}), 0U);
    ASSERT_THAT(Layers().names, SizeIs(200));
    EXPECT_EQ(Layers().names[199], "192.0.2.200=" + names[199]);
}

TEST(ServerNames, MoreNamesThanThreadsAreLookedUpAllTheSame)
{
    std::vector<std::string> names;
    for (int i = 0; i < 1000; ++i)
    {
        names.push_back("host" + std::to_string(i) + ".example");
    }
    const Lookup lookup = [](const std::string&, int) { return LookupResult{{"192.0.2.1"}, ""}; };
    const ResolvedServers resolved = Resolve(names, lookup);
    ASSERT_THAT(resolved.servers, SizeIs(1));
    EXPECT_THAT(resolved.servers[0].listed, SizeIs(1000));
}

TEST(ServerNames, TheTimeOfAllLookupsIsLimited)
{
    EXPECT_EQ(kLookupLimit, milliseconds(10000));
    const auto gate = std::make_shared<Gate>();
    const Lookup lookup = [gate](const std::string& name, int)
    {
        if (name.rfind("slow", 0) == 0)
        {
            gate->Pass();
        }
        return LookupResult{{"192.0.2.1"}, ""};
    };
    const auto begun = steady_clock::now();
    const ResolvedServers resolved =
        Resolve({"slow1.example", "quick.example", "slow2.example"}, lookup, milliseconds(250));
    const auto spent = steady_clock::now() - begun;
    EXPECT_GE(spent, milliseconds(250));
    EXPECT_LT(spent, milliseconds(5000));
    EXPECT_THAT(Labels(resolved), ElementsAre("192.0.2.1 (quick.example)"));
    EXPECT_THAT(Problems(resolved),
                ElementsAre("slow1.example: no answer from the resolver within 0.25 s",
                            "slow2.example: no answer from the resolver within 0.25 s"));
    gate->Open();  // the threads end after their lookup was destroyed
}

TEST(ServerNames, TheEndOfAllLookupsIsReported)
{
    const auto gate = std::make_shared<Gate>();
    const Lookup lookup = [gate](const std::string& name, int)
    {
        if (name == "slow.example")
        {
            gate->Pass();
        }
        return LookupResult{{"192.0.2.1"}, ""};
    };
    std::promise<void> done;
    ServerLookup servers(Entries({"quick.example", "slow.example"}), AF_UNSPEC, lookup,
                         [&done] { done.set_value(); });  // a second call would throw
    gate->Await(1);
    EXPECT_FALSE(servers.IsDone());
    gate->Open();
    done.get_future().wait();
    EXPECT_TRUE(servers.IsDone());
    EXPECT_THAT(servers.Take().leftOut, IsEmpty());
}

TEST(ServerNames, LackOfMemoryEndsAllLookups)
{
    const Lookup lookup = [](const std::string&, int) -> LookupResult { throw std::bad_alloc(); };
    std::promise<void> done;
    ServerLookup servers(Entries({"a.example"}), AF_UNSPEC, lookup, [&done] { done.set_value(); });
    done.get_future().wait();
    EXPECT_TRUE(servers.IsDone());
    EXPECT_THROW((void)servers.Take(), std::bad_alloc);
}

TEST(ServerNames, NothingIsReportedAfterTheDestruction)
{
    const auto gate = std::make_shared<Gate>();
    const auto ended = std::make_shared<std::promise<void>>();
    std::future<void> end = ended->get_future();
    std::atomic<bool> called{false};
    {
        // The thread destroys its copy when it has ended.
        const std::shared_ptr<void> last(nullptr, [ended](void*) { ended->set_value(); });
        const Lookup lookup = [gate, last](const std::string&, int)
        {
            gate->Pass();
            return LookupResult{};
        };
        const ServerLookup servers(Entries({"slow.example"}), AF_UNSPEC, lookup,
                                   [&called] { called = true; });
        gate->Await(1);
    }
    gate->Open();
    end.wait();
    EXPECT_FALSE(called);
}

TEST(ServerNames, MemoryThatRunsOutIsThrownToTheCaller)
{
    const Lookup lookup = [](const std::string&, int) -> LookupResult { throw std::bad_alloc(); };
    EXPECT_THROW(Resolve({"a.example"}, lookup), std::bad_alloc);
}

TEST(ServerNames, LookupsLeaveSignalsToTheProgramsThreads)
{
    const Lookup lookup = [](const std::string&, int)
    {
        sigset_t blocked;
        (void)pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
        const bool all = sigismember(&blocked, SIGTERM) == 1 && sigismember(&blocked, SIGINT) == 1;
        return LookupResult{{all ? "192.0.2.1" : "192.0.2.2"}, ""};
    };
    EXPECT_THAT(Labels(Resolve({"a.example"}, lookup)), ElementsAre("192.0.2.1 (a.example)"));
    sigset_t blocked;
    (void)pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    EXPECT_EQ(sigismember(&blocked, SIGTERM), 0) << "the caller's own mask is as before";
}

TEST(ServerNames, EachAddressIsRegisteredWithTheEntriesThatGaveIt)
{
    const Lookup lookup = [](const std::string& name, int)
    {
        return name == "a.example" ? LookupResult{{"192.0.2.1", "2001:db8::1"}, ""}
                                   : LookupResult{{"192.0.2.1"}, ""};
    };
    const ResolvedServers resolved =
        Resolve({"a.example", "192.0.2.1", "b.example", "192.0.2.9"}, lookup);
    Layers().names = {"of an earlier request"};
    ASSERT_EQ(RegisterNames(resolved.servers, {}), 0U);
    EXPECT_THAT(Layers().names,
                ElementsAre("192.0.2.1=a.example", "192.0.2.1=192.0.2.1", "192.0.2.1=b.example",
                            "2001:db8::1=a.example", "192.0.2.9=192.0.2.9"));
}

TEST(ServerNames, GivenNamesReplaceTheListedOnes)
{
    const ResolvedServers resolved = Resolve({"192.0.2.1", "192.0.2.2"}, SystemLookup);
    ASSERT_EQ(RegisterNames(resolved.servers, {"x.example", "y.example"}), 0U);
    EXPECT_THAT(Layers().names, ElementsAre("192.0.2.1=x.example", "192.0.2.1=y.example",
                                            "192.0.2.2=x.example", "192.0.2.2=y.example"));
}

TEST(ServerNames, ARegistrationThatIsRefusedGivesItsCode)
{
    const ResolvedServers resolved = Resolve({"192.0.2.1", "192.0.2.2"}, SystemLookup);
    Layers().nameResult = 7;
    EXPECT_EQ(RegisterNames(resolved.servers, {}), 7U);
    EXPECT_THAT(Layers().names, SizeIs(1)) << "nothing is registered after a refusal";
    Layers().nameResult = 0;
}

}  // namespace
}  // namespace client
