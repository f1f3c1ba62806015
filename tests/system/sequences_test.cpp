// Random sequences of what a client may do, in every wrong order, on the real layers and against
// real servers: plain and TLS, answering and stalling.
//
// CORPDIR_SEQUENCES: how many; CORPDIR_SEQUENCE_SEED: the first one's seed, the following ones
// count up from it. A failure names the seed of its sequence and what was done.
#include <string.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <stdexcept>
#include <thread>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "failing_calloc.h"
#include "lifecycle_counts.h"
#include "osak/live_memory.h"
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
using ::testing::AnyOf;
using ::testing::Each;

constexpr std::chrono::milliseconds kPatience(100);  // for what may come, and may not

// --- Servers ------------------------------------------------------------------------------------

const int kGoodSuites[] = {0x0300009C, 0x03001301, 0x0300003D};

constexpr const char* kVersion = "edition 17\n";

const std::string& Directory()
{
    static const std::string s_bytes = support::PatternBytes(100000, 3);
    return s_bytes;
}

// The scripted server: it sends half of each file and then nothing more.
class StallingServer
{
public:
    explicit StallingServer(const std::vector<std::string>& options)
    {
        support::Command command;
        command.output_file = m_directory.File("output");
        command.arguments = {"/usr/bin/python3", CORPDIR_FAULTY_FTP_SERVER, "--fault", "stall"};
        command.arguments.insert(command.arguments.end(), options.begin(), options.end());
        m_process = std::make_unique<support::Process>(command);
        const auto greets = [&]
        {
            return support::FileExists(command.output_file) &&
                   sscanf(support::ReadFile(command.output_file).c_str(), "READY %u\n", &m_port) ==
                       1;
        };
        if (!WaitUntil(greets))
        {
            throw std::runtime_error("the scripted server does not start");
        }
    }

    unsigned int Port() const
    {
        return m_port;
    }

private:
    support::TemporaryDirectory m_directory;
    std::unique_ptr<support::Process> m_process;
    unsigned int m_port = 0;
};

class Servers
{
public:
    Servers()
        : m_plain(Make(Tls::kNone)),
          m_tls(Make(Tls::kExplicit)),
          m_stalling({}),
          m_stalling_tls({"--tls", "explicit", "--cert", m_certificates.Good().certificate_file,
                          "--key", m_certificates.Good().key_file})
    {
    }

    Request Good(bool tls) const
    {
        return RequestTo(tls ? *m_tls : *m_plain, &m_certificates);
    }

    Request Stalling(bool tls) const
    {
        Request request = Good(tls);
        request.port = tls ? m_stalling_tls.Port() : m_stalling.Port();
        return request;
    }

    // No server listens on this port.
    Request Dead(bool tls) const
    {
        Request request = Good(tls);
        request.port = 1;
        return request;
    }

private:
    std::unique_ptr<PyFtpServer> Make(Tls tls) const
    {
        FtpServerOptions options;
        options.tls = tls;
        options.certificate = m_certificates.Good();
        auto server = std::make_unique<PyFtpServer>(options);
        server->AddFile("version.txt", kVersion);
        server->AddFile("directory.csv", Directory());
        return server;
    }

    TestCertificates m_certificates;
    std::unique_ptr<PyFtpServer> m_plain;
    std::unique_ptr<PyFtpServer> m_tls;
    StallingServer m_stalling;
    StallingServer m_stalling_tls;
};

// --- One sequence -------------------------------------------------------------------------------

// A client that keeps the few rules that ftpcorpdir.h gives, and no order. One call at a time: a
// callback that finds the client's thread inside the service makes none.
class Sequence
{
public:
    Sequence(const Servers& servers, unsigned int seed, std::map<std::string, std::size_t>& tally)
        : m_servers(servers), m_random(seed), m_tally(tally)
    {
        m_client.OnResult([this] { OnCallback(); });
    }
    // A callback of this sequence may still be pending.
    ~Sequence()
    {
        m_client.Stop();
        m_client.OnResult(nullptr);
    }
    Sequence(const Sequence&) = delete;
    Sequence& operator=(const Sequence&) = delete;

