#include "commands/watcher.h"

#include <unistd.h>

#include <filesystem>
#include <new>
#include <random>
#include <system_error>
#include <utility>

#include "exit_error.h"
#include "os/signals.h"
#include "state.h"
#include "text.h"

namespace corpdir_tool
{

namespace
{

using Kind = client::Event::Kind;

constexpr std::chrono::hours kLongWait{24};

constexpr char kExec[] = "--exec";
constexpr char kOnFailure[] = "--on-failure";

// A reload cannot change where the files are.
void CheckSameFiles(const Plan& before, const Plan& now)
{
    if (before.VersionPath() != now.VersionPath() || before.DirectoryPath() != now.DirectoryPath())
    {
        throw ExitError(kExitArguments,
                        "the output directory and the local names cannot change while 'watch' "
                        "runs; restart it");
    }
}

}  // namespace

Watcher::Watcher(IFtpCorpDir& service, WatchSettings settings, Reload reload, Lookup lookup,
                 RunLog& log, EventQueue& events, std::FILE* output, const ServiceManager& manager)
    : m_reload(std::move(reload)),
      m_log(log),
      m_events(events),
      m_stream(output),
      m_manager(manager),
      m_client(service, std::move(lookup)),
      m_update(STDERR_FILENO,
               [this](int status) { m_events.Push(Event::Kind::kCommandEnded, status); }),
      m_failure(STDERR_FILENO,
                [this](int status) { m_events.Push(Event::Kind::kFailureCommandEnded, status); })
{
    TakeSettings(std::move(settings));
    const Plan& plan = m_settings.plan;
    std::string problem;  // the client reports it
    const client::State state =
        client::ReadState(plan.outputDir + client::StateName(plan.directoryName), problem)
            .value_or(client::State());
    std::error_code error;
    if (std::filesystem::file_size(plan.DirectoryPath(), error) == state.size && !error)
    {
        m_version = state.version;
        m_commandDue = state.commandDue;
    }
    m_events.SetWake([this] { m_client.Wake(); });
}

Watcher::~Watcher()
{
    m_events.SetWake(nullptr);
}

void Watcher::Abandon() noexcept
{
    m_update.Kill();
    m_failure.Kill();
    m_client.RemoveStaged();
}

int Watcher::Run()
{
    Settled status;
    try
    {
        status = Begin();
        while (!status)
        {
            status = Step(Clock::now() + kLongWait);
            if (!status && m_output->Lost())
            {
                throw ExitError(kExitLocalFile, "the events cannot be written to standard output");
            }
        }
    }
    catch (const client::StartError& error)
    {
        throw StartProblem(m_settings.plan, error);
    }
    catch (const std::system_error& error)
    {
        throw ExitError(kExitLocalFile, error.what());
    }
    catch (const std::bad_alloc&)
    {
        throw ExitError(kExitInternal, "out of memory");
    }
    m_manager.Stopping();
    m_client.Stop();
    return *status;
}

// Begins the first check, after the wait of --splay: machines that start together do not all ask
// the server at once.
Watcher::Settled Watcher::Begin()
{
    Event event;
    if (m_settings.plan.splaySeconds != 0)
    {
        std::random_device random;
        const std::chrono::milliseconds wait(std::uniform_int_distribution<std::int64_t>(
            0, std::int64_t{1000} * m_settings.plan.splaySeconds)(random));
        m_output->FirstCheckIn(std::chrono::ceil<std::chrono::seconds>(wait));
        m_manager.Ready();
        const Clock::time_point end = Clock::now() + wait;
        event = m_events.WaitUntil(end);
        while (event.kind != Event::Kind::kDeadline && event.kind != Event::Kind::kCheckNow)
        {
            if (event.kind == Event::Kind::kReload)
            {
                if (OnReload())
                {
                    return std::nullopt;
                }
            }
            else if (const Settled status = HandleOwn(event))
            {
                return status;
            }
            event = m_events.WaitUntil(end);
        }
    }
    m_client.Start(SettingsOf(m_settings.plan, *m_settings.password));
    m_manager.Ready();
    return std::nullopt;
}

Watcher::Settled Watcher::Step(Clock::time_point deadline)
{
    try
    {
        if (const std::optional<client::Event> event = m_client.Next(deadline))
        {
            Handle(*event);
            return std::nullopt;
        }
    }
    catch (const client::StartError& error)
    {
        if (!m_previous)
        {
            throw;
        }
        KeepSettings(StartProblem(m_settings.plan, error).what());
        return std::nullopt;
    }
    return HandleAllOwn();
}

// One wake may stand for several events.
Watcher::Settled Watcher::HandleAllOwn()
{
    for (;;)
    {
        const Event event = m_events.WaitUntil(Clock::now());
        if (event.kind == Event::Kind::kDeadline)
        {
            return std::nullopt;
        }
        if (const Settled status = HandleOwn(event))
        {
            return status;
        }
    }
}

void Watcher::Handle(const client::Event& event)
{
    switch (event.kind)
    {
        case Kind::kChecking:
            OnChecking(event);
            break;
        case Kind::kProgress:
            break;
        case Kind::kNewVersion:
            if (!event.known)  // else the service reads it for the first time since its start
            {
                m_output->NewVersion(event.server, event.version);
            }
            break;
        case Kind::kUnchanged:
            OnUnchanged(event);
            break;
        case Kind::kInvalidVersion:
            OnFailed(event);
            break;
        case Kind::kDelivered:
            BeginUpdate(event);
            m_output->Downloaded(event.server, event.version, event.path, event.size);
            OnEnd(event);
            break;
        case Kind::kFailed:
            OnFailed(event);
            break;
        case Kind::kRefused:
            OnRefused(ArgumentProblem(event.transfer));
            break;
        case Kind::kNameFailed:
            m_reason = event.server.name + ": " + event.transfer.reason;
            m_output->NameFailed(m_reason);
            break;
        case Kind::kPassFailed:
            OnPassFailed(event);
            break;
        case Kind::kRecovered:
            m_output->Recovered(event.failures);
            break;
        case Kind::kStartFailed:
            m_reason = event.transfer.reason;
            m_output->StartFailed(event.transfer.reason);
            break;
        case Kind::kWaiting:
            m_output->Waiting(event.wait, event.retries);
            break;
        case Kind::kWarning:
            m_output->Warning(event.transfer.reason);
            break;
    }
}

// Signals and commands that have ended.
Watcher::Settled Watcher::HandleOwn(const Event& event)
{
    switch (event.kind)
    {
        case Event::Kind::kSignal:
            m_output->Stopped(SignalName(event.number));
            return event.number;
        case Event::Kind::kCheckNow:
            m_client.CheckNow();
            break;
        case Event::Kind::kReload:
            (void)OnReload();
            break;
        case Event::Kind::kCommandEnded:
            OnUpdateEnded(event.number);
            break;
        case Event::Kind::kFailureCommandEnded:
            OnFailureEnded(event.number);
            break;
        case Event::Kind::kOutOfMemory:
            throw std::bad_alloc();
        default:
            break;
    }
    return std::nullopt;
}

void Watcher::OnChecking(const client::Event& event)
{
    if (m_previous)
    {
        m_previous.reset();
        m_notReloaded.clear();
        m_output->Reloaded();
        m_manager.Ready();
    }
    if (event.next == client::Next::kOtherServer)
    {
        m_output->NextServer(event.server);
    }
    m_output->Checking(event.server);
}

// A transfer that failed, or a version that is not valid.
void Watcher::OnFailed(const client::Event& event)
{
    const client::TransferEvent& transfer = event.transfer;
    m_reason = ProblemOf(event.server, transfer.file, transfer.reason);
    if (event.kind == Kind::kInvalidVersion)
    {
        m_output->InvalidVersion(event.server, transfer.file, event.version, transfer.reason);
    }
    else
    {
        m_output->Failed(event.server, FailureOf(transfer));
    }
}

void Watcher::OnPassFailed(const client::Event& event)
{
    if (m_previous)
    {
        m_manager.Ready();  // new names may have no address for long
    }
    m_current = "failed: " + m_reason +
                (m_version.empty() ? "" : "; version " + m_version + " is in place");
    ShowStatus();
    m_failures = event.failures;
    event.serverFailed ? m_output->NoServerLeft() : m_output->CheckFailed();
    RunFailure();
}

void Watcher::OnRefused(const std::string& reason)
{
    if (!m_previous)
    {
        throw ExitError(kExitArguments, reason);
    }
    KeepSettings(reason);
}

// The end of a check that found the directory current.
void Watcher::OnEnd(const client::Event& event)
{
    m_current = "version " + event.version + " from " + event.server.Label() + ", checked " +
                client::TimeText(std::time(nullptr));
    ShowStatus();
    m_version = event.version;
    m_updateDue = m_updateDue || std::exchange(m_updateFailed, false);
    RunUpdate();
}

// For systemd: what is in place, and what went wrong beside it.
void Watcher::ShowStatus()
{
    std::string status = m_current;
    const auto add = [&status](const std::string& part)
    { status += (status.empty() ? "" : "; ") + part; };
    if (!m_notReloaded.empty())
    {
        add("settings not reloaded: " + m_notReloaded);
    }
    if (m_updateFailed && !m_settings.plan.execute.empty())
    {
        add("the command of --exec failed");
    }
    m_manager.Status(status);
}

// Another process may have put this version into place since the last check. The command for it may
// have failed, or been ended by a stop, in an earlier process.
void Watcher::OnUnchanged(const client::Event& event)
{
    m_output->Unchanged(event.server, event.version);
    if (event.version != m_version || m_commandDue)
    {
        BeginUpdate(event);
    }
    OnEnd(event);
}

void Watcher::BeginUpdate(const client::Event& event)
{
    m_delivered = event;
    m_updateDue = !m_settings.plan.execute.empty();
    if (m_updateDue)
    {
        m_commandDue = false;
        m_client.NoteCommand(true);
    }
}

// A command that runs goes on. True when a check has begun.
bool Watcher::OnReload()
{
    m_manager.Reloading();
    try
    {
        WatchSettings read = m_reload();
        CheckSameFiles(m_settings.plan, read.plan);
        if (!m_previous)
        {
            m_previous = m_settings;
        }
        ChangeSettings(std::move(read));
        m_client.Start(SettingsOf(m_settings.plan, *m_settings.password));
    }
    catch (const ExitError& error)
    {
        NotReloaded(error.what());
        m_manager.Ready();
        return false;
    }
    catch (const client::StartError& error)
    {
        KeepSettings(StartProblem(m_settings.plan, error).what());
    }
    catch (const std::system_error& error)
    {
        KeepSettings(error.what());
    }
    return true;
}

void Watcher::NotReloaded(const std::string& reason)
{
    m_output->ReloadFailed(reason);
    m_notReloaded = reason;
    ShowStatus();
}

void Watcher::TakeSettings(WatchSettings settings)
{
    m_settings = std::move(settings);
    m_output.emplace(m_stream, m_settings.plan.json, m_settings.plan.quiet,
                     [this](unsigned int level, const std::string& sentence)
                     { m_log.Write(level, sentence); });
}

// The service is stopped first: its last records belong to the previous log.
void Watcher::ChangeSettings(WatchSettings settings)
{
    m_client.Stop();
    TakeSettings(std::move(settings));
    m_log.Change(m_settings.plan);
}

// The new settings cannot be used. Whatever is wrong with the previous ones by now, the watch goes
// on.
void Watcher::KeepSettings(const std::string& reason)
{
    ChangeSettings(*std::exchange(m_previous, std::nullopt));
    NotReloaded(reason);
    m_client.Start(SettingsOf(m_settings.plan, *m_settings.password),
                   client::Client::FirstFailure::kRetry);
    m_manager.Ready();
}

// When several files arrive during a run, the next one is for the last of them.
void Watcher::OnUpdateEnded(int status)
{
    if (!m_update.Running())
    {
        return;  // the event is of an earlier watch
    }
    m_update.Ended();
    m_output->CommandEnded(kExec, status, m_update.TimedOut());
    m_updateFailed = status != 0;
    if (status == 0 && !m_updateDue)
    {
        m_client.NoteCommand(false);
    }
    ShowStatus();
    RunUpdate();
}

void Watcher::OnFailureEnded(int status)
{
    if (!m_failure.Running())
    {
        return;
    }
    m_failure.Ended();
    m_output->CommandEnded(kOnFailure, status, m_failure.TimedOut());
}

// One run at a time.
void Watcher::RunUpdate()
{
    const Plan& plan = m_settings.plan;
    if (plan.execute.empty() || !m_updateDue || m_update.Running())
    {
        return;
    }
    m_updateDue = false;
    m_updateFailed = !Run(m_update, kExec, plan.execute,
                          {{"CORPDIR_FILE", plan.AbsoluteDirectoryPath()},
                           {"CORPDIR_VERSION", m_delivered.version},
                           {"CORPDIR_SERVER", m_delivered.server.address}});
}

void Watcher::RunFailure()
{
    const Plan& plan = m_settings.plan;
    if (!plan.onFailure.empty() && !m_failure.Running())
    {
        (void)Run(m_failure, kOnFailure, plan.onFailure,
                  {{"CORPDIR_FILE", plan.AbsoluteDirectoryPath()},
                   {"CORPDIR_REASON", m_reason},
                   {"CORPDIR_FAILURES", std::to_string(m_failures)}});
    }
}

// False when it could not be started.
bool Watcher::Run(ChildCommand& command, const char* option, const std::string& text,
                  const Variables& variables)
{
    ChildCommand::Limit limit;
    if (m_settings.plan.execTimeoutSeconds != 0)
    {
        limit = std::chrono::seconds(m_settings.plan.execTimeoutSeconds);
    }
    const int error = command.Start(text, variables, limit);
    if (error != 0)
    {
        m_output->CommandFailed(option, SystemMessage(error));
    }
    return error == 0;
}

}  // namespace corpdir_tool
