// Keeps one directory current, on top of the service.
#ifndef CORPDIR_CLIENT_CLIENT_H
#define CORPDIR_CLIENT_CLIENT_H

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "event.h"
#include "ftpcorpdir.h"
#include "local_files.h"
#include "server_names.h"
#include "service_link.h"
#include "settings.h"
#include "staging.h"
#include "transfer_event.h"

namespace client
{

// The service checks the version every ten minutes, and goes through the servers while the version
// file fails. It does not retry a directory file that failed, a version that is not valid, or a
// transfer that could not be started, and never looks up names again. In these cases the client
// stops the service and makes a new request:
//   - at once, to the next server, when the directory file failed or the version is not valid;
//   - at once, to the same server, when the version is unchanged and the local files are gone or
//     another process has replaced them by those of another version;
//   - after settings.retry, with names looked up again, when every server failed in this way, when
//     a local file could not be written, or when no version was seen since the request;
//   - when every server failed and their names have other addresses now.
// A check ends with kUnchanged, kDelivered or kPassFailed; its warnings come before. kRecovered and
// kWaiting may follow.
//
// Both files arrive under names of the client's own. The version that was read last before a
// directory file was accepted belongs to it, and both are put into place together.
//
// One at a time in a process, since there is one service. Next(), Start() and Stop() belong to one
// thread; nothing happens outside of them, but that the service runs.
class Client
{
public:
    using Clock = std::chrono::steady_clock;

    // The service must outlive the client.
    explicit Client(IFtpCorpDir& service, Lookup lookup = SystemLookup);
    ~Client();  // stops, and removes the client's own files
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    // What becomes of settings that are refused, and of a service that does not start, before the
    // first transfer. Later both may be temporary, and are always tried again.
    enum class FirstFailure
    {
        kFinal,       // kRefused, or StartError
        kStartFinal,  // Start() throws StartError; else as kRetry
        kRetry,       // a failed check; another follows after settings.retry
    };

    // Starts the service without a request, which opens its log. Throws StartError.
    void Open(const Settings& settings);

    // Throws SettingsError when every server would refuse these settings. A check under way goes
    // on. Throws StartError when the service, which is needed for it, cannot be started.
    void Check(const Settings& settings);

    // Takes these settings and begins a check; an earlier one is given up. Throws
    // std::system_error when a folder cannot be written: an earlier check goes on then. Throws
    // StartError; the client is then stopped.
    void Start(Settings settings, FirstFailure failure = FirstFailure::kFinal);

    // Waits for the next event. Nothing at the deadline, and after Wake(). It may come late by the
    // time of a stop of the service, or of up to 30 s in which other processes put their files into
    // place. Throws StartError, std::bad_alloc and what settings.readPassword throws; the client is
    // then stopped.
    std::optional<Event> Next(Clock::time_point deadline);

    // Ends the current Next(), or the one that follows. Any thread.
    void Wake() noexcept;

    // Checks now; a check under way goes on, and another one follows it.
    void CheckNow();

    // Stops the service. A transfer under way is cancelled; files in place stay.
    void Stop();

    // Stops, and notes in the state file that the check under way has failed. Returns a warning, or
    // an empty text.
    std::string GiveUp(const std::string& reason);

    // Notes in the state file, for the next process, whether a command that is run for each new
    // directory file is still to be run for the local one.
    void NoteCommand(bool due);

    // Removes the client's own files, for a process that ends without a stop. Any thread.
    void RemoveStaged() const noexcept;

private:
    enum class State
    {
        kStopped,
        kResolving,  // the names are looked up, for a new request
        kChecking,   // the service checks the version
        kFetching,   // the service fetches the directory file
        kIdle,       // the service checks again by itself
        kPausing,    // a new request is due at m_due
    };