    void Run();
    void End();  // stops, and checks that nothing is left

    // The operations so far, for the message of a failure.
    std::string Trail() const
    {
        const std::lock_guard<std::mutex> lock(m_trail_mutex);
        return m_trail;
    }

private:
    // The state of the service as the client knows it.
    enum class State
    {
        kStopped,
        kRunning,
        kFailed  // a start has failed, or may have
    };
    // The action of the next callback.
    enum class Reaction
    {
        kNone,
        kStop,
        kRestart,
        kCipher,
        kLinger,
        kStopTogether  // with the client's thread
    };

    unsigned int Draw(unsigned int below)
    {
        return std::uniform_int_distribution<unsigned int>(0, below - 1)(m_random);
    }
    void Note(const std::string& text);
    void OnCallback();
    void CallBack(Reaction reaction);
    void StopInCallback();

    void Start();
    void StartWithoutLog();
    void Stop();
    void RequestSome();
    void RequestInVain();
    void RequestNothing();
    void ChangeCiphers();
    void FailMemory();
    void Pause();
    void AwaitResult();
    void StopTogether();

    bool IsBusy();
    void MakeReady();
    void Ask(bool tls, unsigned int which);
    void ExpectNothingLeft() const;

    const Servers& m_servers;
    std::mt19937 m_random;
    std::map<std::string, std::size_t>& m_tally;
    Client m_client;

    std::mutex m_call;  // held around every call of the service, but for a stop together
    // Under that lock.
    State m_state = State::kStopped;
    bool m_asked = false;         // a request may be under way
    bool m_tail = false;          // the service may still be busy after a callback that stopped it
    bool m_odd_ciphers = false;   // the list holds a suite that no library knows
    bool m_memory_fails = false;  // at one of the next requests for a block
    bool m_answers = false;       // the request's server does

    std::atomic<Reaction> m_reaction{Reaction::kNone};
    std::atomic<bool> m_stopping{false};
    std::atomic<std::size_t> m_entered{0};  // callbacks
    std::atomic<std::size_t> m_left{0};

    mutable std::mutex m_trail_mutex;
    std::string m_trail;
};

void Sequence::Note(const std::string& text)
{
    const std::lock_guard<std::mutex> lock(m_trail_mutex);
    m_trail += "\n  " + text;
    ++m_tally[text];
}

