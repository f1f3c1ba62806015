#include "fetch.h"

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <utility>

#include "events.h"
#include "failure.h"
#include "ftpcorpdir.h"
#include "muted_stderr.h"
#include "name_resolver.h"
#include "output_files.h"
#include "password.h"
#include "report.h"
#include "session.h"
#include "signals.h"
#include "text.h"
#include "travex_ftp.h"

namespace corpdir_tool
{

namespace
{

// How long a stop may take before the program leaves without it.
constexpr std::chrono::seconds STOP_PATIENCE{1};

ReportSettings SettingsOf(const FetchOptions& options, const FetchPlan& plan, std::FILE* messages)
{
    const bool logOnTerminal = plan.logLevel && plan.logDir.empty();
    ReportSettings settings;
    settings.messages = messages;
    settings.quiet = options.quiet;
    settings.progress = !options.noProgress && !logOnTerminal && isatty(fileno(messages)) == 1;
    return settings;
}

// A thread that is held up in the system's resolver cannot be joined.
[[noreturn]] void LeaveAtOnce(int status)
{
    (void)std::fflush(nullptr);
    _exit(status);
}

// The servers with their names replaced by addresses; names without one are told and left out.
std::vector<Server> FindServers(const FetchPlan& plan, EventQueue& events,
                                EventQueue::Clock::time_point deadline, Report& report)
{
    NameResolver resolver(plan.servers, plan.family, SystemLookup, events);
    const Event event = events.WaitUntil(deadline);
    switch (event.kind)
    {
        case EventKind::RESOLVED:
            break;
        case EventKind::SIGNAL:
            report.Error("stopped while looking up the names of the servers");
            LeaveAtOnce(EXIT_SIGNAL + event.signalNumber);
        case EventKind::DEADLINE:
            report.Error("no outcome within " + std::to_string(plan.timeout.count()) +
                         " s; stopped while looking up the names of the servers");
            LeaveAtOnce(EXIT_NO_OUTCOME);
        default:
            report.Error("memory ran out");
            LeaveAtOnce(EXIT_INTERNAL);
    }
    const ResolvedServers resolved = resolver.Take();
    for (const std::string& problem : resolved.problems)
    {
        report.Error(problem + "; left out");
    }
    return resolved.servers;
}

int Download(const FetchPlan& plan, const Secret& password, EventQueue& events, Report& report)
{
    const auto deadline = EventQueue::Clock::now() + plan.timeout;
    std::vector<Server> servers = FindServers(plan, events, deadline, report);
    if (servers.empty())
    {
        throw Failure(EXIT_NO_SERVER, "no server left; no name of --servers has an address");
    }
    Session session(*GetCorpDirInstance(), TRAVEX_FTP_SetObserver, plan, std::move(servers),
                    password, events, report);
    const Outcome outcome = session.Run(deadline);
    if (outcome.status == EXIT_FETCHED &&
        !report.Result(outcome.version, plan.DirectoryPath(), outcome.bytes))
    {
        throw Failure(EXIT_LOCAL_FILE, "the result cannot be written to standard output");
    }
    return outcome.status;
}

}  // namespace

int RunFetch(const FetchOptions& options)
{
    const FetchPlan plan = MakePlan(options);
    Secret password;
    ReadPassword(options.passwordFile, password);

    // A reader of the messages that goes away must not end a transfer halfway.
    (void)signal(SIGPIPE, SIG_IGN);
    // Before the other threads: they inherit the signal mask.
    EventQueue events;
    const SignalWatch watch([&events](int number) { events.PushSignal(number); },
                            [](int number)
                            {
                                RemoveTemporaryFiles();
                                _exit(EXIT_SIGNAL + number);
                            },
                            STOP_PATIENCE);
    const MutedStandardError muted(!plan.logLevel);
    Report report(SettingsOf(options, plan, muted.Messages()));
    return Download(plan, password, events, report);
}

}  // namespace corpdir_tool