    // What the version file said when it was read, and when.
    struct Seen
    {
        VersionFile file;
        std::timespec read = {};
    };
    // An observation, with what the observer did about it.
    struct Input
    {
        TransferEvent transfer;
        std::shared_ptr<const Seen> version;  // of a version file that has arrived
        std::string path;                     // of a directory file that has arrived
        bool stopped = false;  // the version is the local one: the service is stopped
    };
    class Inbox;
    class Observer;

    static void Observe(void* user, const tagTRAVEX_FTP_S_OBSERVATION* seen);

    // Calls a function; stops when it throws.
    template <class Call>
    auto OrStop(const Call& call);

    void SetObserver(const std::string& current);
    std::optional<Event> NextEvent(Clock::time_point deadline);
    void BeginCheck();
    bool Try(const std::function<void()>& call);
    void ForgetInputs();
    void LookUp();
    void OnLookedUp();
    void Request(std::size_t first);
    void OnRequestRefused(unsigned int code);
    void Handle(const Input& input);
    void OnAccepted(const TransferEvent& transfer);
    void OnVersion(const Input& input);
    void OnUnchanged(const Input& input);
    void OnInvalidVersion(const TransferEvent& transfer, const VersionFile& file);
    void OnDirectory(const Input& input);
    void OnFailed(const TransferEvent& transfer);
    void OnVersionFailed(const TransferEvent& transfer);
    void OnDirectoryFailed(const TransferEvent& transfer);
    void OnRefused(const TransferEvent& transfer);
    void OnLocalFileFailed(const TransferEvent& transfer);
    void GoOn(const Server& failed, const std::string& reason);
    void Succeed();
    void EndCheck();
    void FailCheck(const std::string& reason);
    void Pause();
    Event& Say(Event::Kind kind, const Server& server);
    Event& SayFailed(Event::Kind kind, const Server& server, const TransferEvent& transfer);
    void Warn(const std::string& reason);

    bool IsVersionFile(const TransferEvent& transfer) const;
    Server ServerOf(const TransferEvent& transfer) const;
    std::size_t IndexOf(const Server& server) const;
    std::size_t SecondServer() const;
    bool AllFailed() const;

    const Lookup m_findAddresses;
    const std::unique_ptr<Inbox> m_inbox;
    Settings m_settings;
    // Assigned under m_stagingMutex, for RemoveStaged().
    std::unique_ptr<Staging> m_directories;
    std::unique_ptr<Staging> m_versions;  // null: the same folder
    mutable base::Mutex m_stagingMutex;
    std::unique_ptr<LocalFiles> m_files;
    std::unique_ptr<Observer> m_observer;
    ServiceLink m_link;

    State m_state = State::kStopped;
    std::deque<Event> m_events;  // to be returned
    Clock::time_point m_due;     // of the pause
    std::unique_ptr<ServerLookup> m_lookup;
    Clock::time_point m_lookupEnds;

    // The current request.
    std::vector<Server> m_found;     // as looked up last, in the order of the list
    std::vector<Server> m_servers;   // in the order of the request
    std::size_t m_asksNext = 0;      // server that the service asks after a failure; the end: none
    std::set<std::string> m_failed;  // addresses that have failed during this check
    std::set<std::string> m_left;    // those of them before the client went on by itself
    client::Next m_goesOn = client::Next::kNothing;  // after the latest failure
    bool m_mayRetry = false;                         // a first failure is not final
    bool m_loginRefused = false;                     // since the password was read last
    bool m_checkAgain = false;                       // as soon as the check under way has ended
    unsigned int m_checkTask = 0;                    // latest transfer of a version file; 0: ended
    std::string m_version;                           // accepted by the service last
    std::shared_ptr<const Seen> m_read;              // the new version that was read last
    std::map<unsigned int, std::shared_ptr<const Seen>> m_expected;  // by directory task
    std::string m_warning;                                           // the latest
    Event m_failure;                                                 // the latest
    unsigned int m_failures = 0;                                     // checks that failed in a row
};

}  // namespace client

#endif
