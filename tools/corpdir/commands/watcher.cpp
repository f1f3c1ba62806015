#include "commands/watcher.h"

#include <unistd.h>

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
                 EventQueue& events, std::FILE* output, const ServiceManager& manager)
    : m_reload(std::move(reload)),
      m_events(events),
      m_stream(output),
      m_manager(manager),
      m_client(service, std::move(lookup))
{
    TakeSettings(std::move(settings));
    m_events.SetWake([this] { m_client.Wake(); });
}

Watcher::~Watcher()
{
    m_events.SetWake(nullptr);
}

void Watcher::Abandon() noexcept
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        for (ChildCommand* const command : {m_update.get(), m_failure.get()})
        {
            if (command != nullptr)
            {
                command->Kill();
            }
        }
    }
    m_client.RemoveStaged();
}

int Watcher::Run()
{
    Settled status;
    try
    {
        status = Splay();
        if (!status)
        {
            m_client.Start(SettingsOf(m_settings.plan, *m_settings.password));
            m_manager.Ready();
        }
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

// Machines that start together do not all ask the server at once.
Watcher::Settled Watcher::Splay()
{
    if (m_settings.plan.splaySeconds == 0)
    {
        return std::nullopt;
    }
    std::random_device random;
    const std::chrono::milliseconds wait(std::uniform_int_distribution<std::int64_t>(
        0, std::int64_t{1000} * m_settings.plan.splaySeconds)(random));
    m_output->Waiting(std::chrono::ceil<std::chrono::seconds>(wait), true);
    m_manager.Ready();
    const Clock::time_point end = Clock::now() + wait;
    for (;;)
    {
        const Event event = m_events.WaitUntil(end);
        if (event.kind == Event::Kind::kDeadline || event.kind == Event::Kind::kCheckNow)
        {
            return std::nullopt;
        }
        if (const Settled status = HandleOwn(event))
        {
            return status;
        }
    }
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
            m_previous.reset();
            if (event.next != client::Next::kNothing)
            {
                m_output->NextServer(event.server);
            }
            m_output->Checking(event.server);
            break;
        case Kind::kProgress:
            break;
        case Kind::kNewVersion:
            m_output->NewVersion(event.server, event.version);
            break;
        case Kind::kUnchanged:
            m_output->Unchanged(event.server, event.version);
            OnEnd(event);
            break;
        case Kind::kInvalidVersion:
            m_reason = "the version file is not valid: " + event.transfer.reason;
            m_output->InvalidVersion(event.server, event.transfer.file, event.version, m_reason);
            break;
        case Kind::kDelivered:
            m_delivered = event;
            m_updateDue = m_update != nullptr;
            m_output->Downloaded(event.server, event.version, event.path, event.transfer.bytes);
            OnEnd(event);
            break;
        case Kind::kFailed:
            m_reason = event.transfer.reason;
            m_output->Failed(event.server, FailureOf(event.transfer));
            break;
        case Kind::kRefused:
            OnRefused(ArgumentProblem(event.transfer));
            break;
        case Kind::kNameFailed:
            m_reason = event.server.name + ": " + event.transfer.reason;
            m_output->NameFailed(m_reason);
            break;
        case Kind::kPassFailed:
            m_manager.Status("failed: " + m_reason);
            m_output->NoServerLeft();
            RunFailure();
            break;
        case Kind::kStartFailed:
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
            return kExitFetched;
        case Event::Kind::kCheckNow:
            m_client.CheckNow();
            break;
        case Event::Kind::kReload:
            OnReload();
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
    m_manager.Status("version " + event.version + " from " + event.server.Label() + ", checked " +
                     client::TimeText(std::time(nullptr)));
    m_updateDue = m_updateDue || std::exchange(m_updateFailed, false);
    RunUpdate();
}

void Watcher::OnReload()
{
    m_manager.Reloading();
    try
    {
        WatchSettings read = m_reload();
        CheckSameFiles(m_settings.plan, read.plan);
        if ((m_update != nullptr && m_update->Running()) ||
            (m_failure != nullptr && m_failure->Running()))
        {
            throw ExitError(kExitArguments, "a command is running; reload again when it has ended");
        }
        if (!m_previous)
        {
            m_previous = m_settings;
        }
        TakeSettings(std::move(read));
        m_client.Start(SettingsOf(m_settings.plan, *m_settings.password));
        m_output->Reloaded();
        m_manager.Ready();
    }
    catch (const ExitError& error)
    {
        m_output->ReloadFailed(error.what());
        m_manager.Ready();
    }
    catch (const client::StartError& error)
    {
        KeepSettings(StartProblem(m_settings.plan, error).what());
    }
    catch (const std::system_error& error)
    {
        KeepSettings(error.what());
    }
}

void Watcher::TakeSettings(WatchSettings settings)
{
    m_settings = std::move(settings);
    const Plan& plan = m_settings.plan;
    m_output.emplace(m_stream, plan.json, plan.quiet);
    Command update = MakeCommand(plan.execute, Event::Kind::kCommandEnded);
    Command failure = MakeCommand(plan.onFailure, Event::Kind::kFailureCommandEnded);
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_update.swap(update);
    m_failure.swap(failure);
}

// The new settings cannot be used.
void Watcher::KeepSettings(const std::string& reason)
{
    TakeSettings(*std::exchange(m_previous, std::nullopt));
    m_output->ReloadFailed(reason);
    m_client.Start(SettingsOf(m_settings.plan, *m_settings.password));
    m_manager.Ready();
}

Watcher::Command Watcher::MakeCommand(const std::string& text, Event::Kind end)
{
    if (text.empty())
    {
        return nullptr;
    }
    ChildCommand::Limit limit;
    if (m_settings.plan.execTimeoutSeconds != 0)
    {
        limit = std::chrono::seconds(m_settings.plan.execTimeoutSeconds);
    }
    return std::make_unique<ChildCommand>(
        text, STDERR_FILENO, [this, end](int status) { m_events.Push(end, status); }, limit);
}

// When several files arrive during a run, the next one is for the last of them.
void Watcher::OnUpdateEnded(int status)
{
    m_update->Ended();
    m_output->CommandEnded(status, m_update->TimedOut());
    m_updateFailed = status != 0;
    RunUpdate();
}

void Watcher::OnFailureEnded(int status)
{
    m_failure->Ended();
    m_output->CommandEnded(status, m_failure->TimedOut());
}

// One run at a time.
void Watcher::RunUpdate()
{
    if (m_update == nullptr || !m_updateDue || m_update->Running())
    {
        return;
    }
    m_updateDue = false;
    m_updateFailed = false;
    Run(*m_update, {{"CORPDIR_FILE", m_settings.plan.AbsoluteDirectoryPath()},
                    {"CORPDIR_VERSION", m_delivered.version},
                    {"CORPDIR_SERVER", m_delivered.server.address}});
}

void Watcher::RunFailure()
{
    if (m_failure != nullptr && !m_failure->Running())
    {
        Run(*m_failure, {{"CORPDIR_FILE", m_settings.plan.AbsoluteDirectoryPath()},
                         {"CORPDIR_REASON", m_reason}});
    }
}

void Watcher::Run(ChildCommand& command, const Variables& variables)
{
    if (const int error = command.Start(variables); error != 0)
    {
        m_output->CommandFailed(SystemMessage(error));
        m_updateFailed = m_updateFailed || &command == m_update.get();
    }
}

}  // namespace corpdir_tool
