#include <chrono>

#include "commands/client_settings.h"
#include "commands/command.h"
#include "commands/run_log.h"
#include "commands/session.h"
#include "exit_error.h"
#include "ftpcorpdir.h"
#include "ui/json.h"
#include "ui/report.h"

namespace corpdir_tool
{

namespace
{

ReportSettings ReportSettingsOf(const Plan& plan)
{
    const bool logBeside = plan.UsedLogLevel() && plan.logDir.empty();
    ReportSettings settings;
    settings.quiet = plan.quiet;
    settings.progress = !plan.noProgress && !logBeside;
    return settings;
}

Json ServersOf(const Outcome& outcome)
{
    Json servers = Json::array();
    for (const Attempt& attempt : outcome.attempts)
    {
        servers.push_back({{"address", attempt.server.address},
                           {"name", OrNull(attempt.server.name)},
                           {"gave", attempt.failure.reason.empty()},
                           {"file", OrNull(attempt.failure.file)},
                           {"code", attempt.failure.code},
                           {"step", attempt.failure.step},
                           {"reply", attempt.failure.reply},
                           {"reason", OrNull(attempt.failure.reason)}});
    }
    return servers;
}

// Prints the outcome: two lines, or one JSON object.
class ResultPrinter
{
public:
    ResultPrinter(const Options& options) : m_json(options.json), m_quiet(options.quiet) {}

    void SetPath(const std::string& path)
    {
        m_path = path;
    }

    // Throws ExitError when it cannot be written.
    void Print(const Outcome& outcome) const;

private:
    void PrintObject(const Outcome& outcome) const;

    const bool m_json;
    const bool m_quiet;
    const EventQueue::Clock::time_point m_begun = EventQueue::Clock::now();
    std::string m_path;
};

void ResultPrinter::Print(const Outcome& outcome) const
{
    if (m_json)
    {
        PrintObject(outcome);
    }
    else if (outcome.unchanged && !m_quiet)
    {
        PrintUnchanged(outcome.version, stdout);
    }
    else if (outcome.status == kExitFetched && !m_quiet)
    {
        PrintResult(outcome.version, m_path, outcome.bytes, stdout);
    }
    FlushResult();
}

void ResultPrinter::PrintObject(const Outcome& outcome) const
{
    const bool fetched = outcome.status == kExitFetched && !outcome.unchanged;
    const bool current = outcome.status == kExitFetched;
    const std::chrono::duration<double> spent = EventQueue::Clock::now() - m_begun;
    const Json object = {{"status", outcome.status},
                         {"fetched", fetched},
                         {"unchanged", outcome.unchanged},
                         {"error", OrNull(outcome.error)},
                         {"version", OrNull(outcome.version)},
                         {"file", OrNull(current ? m_path : "")},
                         {"bytes", fetched ? Json(outcome.bytes) : Json(nullptr)},
                         {"seconds", spent.count()},
                         {"servers", ServersOf(outcome)},
                         {"left_out", outcome.leftOut}};
    (void)std::fprintf(stdout, "%s\n", TextOf(object).c_str());
}

// The progress is erased on return. An error that ends the session early becomes its outcome.
Outcome RunSession(const Plan& plan, PasswordSource& password, CommandProcess& process)
{
    Report report(ReportSettingsOf(plan), process.Messages());
    Session session(*GetCorpDirInstance(), plan, SystemLookup, password, process.Events(), report);
    const LastResort lastResort(process, [&session] { session.RemoveStaged(); });
    try
    {
        return session.Run();
    }
    catch (const ExitError& error)
    {
        report.Error(error.what());
        Outcome outcome;
        outcome.status = error.Status();
        outcome.error = error.what();
        return outcome;
    }
}

// For the last record of the run.
std::string TextOf(const Outcome& outcome, const Plan& plan)
{
    if (!outcome.error.empty())
    {
        return OutcomeText(outcome.status, outcome.error, outcome.attempts, plan);
    }
    const std::string source = outcome.version + " from " + outcome.attempts.back().server.Label();
    return outcome.unchanged
               ? "unchanged, version " + source
               : "fetched version " + source + ", " + std::to_string(outcome.bytes) + " bytes";
}

int Fetch(const Options& options, const CipherSource& ciphers, ResultPrinter& printer)
{
    const Plan plan = OrLogged("fetch", options, [&] { return MakePlan(options, ciphers); });
    printer.SetPath(plan.DirectoryPath());
    PasswordSource password =
        OrLogged("fetch", options, [&] { return PasswordSource(options.passwordFile); });

    CommandProcess process([](int number) { return kExitSignal + number; });
    RunLog log("fetch", plan);
    const Outcome outcome = RunSession(plan, password, process);
    try
    {
        printer.Print(outcome);
    }
    catch (const ExitError& error)
    {
        log.End(error.Status(), error.what());
        throw;
    }
    log.End(outcome.status, TextOf(outcome, plan));
    return outcome.status;
}

}  // namespace

int RunFetch(const Options& options, const CipherSource& ciphers)
{
    ResultPrinter printer(options);
    try
    {
        return Fetch(options, ciphers, printer);
    }
    catch (const ExitError& error)
    {
        if (!options.json || std::ferror(stdout) != 0)
        {
            throw;
        }
        // With --json the object is printed in any case, and the message as well.
        (void)std::fprintf(stderr, "corpdir: %s\n", error.what());
        Outcome outcome;
        outcome.status = error.Status();
        outcome.error = error.what();
        printer.Print(outcome);
        return outcome.status;
    }
}

}  // namespace corpdir_tool
