#include "commands/checker.h"

#include "commands/failure.h"
#include "os/signals.h"

namespace corpdir_tool
{

namespace
{

// Not a file name: with it the FTP layer refuses a download before anything is sent. The service
// follows up a version file with the directory file faster than it could be stopped.
const char NO_FILE[] = ".";

// Nothing but a file of this size would be downloaded.
constexpr std::uint64_t SMALLEST_LIMIT = 1;

// The plan of a request that fetches one file into the scratch directory, and nothing after it.
Plan PlanFor(const Plan& plan, const std::string& scratch, const std::string& file)
{
    Plan one = plan;
    one.versionFile = file;
    one.outputDir = scratch;
    one.versionName = "file";
    one.directoryName = NO_FILE;
    return one;
}

// The row of the first transfer's failure.
CheckStep StepOf(const Event& event)
{
    switch (event.step)
    {
        case TRAVEX_FTP_STEP_CONNECT:
            return CheckStep::CONNECT;
        case TRAVEX_FTP_STEP_GREETING:  // of implicit FTPS it comes behind the handshake
            return event.timings.ullSecured == 0 ? CheckStep::CONNECT : CheckStep::LOGIN;
        case TRAVEX_FTP_STEP_AUTH:
            return CheckStep::TLS;
        case TRAVEX_FTP_STEP_TLS:
            return event.code == TRAVEX_FTP_ERR_CERT ? CheckStep::CERTIFICATE : CheckStep::TLS;
        case TRAVEX_FTP_STEP_LOGIN:
            return CheckStep::LOGIN;
        default:
            return CheckStep::VERSION_FILE;
    }
}

void Fail(CheckResult& result, CheckStep step, const Trouble& trouble)
{
    result.failedAt = step;
    result.trouble = trouble;
}

}  // namespace

Checker::Checker(IFtpCorpDir& service, const Plan& plan, const std::string& scratch,
                 const Secret& password, EventQueue& events)
    : m_service(service), m_plan(plan), m_scratch(scratch), m_password(password), m_events(events)
{
}

CheckResult Checker::Check(const Server& server, EventQueue::Clock::time_point deadline)
{
    CheckResult result;
    result.server = server;
    const Plan version = PlanFor(m_plan, m_scratch, m_plan.versionFile);
    CheckVersion(OutcomeOf(version, server, deadline), result);
    if (result.failedAt == CheckStep::DONE)
    {
        Plan directory = PlanFor(m_plan, m_scratch, m_plan.directoryFile);
        directory.maxSize = SMALLEST_LIMIT;
        CheckDirectory(OutcomeOf(directory, server, deadline), result);
    }
    return result;
}

// The end of the first transfer of a request, or why it did not begin.
Event Checker::OutcomeOf(const Plan& plan, const Server& server,
                         EventQueue::Clock::time_point deadline)
{
    ServiceLink link(m_service, plan, m_events);
    link.Start();
    const unsigned int code = link.Request({server}, m_password);
    for (;;)
    {
        // A request that was refused has been observed already.
        Event event = m_events.WaitUntil(code == 0 ? deadline : EventQueue::Clock::time_point());
        switch (event.kind)
        {
            case EventKind::TRANSFERRED:
            case EventKind::FAILED:
                return event;
            case EventKind::REFUSED:
                if (IsArgumentRefusal(event.code))
                {
                    throw Failure(EXIT_ARGUMENTS, ArgumentProblem(event));
                }
                return event;
            case EventKind::SIGNAL:
                throw CheckStopped{
                    EXIT_SIGNAL + event.number,
                    "stopped by " + SignalName(event.number) + " while checking " + server.Label()};
            case EventKind::DEADLINE:
                if (code != 0)
                {
                    event.kind = EventKind::REFUSED;
                    event.reason =
                        "the request could not be started (code " + std::to_string(code) + ")";
                    return event;
                }
                throw CheckStopped{EXIT_NO_OUTCOME,
                                   "no outcome within " + std::to_string(m_plan.timeout.count()) +
                                       " s; stopped while checking " + server.Label()};
            case EventKind::OUT_OF_MEMORY:
                throw Failure(EXIT_INTERNAL, "memory ran out");
            default:
                break;
        }
    }
}

void Checker::CheckVersion(const Event& event, CheckResult& result) const
{
    result.timings = event.timings;
    if (event.kind != EventKind::TRANSFERRED)
    {
        Fail(result, StepOf(event), TroubleOf(event));
        return;
    }
    result.versionBytes = event.bytes;
    const VersionFile& file = event.version;
    if (!file.version)
    {
        Fail(result, CheckStep::VERSION_FILE, {0, 0, 0, 0, m_plan.versionFile, file.problem});
        return;
    }
    result.version = *file.version;
}

void Checker::CheckDirectory(const Event& event, CheckResult& result) const
{
    const bool there =
        event.kind == EventKind::TRANSFERRED || event.code == TRAVEX_FTP_ERR_TOO_LARGE;
    if (!there)
    {
        Fail(result, CheckStep::DIRECTORY_FILE, TroubleOf(event));
        return;
    }
    result.directoryBytes = event.kind == EventKind::TRANSFERRED ? event.bytes : event.total;
    if (m_plan.maxSize != 0 && result.directoryBytes != TRAVEX_FTP_SIZE_UNKNOWN &&
        result.directoryBytes > m_plan.maxSize)
    {
        Fail(result, CheckStep::DIRECTORY_FILE,
             {TRAVEX_FTP_ERR_TOO_LARGE, TRAVEX_FTP_STEP_RECEIVE, 0, 0, m_plan.directoryFile,
              "the file has " + std::to_string(result.directoryBytes) +
                  " bytes, --max-size allows " + std::to_string(m_plan.maxSize)});
    }
}

}  // namespace corpdir_tool
