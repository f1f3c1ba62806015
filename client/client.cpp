#include "client.h"

#include <stdio.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <system_error>
#include <utility>

#include "base/mutex.h"
#include "client_log.h"
#include "osak/timers.h"
#include "settings_check.h"
#include "travex_ftp.h"

namespace client
{

namespace
{

// Bytes of an invalid version that are reported.
constexpr std::size_t kMaxVersionText = 30;

// The service's interval between two checks.
constexpr std::chrono::seconds kCheckInterval{600};

// The entries that gave each address. A resolver may give the addresses of a name in another order
// each time.
std::map<std::string, std::vector<std::string>> EntriesOf(const std::vector<Server>& servers)
{
    std::map<std::string, std::vector<std::string>> entries;
    for (const Server& server : servers)
    {
        entries[server.address] = server.listed;
    }
    return entries;
}

// Those of this folder; null when they are there, or there is no folder.
std::unique_ptr<Staging> StagingIn(const std::string& folder,
                                   const std::unique_ptr<Staging>& present)
{
    std::unique_ptr<Staging> staging;
    if (!folder.empty() && (present == nullptr || present->Folder() != folder))
    {
        staging = std::make_unique<Staging>(folder);
    }
    return staging;
}

std::string SystemMessage(int error)
{
    return std::generic_category().message(error);
}

}  // namespace

// What the layers' threads have reported. Thread-safe: one mutex guards all members.
class Client::Inbox
{
public:
    // It never throws: when memory runs out, Take() does.
    void Push(Input input) noexcept
    {
        try
        {
            const base::MutexLock lock(m_mutex);
            m_inputs.push_back(std::move(input));
        }
        catch (const std::bad_alloc&)
        {
            SetOutOfMemory();
        }
        m_changed.NotifyAll();
    }

    void SetOutOfMemory() noexcept
    {
        Set(m_outOfMemory);
    }

    // Ends one Take() without an input. woken: by the client's user.
    void Wake() noexcept
    {
        Set(m_woken);
    }
    void Nudge() noexcept
    {
        Set(m_nudged);
    }

    // The next input; nothing at the deadline or when it was woken. Throws std::bad_alloc when an
    // input was lost: it may be the one awaited, so this comes before all others.
    std::optional<Input> Take(Clock::time_point deadline, bool& woken)
    {
        const base::MutexLock lock(m_mutex);
        while (!m_outOfMemory && !m_woken && !m_nudged && m_inputs.empty() &&
               m_changed.WaitUntil(m_mutex, deadline))
        {
        }
        if (m_outOfMemory)
        {
            throw std::bad_alloc();
        }
        woken = std::exchange(m_woken, false);
        m_nudged = false;
        if (woken || m_inputs.empty())
        {
            return std::nullopt;
        }
        Input input = std::move(m_inputs.front());
        m_inputs.pop_front();
        return input;
    }

    // What has arrived, one at a time. Takes no memory.
    std::optional<Input> TakeNow() noexcept
    {
        const base::MutexLock lock(m_mutex);
        if (m_inputs.empty())
        {
            return std::nullopt;
        }
        Input input = std::move(m_inputs.front());
        m_inputs.pop_front();
        return input;
    }

    void ForgetLostInputs()
    {
        const base::MutexLock lock(m_mutex);
        m_outOfMemory = false;
    }

private:
    void Set(bool& flag) noexcept
    {
        {
            const base::MutexLock lock(m_mutex);
            flag = true;
        }
        m_changed.NotifyAll();
    }

    base::Mutex m_mutex;
    base::CondVar m_changed;
    std::deque<Input> m_inputs CORPDIR_GUARDED_BY(m_mutex);
    bool m_woken = false;   // guarded by m_mutex, as the next two
    bool m_nudged = false;  // something else than an input is to be looked at
    bool m_outOfMemory = false;
};

// What happens on the FTP layer's threads: files that have arrived are read, or put aside, before
// the service goes on. Constant while the service runs.
class Client::Observer
{
public:
    Observer(const Settings& settings, Staging& staging, std::string current, Inbox& inbox,
             ServiceLink& link)
        : m_versionFile(settings.versionFile),
          m_current(std::move(current)),
          m_staging(staging),
          m_inbox(inbox),
          m_link(link)
    {
    }

