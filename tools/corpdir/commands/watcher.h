// `watch`: the client's events, written, passed to commands and to the service manager.
#ifndef CORPDIR_TOOL_WATCHER_H
#define CORPDIR_TOOL_WATCHER_H

#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "cli/options.h"
#include "cli/servers.h"
#include "client.h"
#include "commands/client_settings.h"
#include "commands/events.h"
#include "commands/run_log.h"
#include "os/child_command.h"
#include "os/service_manager.h"
#include "ui/watch_output.h"

namespace corpdir_tool
{

// Replaced as a whole by a reload.
struct WatchSettings
{
    Plan plan;
    std::shared_ptr<PasswordSource> password;
};

// Runs on the main thread. Not thread-safe, but for Abandon().
class Watcher
{
public:
    // Reads the settings again. Throws ExitError.
    using Reload = std::function<WatchSettings()>;

    // service, log, events, output and manager must outlive the watcher. log: of these settings.
    Watcher(IFtpCorpDir& service, WatchSettings settings, Reload reload, Lookup lookup, RunLog& log,
            EventQueue& events, std::FILE* output, const ServiceManager& manager);
    ~Watcher();
    Watcher(const Watcher&) = delete;
    Watcher& operator=(const Watcher&) = delete;

    // Runs until a signal asks it to stop; returns its number. The service is stopped on return.
    // Throws ExitError when the service cannot be started or the events cannot be written.
    int Run();

    // Kills the commands and removes the client's own files, for a process that ends without a
    // stop. Any thread.
    void Abandon() noexcept;

private:
    using Clock = EventQueue::Clock;
    // These return the number of the signal when the watch ends.
    using Settled = std::optional<int>;

    Settled Begin();
    Settled Step(Clock::time_point deadline);
    void Handle(const client::Event& event);
    Settled HandleAllOwn();
    Settled HandleOwn(const Event& event);
    void OnFailed(const client::Event& event);
    void OnChecking(const client::Event& event);
    void OnPassFailed(const client::Event& event);
    void ShowStatus();
    void NotReloaded(const std::string& reason);
    void OnRefused(const std::string& reason);
    void OnEnd(const client::Event& event);
    void OnUnchanged(const client::Event& event);
    void BeginUpdate(const client::Event& event);
    bool OnReload();
    void TakeSettings(WatchSettings settings);
    void ChangeSettings(WatchSettings settings);
    void KeepSettings(const std::string& reason);
    void OnUpdateEnded(int status);
    void OnFailureEnded(int status);
    void RunUpdate();
    void RunFailure();
    [[nodiscard]] bool Run(ChildCommand& command, const char* option, const std::string& text,
                           const Variables& variables);

    const Reload m_reload;
    RunLog& m_log;
    EventQueue& m_events;
    std::FILE* const m_stream;
    const ServiceManager& m_manager;
    WatchSettings m_settings;
    std::optional<WatchSettings> m_previous;  // until a check with the new ones has begun
    std::optional<WatchOutput> m_output;
    client::Client m_client;

    ChildCommand m_update;        // after each new directory file
    ChildCommand m_failure;       // after each check that failed
    std::string m_version;        // of the local files when this process looked last
    bool m_commandDue = false;    // at the start: the command has not succeeded for that version
    std::string m_current;        // for systemd: the end of the last check
    std::string m_notReloaded;    // why the last reload failed
    client::Event m_delivered;    // the last one
    bool m_updateDue = false;     // the command is to be run for it
    bool m_updateFailed = false;  // the command is tried again after the next check
    std::string m_reason;         // of the latest failure, with its server
    unsigned int m_failures = 0;  // checks that failed in a row
};

}  // namespace corpdir_tool

#endif