void Sequence::OnCallback()
{
    ++m_entered;
    const Reaction reaction = m_reaction.exchange(Reaction::kNone);
    if (reaction == Reaction::kStopTogether)
    {
        // The client's thread is about to stop.
        if (WaitUntil([this] { return m_stopping.load(); }, kPatience))
        {
            Note("callback: stop, with the client's thread");
            m_client.Stop();
        }
    }
    else if (reaction == Reaction::kLinger)
    {
        Note("callback: linger");
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    else if (reaction != Reaction::kNone)
    {
        CallBack(reaction);
    }
    ++m_left;
}

void Sequence::CallBack(Reaction reaction)
{
    const std::unique_lock<std::mutex> call(m_call, std::try_to_lock);
    if (!call.owns_lock())
    {
        return;
    }
    if (reaction == Reaction::kCipher)
    {
        Note("callback: add a suite");
        const unsigned int result =
            GetCorpDirInstance()->CorpDirAddFtpCipherListToDirImplByOne(kGoodSuites[0]);
        EXPECT_TRUE(result == 0 || m_memory_fails);
        return;
    }
    StopInCallback();
    if (reaction == Reaction::kRestart)
    {
        Note("callback: start");
        const unsigned int result = m_client.Start();
        EXPECT_TRUE(result == 0 || m_memory_fails);
        m_state = result == 0 ? State::kRunning : State::kFailed;
    }
}

void Sequence::StopInCallback()
{
    Note("callback: stop");
    m_client.Stop();
    m_state = State::kStopped;
    m_asked = m_odd_ciphers = false;
    m_tail = true;
}

void Sequence::Run()
{
    using Operation = void (Sequence::*)();
    static constexpr Operation kOperations[] = {
        &Sequence::Start,         &Sequence::Start,           &Sequence::Start,
        &Sequence::Start,         &Sequence::StartWithoutLog, &Sequence::Stop,
        &Sequence::Stop,          &Sequence::RequestSome,     &Sequence::RequestSome,
        &Sequence::RequestSome,   &Sequence::RequestInVain,   &Sequence::RequestNothing,
        &Sequence::ChangeCiphers, &Sequence::FailMemory,      &Sequence::Pause,
        &Sequence::Pause,         &Sequence::AwaitResult,     &Sequence::StopTogether};
    const unsigned int count = 3 + Draw(10);
    for (unsigned int i = 0; i < count && !::testing::Test::HasFailure(); ++i)
    {
        (this->*kOperations[Draw(std::size(kOperations))])();
    }
}

void Sequence::Start()
{
    const std::lock_guard<std::mutex> call(m_call);
    const unsigned int result = m_client.Start(Draw(3));
    Note((m_state == State::kStopped   ? "start"
          : m_state == State::kRunning ? "start again"
                                       : "start after a failed one") +
         std::string(result == 0 ? "" : ": fails"));
    EXPECT_TRUE(result == 0 || m_state == State::kFailed || m_memory_fails);
    m_state = result == 0 && m_state != State::kFailed ? State::kRunning : State::kFailed;
}

// Fails before it changes anything: a running service keeps running.
void Sequence::StartWithoutLog()
{
    const std::lock_guard<std::mutex> call(m_call);
    Note("start, no such log directory");
    EXPECT_NE(m_client.StartWithLogIn(m_client.OutputDirectory() + "/missing"), 0u);
}

void Sequence::Stop()
{
    const std::lock_guard<std::mutex> call(m_call);
    Note(m_state == State::kStopped ? "stop without need" : "stop");
    m_client.Stop();
    EXPECT_EQ(m_entered, m_left) << "the stop did not wait for the callback";
    m_state = State::kStopped;
    m_asked = m_odd_ciphers = m_tail = false;
}

// A new request is made only when nothing of an earlier one is under way. A result does not show
// that, since after a failure's callback the service tries the next server. A stop does.
void Sequence::MakeReady()
{
    if (IsBusy())
    {
        Stop();
        Start();
    }
    else if (Draw(3) == 0)
    {
        Start();  // otherwise the request may come without a start
    }
}

bool Sequence::IsBusy()
{
    const std::lock_guard<std::mutex> call(m_call);
    return m_asked || m_tail;
}

void Sequence::RequestSome()
{
    static constexpr Reaction kReactions[] = {
        Reaction::kNone,    Reaction::kNone,   Reaction::kStop,  Reaction::kStop,
        Reaction::kRestart, Reaction::kCipher, Reaction::kLinger};
    MakeReady();
    m_reaction = kReactions[Draw(std::size(kReactions))];
    Ask(Draw(2) == 1, Draw(6));
    if (Draw(2) == 1)
    {
        AwaitResult();
    }
}

// 0: a dead server, 1: a stalling one, others: a good one.
void Sequence::Ask(bool tls, unsigned int which)
{
    const Request request = which == 0   ? m_servers.Dead(tls)
                            : which == 1 ? m_servers.Stalling(tls)
                                         : m_servers.Good(tls);
    const std::lock_guard<std::mutex> call(m_call);
    const unsigned int result = m_client.Ask(request);
    Note(std::string(m_state == State::kStopped ? "without a start: " : "") +
         (tls ? "TLS" : "plain") + " request to a " +
         (which == 0   ? "dead"
          : which == 1 ? "stalling"
                       : "good") +
         " server" + (result == 0 ? "" : ": refused"));
    EXPECT_TRUE(result != 0 || m_state != State::kStopped);
    EXPECT_TRUE(result == 0 || m_state != State::kRunning || m_memory_fails || m_odd_ciphers);
    m_asked = m_asked || result == 0;
    m_answers = result == 0 && which != 1;
}

// Refused for their parameters, whatever the state.
void Sequence::RequestInVain()
{
    using Change = void (*)(tag_CORPDIR_DOWNLOADINFO&);
    static constexpr std::pair<const char*, Change> kChanges[] = {
        {"without trusted certificates", [](auto& record) { record.szFtpCtrlInfo[0] = '\0'; }},
        {"without a user", [](auto& record) { record.szUserName[0] = '\0'; }},
        {"without a password", [](auto& record) { record.szPassword[0] = '\0'; }},
        {"with a long password", [](auto& record) { memset(record.szPassword, 'x', 255); }},
        {"without a server file", [](auto& record) { record.szVersionServerFile[0] = '\0'; }},
        {"without a local name", [](auto& record) { record.szVersionLocalFileName[0] = '\0'; }},
        {"with a long directory", [](auto& record) { memset(record.szVersionLocalDir, 'x', 255); }},
        {"without a server", [](auto& record) { record.pszFtpIPs = nullptr; }},
        {"without a callback", [](auto&) {}}};
    MakeReady();
    const std::pair<const char*, Change>& change = kChanges[Draw(std::size(kChanges))];
    const std::lock_guard<std::mutex> call(m_call);
    Note(std::string("request ") + change.first);
    const bool withCallback = change.first != std::string("without a callback");
    EXPECT_NE(m_client.AskWith(m_servers.Good(Draw(2) == 1), change.second, withCallback), 0u);
}

// Allowed at any time, since no record is read.
void Sequence::RequestNothing()
{
    const std::lock_guard<std::mutex> call(m_call);
    Note("request without a record");
    EXPECT_NE(m_client.AskWithoutRecord(), 0u);
}

void Sequence::ChangeCiphers()
{
    if (IsBusy())
    {
        return;  // a transfer may be starting
    }
    const std::lock_guard<std::mutex> call(m_call);
    IFtpCorpDir* const service = GetCorpDirInstance();
    const unsigned int which = Draw(6);
    Note("cipher operation " + std::to_string(which));
    const unsigned int result =
        which == 0   ? service->CorpDirSetFtpCipherListToDirImpl(kGoodSuites, 2)
        : which == 1 ? service->CorpDirSetFtpCipherListToDirImpl(nullptr, 0)
        : which == 2 ? service->CorpDirAddFtpCipherListToDirImpl(kGoodSuites, 3)
        : which == 3 ? service->CorpDirAddFtpCipherListToDirImpl(kGoodSuites, 0)
        : which == 4 ? service->CorpDirAddFtpCipherListToDirImplByOne(kGoodSuites[2])
                     : service->CorpDirAddFtpCipherListToDirImplByOne(0x0300FFFE);
    EXPECT_TRUE((result != 0) == (which == 1) || m_memory_fails);
    m_odd_ciphers = (m_odd_ciphers && which != 0) || which == 5;
}

void Sequence::FailMemory()
{
    const std::lock_guard<std::mutex> call(m_call);
    const unsigned int nth = 1 + Draw(3);
    Note("memory request " + std::to_string(nth) + " from here fails");
    support::FailCalloc(nth);
    m_memory_fails = true;
}

void Sequence::Pause()
{
    const unsigned int microseconds = Draw(4000);
    Note("pause");
    std::this_thread::sleep_for(std::chrono::microseconds(microseconds));
}

void Sequence::AwaitResult()
{
    const std::size_t left = m_left;
    if (!IsBusy() || !m_answers || !WaitUntil([&] { return m_left > left; }, kPatience))
    {
        return;
    }
    const std::lock_guard<std::mutex> call(m_call);
    Note("result " + std::to_string(m_client.Results().back().result));
    // Nothing follows a success; a stop within the callback has cleared it already.
    m_asked = m_asked && m_client.Results().back().result != 0;
}

void Sequence::StopTogether()
{
    MakeReady();
    m_stopping = false;
    m_reaction = Reaction::kStopTogether;
    const std::size_t entered = m_entered;
    Ask(Draw(2) == 1, Draw(3) == 0 ? 0 : 2);
    if (m_answers)
    {
        (void)WaitUntil([&] { return m_entered > entered; }, kPatience);
    }
    m_stopping = true;
    Stop();
    m_reaction = Reaction::kNone;
}

void Sequence::End()
{
    support::FailCalloc(0);
    m_stopping = true;
    Stop();
    m_client.OnResult(nullptr);
    ExpectNothingLeft();
}

void Sequence::ExpectNothingLeft() const
{
    EXPECT_EQ(osak::CountLiveMemory().blocks, 0u);
    EXPECT_THAT(m_client.OutputFiles(), Each(AnyOf("version.txt", "directory.csv")));
    EXPECT_THAT(m_client.Results(), Each(AnyOf(kFetched, kFailed)));
    for (const std::string& name : m_client.OutputFiles())
    {
        EXPECT_EQ(name == "version.txt" ? m_client.Version() : m_client.Directory(),
                  name == "version.txt" ? kVersion : Directory())
            << name;
    }
}

// --- The process --------------------------------------------------------------------------------

// The threads of this process, by number and name.
std::map<std::string, std::string> Threads()
{
    std::map<std::string, std::string> threads;
    for (const std::string& number : support::FilesIn("/proc/self/task"))
    {
        try
        {
            threads[number] = support::ReadFile("/proc/self/task/" + number + "/comm");
        }
        catch (const std::runtime_error&)
        {
            // The thread has ended meanwhile.
        }
    }
    return threads;
}

std::size_t Descriptors()
{
    return support::FilesIn("/proc/self/fd").size();
}

// A stopped service may keep the thread of the timers, and nothing else that the process did not
// have before its first start.
class Leftovers
{
public:
    Leftovers()
    {
        std::thread([] {}).join();  // a sanitizer starts one of its own with the first
        m_before = Threads();
    }

    // A thread that was joined may still be listed for a moment.
    void ExpectNone() const
    {
        EXPECT_TRUE(WaitUntil([this] { return New().empty(); })) << ::testing::PrintToString(New());
    }

private:
    std::map<std::string, std::string> New() const
    {
        std::map<std::string, std::string> threads;
        for (const auto& thread : Threads())
        {
            if (thread.second != "corpdir-timer\n" && m_before.count(thread.first) == 0)
            {
                threads.insert(thread);
            }
        }
        return threads;
    }

    std::map<std::string, std::string> m_before;
};

void ExpectThatAFetchSucceeds(const Servers& servers, bool tls)
{
    Client client;
    ASSERT_EQ(client.Start(), 0u);
    ASSERT_EQ(client.Ask(servers.Good(tls)), 0u) << client.Log();
    ASSERT_TRUE(client.WaitForResults(1)) << client.Log();
    client.Stop();
    EXPECT_THAT(client.Results(), Each(kFetched)) << client.Log();
    EXPECT_EQ(client.Version(), kVersion);
    EXPECT_EQ(client.Directory(), Directory());
}

TEST(LifecycleSequences, NothingIsLeftBehindAndEverythingStillWorks)
{
    const std::size_t count = Count("CORPDIR_SEQUENCES", 1000, 500);
    const auto first = static_cast<unsigned int>(Count("CORPDIR_SEQUENCE_SEED", 1, 1));
    const Servers servers;
    const Leftovers leftovers;
    ASSERT_NO_FATAL_FAILURE(ExpectThatAFetchSucceeds(servers, true));
    const std::size_t descriptors = Descriptors();
    std::map<std::string, std::size_t> tally;
    for (std::size_t i = 0; i < count; ++i)
    {
        const auto seed = static_cast<unsigned int>(first + i);
        Sequence sequence(servers, seed, tally);
        sequence.Run();
        sequence.End();
        leftovers.ExpectNone();
        EXPECT_EQ(Descriptors(), descriptors);
        if (i % 25 == 24 || i + 1 == count)
        {
            ExpectThatAFetchSucceeds(servers, i % 50 == 24);
        }
        ASSERT_FALSE(HasFailure()) << "seed " << seed << ":" << sequence.Trail();
    }
    std::string done;
    for (const auto& what : tally)
    {
        done += what.first + ": " + std::to_string(what.second) + "; ";
    }
    RecordProperty("done", done);
    EXPECT_TRUE(count < 500 || tally.size() >= 40u) << done;
}

}  // namespace
}  // namespace integration