    void Observe(const tagTRAVEX_FTP_S_OBSERVATION& seen) const noexcept
    {
        try
        {
            Input input;
            input.transfer = EventOf(seen);
            if (input.transfer.kind == EventKind::kTransferred)
            {
                const bool isVersion = input.transfer.file == m_versionFile;
                (this->*(isVersion ? &Observer::ReadVersion : &Observer::PutAside))(input);
            }
            m_inbox.Push(std::move(input));
        }
        catch (const std::bad_alloc&)
        {
            m_inbox.SetOutOfMemory();
        }
    }

private:
    void ReadVersion(Input& input) const
    {
        auto seen = std::make_shared<Seen>();
        (void)clock_gettime(CLOCK_REALTIME, &seen->read);
        seen->file = ReadVersionFile(m_staging.Path(Staging::File::kVersion));
        // The service would queue the directory file when this returns.
        input.stopped = !m_current.empty() && seen->file.version == m_current;
        if (input.stopped)
        {
            m_link.StopInObserver();
        }
        input.version = std::move(seen);
    }

    void PutAside(Input& input) const
    {
        input.path = m_staging.PutDirectoryAside();
        if (!input.path.empty())
        {
            return;
        }
        input.transfer.code = TRAVEX_FTP_ERR_LOCAL_FILE;
        input.transfer.reason = "cannot rename '" + m_staging.Path(Staging::File::kDirectory) +
                                "': " + SystemMessage(errno);
    }

    const std::string m_versionFile;
    const std::string m_current;  // version of the local files; empty: fetch in any case
    Staging& m_staging;
    Inbox& m_inbox;
    ServiceLink& m_link;
};

Client::Client(IFtpCorpDir& service, Lookup lookup)
    : m_findAddresses(std::move(lookup)), m_inbox(std::make_unique<Inbox>()), m_link(service)
{
    TRAVEX_FTP_SetObserver(&Observe, nullptr);
}

Client::~Client()
{
    Stop();
    TRAVEX_FTP_SetObserver(nullptr, nullptr);
}

void Client::Observe(void* user, const tagTRAVEX_FTP_S_OBSERVATION* seen)
{
    if (!IsOfSettingsCheck(*seen) && user != nullptr)
    {
        static_cast<const Observer*>(user)->Observe(*seen);
    }
}

template <class Call>
auto Client::OrStop(const Call& call)
{
    try
    {
        return call();
    }
    catch (...)
    {
        Stop();
        throw;
    }
}

void Client::Open(const Settings& settings)
{
    m_link.Start(settings);
}

void Client::Check(const Settings& settings)
{
    m_link.StartWhenStopped(m_state == State::kPausing ? m_settings : settings);
    CheckSettings(settings);
}

void Client::Start(Settings settings, FirstFailure failure)
{
    const bool oneFolder = settings.versionFolder == settings.directoryFolder;
    const std::string versionFolder = oneFolder ? "" : settings.versionFolder;
    std::unique_ptr<Staging> directories = StagingIn(settings.directoryFolder, m_directories);
    std::unique_ptr<Staging> versions = StagingIn(versionFolder, m_versions);
    Stop();
    TRAVEX_FTP_SetObserver(&Observe, nullptr);
    m_events.clear();
    m_warning.clear();
    m_settings = std::move(settings);
    {
        const base::MutexLock lock(m_stagingMutex);
        if (directories != nullptr)
        {
            m_directories.swap(directories);
        }
        if (versions != nullptr || oneFolder)
        {
            m_versions.swap(versions);
        }
    }
    m_files = std::make_unique<LocalFiles>(m_settings, *m_directories,
                                           m_versions == nullptr ? *m_directories : *m_versions);
    std::string warning;
    const std::string current = m_settings.onlyIfChanged ? m_files->Current(warning) : "";
    Warn(warning);
    SetObserver(current);
    m_failures = m_files->Failures();
    m_mayRetry = failure == FirstFailure::kRetry;
    m_loginRefused = false;
    OrStop([this] { BeginCheck(); });
    m_mayRetry = failure != FirstFailure::kFinal;
}

std::string Client::GiveUp(const std::string& reason)
{
    std::string warning = m_files->NoteFailure(reason);
    Warn(warning);
    Stop();
    return warning;
}

void Client::NoteCommand(bool due)
{
    Warn(m_files->NoteCommand(due));
}

// current: the version of the local files, of which no directory file is fetched; or empty.
void Client::SetObserver(const std::string& current)
{
    auto observer =
        std::make_unique<Observer>(m_settings, *m_directories, current, *m_inbox, m_link);
    TRAVEX_FTP_SetObserver(&Observe, observer.get());
    m_observer = std::move(observer);
}

std::optional<Event> Client::Next(Clock::time_point deadline)
{
    return OrStop([this, deadline] { return NextEvent(deadline); });
}

std::optional<Event> Client::NextEvent(Clock::time_point deadline)
{
    for (;;)
    {
        if (!m_events.empty())
        {
            Event event = std::move(m_events.front());
            m_events.pop_front();
            return event;
        }
        const Clock::time_point now = Clock::now();
        if (m_lookup != nullptr && (m_lookup->IsDone() || now >= m_lookupEnds))
        {
            OnLookedUp();
            continue;
        }
        if (m_state == State::kPausing && now >= m_due)
        {
            BeginCheck();
            continue;
        }
        Clock::time_point end = deadline;
        end = m_lookup != nullptr ? std::min(end, m_lookupEnds) : end;
        end = m_state == State::kPausing ? std::min(end, m_due) : end;
        bool woken = false;
        const std::optional<Input> input = m_inbox->Take(end, woken);
        if (input)
        {
            Handle(*input);
        }
        else if (woken || Clock::now() >= deadline)
        {
            return std::nullopt;
        }
    }
}

void Client::Wake() noexcept
{
    m_inbox->Wake();
}

void Client::CheckNow()
{
    switch (m_state)
    {
        case State::kIdle:
            m_state = State::kChecking;
            osak::ExpireTimers();
            break;
        case State::kPausing:
            m_due = Clock::now();
            break;
        case State::kChecking:
        case State::kFetching:  // the version was read already
            m_checkAgain = true;
            break;
        default:
            break;
    }
}

void Client::Stop()
{
    m_link.Stop();
    m_lookup.reset();
    ForgetInputs();
    m_inbox->ForgetLostInputs();
    m_checkAgain = false;
    m_state = State::kStopped;
}

// What a request that is over has left.
void Client::ForgetInputs()
{
    while (const std::optional<Input> input = m_inbox->TakeNow())
    {
        if (!input->path.empty())
        {
            (void)remove(input->path.c_str());
        }
    }
}

void Client::RemoveStaged() const noexcept
{
    const base::MutexLock lock(m_stagingMutex);
    for (const Staging* staging : {m_directories.get(), m_versions.get()})
    {
        if (staging != nullptr)
        {
            staging->Remove();
        }
    }
}

// With names looked up again, and a new request. The service is started first: it opens the log.
void Client::BeginCheck()
{
    const auto begin = [this]
    {
        m_link.Start(m_settings);
        LookUp();
    };
    if (Try(begin))
    {
        m_state = State::kResolving;
    }
}

// Calls the service. At the start a service that does not start is the user's affair. Later the
// cause may be temporary, such as a full disk: the check has failed then, and it returns false.
bool Client::Try(const std::function<void()>& call)
{
    try
    {
        call();
        return true;
    }
    catch (const StartError& error)
    {
        if (!m_mayRetry)
        {
            throw;
        }
        TransferEvent transfer;
        transfer.reason = error.what();
        transfer.code = static_cast<unsigned int>(error.Log());
        (void)SayFailed(Event::Kind::kStartFailed, {}, transfer);
        FailCheck(error.what());
        Pause();
        return false;
    }
}

void Client::LookUp()
{
    try
    {
        m_lookup = std::make_unique<ServerLookup>(m_settings.servers, m_settings.family,
                                                  m_findAddresses, [this] { m_inbox->Nudge(); });
    }
    catch (const std::system_error& error)
    {
        throw StartError(std::string("cannot look up the servers: ") + error.what());
    }
    m_lookupEnds = Clock::now() + kLookupLimit;
}

void Client::OnLookedUp()
{
    ResolvedServers resolved = m_lookup->Take();
    m_lookup.reset();
    for (const Server& server : resolved.servers)
    {
        if (!server.name.empty())
        {
            CLIENT_LOG(CORPDIR_LOG_NOTICE, "Server %s has the address %s", server.name.c_str(),
                       server.address.c_str());
        }
    }
    std::string problem;
    for (const LeftOut& entry : resolved.leftOut)
    {
        problem = entry.text + ": " + entry.problem;
        TransferEvent transfer;
        transfer.reason = entry.problem;
        (void)SayFailed(Event::Kind::kNameFailed, {"", entry.text, {}}, transfer);
        CLIENT_LOG(CORPDIR_LOG_ERROR, "No address for server %s: %s", entry.text.c_str(),
                   entry.problem.c_str());
    }
    const bool asked = m_state == State::kResolving;
    if (resolved.servers.empty())
    {
        if (asked)
        {
            FailCheck(problem);
            Pause();
        }
        return;
    }
    // If a name has no address at the moment, the addresses of the current request stay in use.
    const bool moved = m_state == State::kIdle && resolved.leftOut.empty() &&
                       EntriesOf(resolved.servers) != EntriesOf(m_found);
    if (asked || moved)
    {
        m_found = std::move(resolved.servers);
        m_servers = m_found;
        m_failed.clear();
        m_left.clear();
        m_goesOn = client::Next::kNothing;
        Request(0);
    }
}

// Makes a request that begins with this server of the previous one.
void Client::Request(std::size_t first)
{
    std::rotate(m_servers.begin(), m_servers.begin() + static_cast<std::ptrdiff_t>(first),
                m_servers.end());
    m_version.clear();
    m_expected.clear();
    m_read.reset();
    m_checkTask = 0;
    m_asksNext = SecondServer();
    m_lookup.reset();
    unsigned int code = 0;
    const auto request = [this, &code]
    {
        m_link.Start(m_settings);
        ForgetInputs();
        code = m_link.Request(m_settings, m_servers, m_directories->Name(Staging::File::kVersion),
                              m_directories->Name(Staging::File::kDirectory),
                              std::exchange(m_loginRefused, false));
    };
    if (!Try(request))
    {
        return;
    }
    m_state = State::kChecking;
    if (code != 0)
    {
        OnRequestRefused(code);
    }
}

// The refusal was observed on this thread, before the request returned.
void Client::OnRequestRefused(unsigned int code)
{
    TransferEvent refusal;
    refusal.kind = EventKind::kRefused;
    refusal.reason = "the request could not be started (code " + std::to_string(code) + ")";
    while (const std::optional<Input> input = m_inbox->TakeNow())
    {
        refusal = input->transfer.kind == EventKind::kRefused ? input->transfer : refusal;
    }
    OnRefused(refusal);
}

void Client::Handle(const Input& input)
{
    const TransferEvent& transfer = input.transfer;
    const bool ended =
        transfer.kind == EventKind::kTransferred || transfer.kind == EventKind::kFailed;
    const bool endsCheck = ended && transfer.task == m_checkTask;
    m_checkTask = endsCheck ? 0 : m_checkTask;
    switch (transfer.kind)
    {
        case EventKind::kAccepted:
            OnAccepted(transfer);
            break;
        case EventKind::kTransferred:
            if (!IsVersionFile(transfer))
            {
                OnDirectory(input);
            }
            else if (endsCheck || input.stopped)
            {
                OnVersion(input);
            }
            break;
        case EventKind::kFailed:
            OnFailed(transfer);
            break;
        case EventKind::kRefused:
            OnRefused(transfer);
            break;
        default:
            Say(Event::Kind::kProgress, ServerOf(transfer)).transfer = transfer;
            break;
    }
}

void Client::OnAccepted(const TransferEvent& transfer)
{
    m_mayRetry = true;
    if (!IsVersionFile(transfer))
    {
        m_expected[transfer.task] = m_read;
        return;
    }
    m_checkTask = transfer.task;
    m_state = State::kChecking;
    Event& event = Say(Event::Kind::kChecking, ServerOf(transfer));
    event.transfer = transfer;
    event.next = std::exchange(m_goesOn, Next::kNothing);
}

// The service reads the version by the same rule, of its latest transfer alone, and goes on to the
// directory file when it is valid and new.
void Client::OnVersion(const Input& input)
{
    const VersionFile& file = input.version->file;
    if (file.error != 0)
    {
        TransferEvent transfer = input.transfer;
        transfer.code = TRAVEX_FTP_ERR_LOCAL_FILE;
        transfer.reason = "the version file that arrived " + file.problem;
        OnLocalFileFailed(transfer);
        return;
    }
    if (!file.version)
    {
        OnInvalidVersion(input.transfer, file);
        return;
    }
    m_asksNext = 0;
    if (input.stopped || *file.version == m_version)
    {
        OnUnchanged(input);
        return;
    }
    m_read = input.version;
    m_version = *file.version;
    Event& event = Say(Event::Kind::kNewVersion, ServerOf(input.transfer));
    event.version = m_version;
    event.known = m_files->HasVersion(m_version);
    event.transfer = input.transfer;
    Warn(file.warning);
    m_state = State::kFetching;
}

void Client::OnUnchanged(const Input& input)
{
    if (!m_expected.empty() && !input.stopped)
    {
        m_state = State::kFetching;  // the directory file of this version is not there yet
        return;
    }
    const Server server = ServerOf(input.transfer);
    const Seen& seen = *input.version;
    std::string warning;
    const bool current = m_files->NoteUnchanged(seen.file, seen.read, warning);
    Warn(seen.file.warning);
    Warn(warning);
    if (!current)
    {
        m_warning.clear();  // repeated each time
        Warn("the local files are missing or not those that were fetched; they are fetched again");
        if (input.stopped)
        {
            SetObserver("");
        }
        Request(IndexOf(server));
        return;
    }
    Event& event = Say(Event::Kind::kUnchanged, server);
    event.version = *seen.file.version;
    event.path = m_settings.DirectoryPath();
    event.size = m_files->Size();
    event.transfer = input.transfer;
    Succeed();
    if (input.stopped)
    {
        Stop();
    }
}

void Client::OnInvalidVersion(const TransferEvent& transfer, const VersionFile& file)
{
    const Server server = ServerOf(transfer);
    m_failed.insert(server.address);
    TransferEvent read = transfer;
    read.reason = "the version file is not valid: " + file.problem;
    Event& event = SayFailed(Event::Kind::kInvalidVersion, server, read);
    event.version = file.bytes.substr(0, file.bytes.find('\n')).substr(0, kMaxVersionText);
    event.next = AllFailed() ? Next::kNothing : Next::kOtherServer;
    CLIENT_LOG(CORPDIR_LOG_ERROR, "The version file %s from server %s is not valid: %s",
               transfer.file.c_str(), server.Label().c_str(), file.problem.c_str());
    GoOn(server, read.reason);
}

void Client::OnDirectory(const Input& input)
{
    const auto expected = m_expected.find(input.transfer.task);
    if (expected == m_expected.end() || expected->second == nullptr)
    {
        (void)remove(input.path.c_str());  // no version belongs to it
        return;
    }
    const std::shared_ptr<const Seen> seen = expected->second;
    m_expected.erase(expected);
    const Server server = ServerOf(input.transfer);
    TransferEvent transfer = input.transfer;
    try
    {
        if (input.path.empty())
        {
            throw std::runtime_error(transfer.reason);
        }
        const Commit commit =
            m_files->Replace({seen->file, seen->read, input.path, server.Label()});
        Warn(commit.warning);
        Event& event =
            Say(commit.unchanged ? Event::Kind::kUnchanged : Event::Kind::kDelivered, server);
        event.version = *seen->file.version;
        event.path = m_settings.DirectoryPath();
        event.size = commit.size;
        event.fetched = true;
        event.transfer = transfer;
        Succeed();
    }
    catch (const std::bad_alloc&)
    {
        throw;
    }
    catch (const std::runtime_error& error)  // std::system_error too
    {
        (void)remove(input.path.c_str());
        transfer.code = TRAVEX_FTP_ERR_LOCAL_FILE;
        transfer.reason = error.what();
        CLIENT_LOG(CORPDIR_LOG_ERROR, "The files from server %s cannot be put into place: %s",
                   server.Label().c_str(), error.what());
        OnLocalFileFailed(transfer);
    }
}

void Client::OnFailed(const TransferEvent& transfer)
{
    const bool isTemporary = transfer.reply / 100 == 4;
    m_loginRefused = m_loginRefused || (transfer.code == TRAVEX_FTP_ERR_LOGIN && !isTemporary);
    if (transfer.code == TRAVEX_FTP_ERR_LOCAL_FILE)
    {
        OnLocalFileFailed(transfer);
    }
    else if (IsVersionFile(transfer))
    {
        OnVersionFailed(transfer);
    }
    else
    {
        OnDirectoryFailed(transfer);
    }
}

// Another server would not help.
void Client::OnLocalFileFailed(const TransferEvent& transfer)
{
    (void)SayFailed(Event::Kind::kFailed, ServerOf(transfer), transfer);
    FailCheck(transfer.reason);
    Pause();
}

// The service goes on to the next server by itself until its list is used up. Then it begins again
// with all servers at its next check.
void Client::OnVersionFailed(const TransferEvent& transfer)
{
    const Server server = ServerOf(transfer);
    m_failed.insert(server.address);
    const bool usedUp = m_asksNext == m_servers.size();
    const std::string next = usedUp ? "" : m_servers[m_asksNext].address;
    m_asksNext = usedUp ? SecondServer() : m_asksNext + 1;
    const bool over = usedUp || m_left.count(next) != 0;
    m_goesOn = over                     ? Next::kNothing
               : next == server.address ? Next::kSameServer
                                        : Next::kOtherServer;
    SayFailed(Event::Kind::kFailed, server, transfer).next = m_goesOn;
    if (!over)
    {
        return;
    }
    FailCheck(server.Label() + ": " + transfer.reason);
    // After a refused login the service would log in with the same password.
    if (m_version.empty() || !usedUp || m_loginRefused)
    {
        Pause();
    }
    else
    {
        EndCheck();
    }
    if (m_state == State::kIdle)
    {
        Say(Event::Kind::kWaiting, {}).wait = kCheckInterval;
        (void)Try([this] { LookUp(); });
    }
}

void Client::OnDirectoryFailed(const TransferEvent& transfer)
{
    const auto expected = m_expected.find(transfer.task);
    const bool isLatest = expected != m_expected.end() && expected->second == m_read;
    if (expected != m_expected.end())
    {
        m_expected.erase(expected);
    }
    const Server server = ServerOf(transfer);
    m_failed.insert(server.address);
    // The service begins its list again after any failure when it is used up.
    m_asksNext = m_asksNext == m_servers.size() ? SecondServer() : m_asksNext;
    Event& event = SayFailed(Event::Kind::kFailed, server, transfer);
    if (isLatest)  // else a newer one follows
    {
        event.next = AllFailed() ? Next::kNothing : Next::kOtherServer;
        GoOn(server, transfer.reason);
    }
}

// At the start refused settings are the user's mistake. Later the cause may be temporary: a missing
// file, or lack of memory.
void Client::OnRefused(const TransferEvent& transfer)
{
    const bool final = !m_mayRetry && IsSettingsRefusal(transfer.code);
    const Server server = transfer.server.empty() ? m_servers.front() : ServerOf(transfer);
    (void)SayFailed(final ? Event::Kind::kRefused : Event::Kind::kFailed, server, transfer);
    if (final)
    {
        Stop();
        return;
    }
    FailCheck(transfer.reason);
    Pause();
}

// To the next server that has not failed; the service itself would not go there.
void Client::GoOn(const Server& failed, const std::string& reason)
{
    if (AllFailed())
    {
        FailCheck(failed.Label() + ": " + reason);
        Pause();
        return;
    }
    std::size_t next = IndexOf(failed);
    while (m_failed.count(m_servers[next].address) != 0)
    {
        next = (next + 1) % m_servers.size();
    }
    m_left = m_failed;
    m_goesOn = Next::kOtherServer;
    Request(next);
}

// The directory file is current.
void Client::Succeed()
{
    if (m_failures != 0)
    {
        Say(Event::Kind::kRecovered, {}).failures = std::exchange(m_failures, 0);
    }
    EndCheck();
}

void Client::EndCheck()
{
    m_failed.clear();
    m_left.clear();
    m_loginRefused = false;
    m_state = !m_expected.empty() ? State::kFetching
              : m_checkTask != 0  ? State::kChecking
                                  : State::kIdle;
    if (m_state == State::kIdle && std::exchange(m_checkAgain, false))
    {
        CheckNow();
    }
}

void Client::FailCheck(const std::string& reason)
{
    Warn(m_files->NoteFailure(reason));
    Event& event = m_events.emplace_back(m_failure);
    event.failure = std::exchange(event.kind, Event::Kind::kPassFailed);
    event.failures = ++m_failures;
}

// Stops the service, and makes a new request after a while; at once when a check was asked for
// during the one that has failed. A refused login is repeated as rarely as the service checks: at
// one login a minute servers that count failures would lock the account.
void Client::Pause()
{
    const std::chrono::seconds usual =
        m_loginRefused ? std::max(m_settings.retry, kCheckInterval) : m_settings.retry;
    const std::chrono::seconds wait = m_checkAgain ? std::chrono::seconds(0) : usual;
    Stop();
    m_state = State::kPausing;
    m_due = Clock::now() + wait;
    Event& event = Say(Event::Kind::kWaiting, {});
    event.wait = wait;
    event.retries = true;
}

Event& Client::Say(Event::Kind kind, const Server& server)
{
    Event& event = m_events.emplace_back();
    event.kind = kind;
    event.server = server;
    return event;
}

Event& Client::SayFailed(Event::Kind kind, const Server& server, const TransferEvent& transfer)
{
    Event& event = Say(kind, server);
    event.transfer = transfer;
    event.serverFailed = kind != Event::Kind::kStartFailed &&
                         transfer.kind != EventKind::kRefused &&
                         transfer.code != TRAVEX_FTP_ERR_LOCAL_FILE;
    m_failure = event;
    return event;
}

// Nothing for an empty text. Each check of a watch may repeat a warning: it is said once.
void Client::Warn(const std::string& reason)
{
    if (reason.empty())
    {
        return;
    }
    if (reason != m_warning)
    {
        CLIENT_LOG(CORPDIR_LOG_NOTICE, "Warning: %s", reason.c_str());
        m_warning = reason;
        Say(Event::Kind::kWarning, {}).transfer.reason = reason;
    }
}

bool Client::IsVersionFile(const TransferEvent& transfer) const
{
    return transfer.file == m_settings.versionFile;
}

// The server with its name.
Server Client::ServerOf(const TransferEvent& transfer) const
{
    const std::string address = AddressOfEndpoint(transfer.server);
    for (const Server& server : m_servers)
    {
        if (server.address == address)
        {
            return server;
        }
    }
    return {address, "", {}};
}

// Of a server of the request; else 0.
std::size_t Client::IndexOf(const Server& server) const
{
    std::size_t index = 0;
    while (index != m_servers.size() && m_servers[index].address != server.address)
    {
        ++index;
    }
    return index == m_servers.size() ? 0 : index;
}

// The server that the service asks after the first; a single one is asked twice.
std::size_t Client::SecondServer() const
{
    return m_servers.size() == 1 ? 0 : 1;
}

bool Client::AllFailed() const
{
    return m_failed.size() >= m_servers.size();
}

}  // namespace client
