#include <stdlib.h>

#include <algorithm>
#include <ctime>
#include <filesystem>

#include "commands/advice.h"
#include "commands/checker.h"
#include "commands/command.h"
#include "commands/run_log.h"
#include "exit_error.h"
#include "os/password.h"
#include "text.h"
#include "travex_ftp.h"
#include "ui/check_table.h"
#include "ui/hints.h"
#include "ui/report.h"

namespace corpdir_tool
{

namespace
{

// A temporary directory, removed with its files.
class ScratchDirectory
{
public:
    ScratchDirectory()
    {
        std::string pattern = "/tmp/corpdir-check-XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr)
        {
            throw ExitError(kExitLocalFile,
                            "cannot create a temporary directory in /tmp: " + SystemMessage(errno));
        }
        m_path = pattern + "/";
    }
    ~ScratchDirectory()
    {
        Remove();
    }
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;

    void Remove() const noexcept
    {
        std::error_code ignored;
        (void)std::filesystem::remove_all(m_path, ignored);
    }

    const std::string& Path() const
    {
        return m_path;
    }

private:
    std::string m_path;
};

// The exit status of `fetch`, which goes on to the next server after any failure.
int StatusOf(const std::vector<CheckResult>& results)
{
    bool isInvalid = false;
    for (const CheckResult& result : results)
    {
        if (result.failedAt == CheckStep::kDone)
        {
            return kExitFetched;
        }
        isInvalid =
            isInvalid || (result.failedAt == CheckStep::kVersionFile && result.failure.code == 0);
    }
    return isInvalid ? kExitBadVersion : kExitNoServer;
}

struct CheckEnd
{
    int status = kExitFetched;
    std::string error;  // empty when a server works, unless the check was stopped
};

std::vector<Attempt> AttemptsOf(const std::vector<CheckResult>& results)
{
    std::vector<Attempt> attempts;
    for (const CheckResult& result : results)
    {
        attempts.push_back({result.server, result.failure});
        Failure& failure = attempts.back().failure;
        if (result.failedAt == CheckStep::kVersionFile && failure.code == TRAVEX_FTP_OK)
        {
            failure.reason = "the version file is not valid: " + failure.reason;
        }
    }
    return attempts;
}

// For the last record of the run.
std::string TextOf(const CheckEnd& end, const std::vector<CheckResult>& results, const Plan& plan)
{
    if (!end.error.empty())
    {
        return OutcomeText(end.status, end.error, AttemptsOf(results), plan);
    }
    std::string text =
        "version and directory file can be fetched; each transfer of the directory file was "
        "cancelled at its first byte";
    for (const Attempt& attempt : AttemptsOf(results))
    {
        if (!attempt.failure.reason.empty())
        {
            text += "; " + attempt.server.Label() + " failed: " + WithFile(attempt.failure);
        }
    }
    return text;
}

// Prints each result at once, or all as one JSON object.
class CheckPrinter
{
public:
    CheckPrinter(const Plan& plan, Report& report) : m_plan(plan), m_report(report) {}

    void Add(const CheckResult& result)
    {
        m_results.push_back(result);
        if (!m_plan.json && !(m_plan.quiet && result.failedAt == CheckStep::kDone))
        {
            PrintCheck(result, m_plan, std::time(nullptr), Terminal(stdout));
            (void)std::fflush(stdout);
        }
    }

    // Names without an address, with the reason.
    std::vector<std::string>& LeftOut()
    {
        return m_leftOut;
    }

    // Throws ExitError when standard output cannot be written.
    void PrintEnd(const CheckEnd& end) const
    {
        if (m_plan.json)
        {
            PrintChecksAsJson(m_results, m_leftOut, m_plan.UsedPort(), end.status, end.error,
                              stdout);
        }
        FlushResult();
        if (!end.error.empty())
        {
            m_report.Error(end.error);
            GiveHint(HintFor(AttemptsOf(m_results), m_plan), m_plan, m_report);
        }
    }

    const std::vector<CheckResult>& Results() const
    {
        return m_results;
    }

private:
    const Plan& m_plan;
    Report& m_report;
    std::vector<CheckResult> m_results;
    std::vector<std::string> m_leftOut;
};

std::string ErrorOf(const std::vector<CheckResult>& results, int status)
{
    return status == kExitFetched ? "" : AllFailed(results.size());
}

// A check that was stopped ends with success when a server works.
CheckEnd CheckAll(const std::vector<Server>& servers, const Plan& plan, const Secret& password,
                  TimeLimits& limits, CommandProcess& process, CheckPrinter& printer)
{
    const ScratchDirectory scratch;
    const LastResort lastResort(process, [&scratch] { scratch.Remove(); });
    Checker checker(plan, scratch.Path(), password, process.Events(), limits);
    try
    {
        for (const Server& server : servers)
        {
            printer.Add(checker.Check(server));
        }
    }
    catch (const CheckStopped& stopped)
    {
        const bool works = StatusOf(printer.Results()) == kExitFetched;
        const bool timeOver = stopped.status == kExitNoOutcome;
        return {works && timeOver ? kExitFetched : stopped.status, stopped.message};
    }
    const int status = StatusOf(printer.Results());
    return {status, ErrorOf(printer.Results(), status)};
}

int Check(const Options& options, const CipherSource& ciphers)
{
    const Plan plan =
        OrLogged("check", options, [&] { return MakePlan(options, ciphers, Output::kOptional); });
    Secret password;
    OrLogged("check", options, [&] { ReadPassword(options.passwordFile, password); });

    CommandProcess process([](int number) { return kExitSignal + number; });
    ReportSettings settings;
    settings.quiet = options.quiet;
    Report report(settings, process.Messages());
    RunLog log("check", plan);
    CheckPrinter printer(plan, report);
    TimeLimits limits(plan);
    CheckEnd end;
    try
    {
        const std::vector<Server> servers =
            FindServers(plan, process.Events(), limits, report, printer.LeftOut());
        end = CheckAll(servers, plan, password, limits, process, printer);
    }
    catch (const ExitError& error)
    {
        end = {error.Status(), error.what()};
    }
    try
    {
        printer.PrintEnd(end);
    }
    catch (const ExitError& error)
    {
        log.End(error.Status(), error.what());
        throw;
    }
    log.End(end.status, TextOf(end, printer.Results(), plan));
    return end.status;
}

}  // namespace

int RunCheck(const Options& options, const CipherSource& ciphers)
{
    try
    {
        return Check(options, ciphers);
    }
    catch (const ExitError& error)
    {
        if (options.json && std::ferror(stdout) == 0)
        {
            PrintChecksAsJson({}, {}, options.UsedPort(), error.Status(), error.what(), stdout);
        }
        throw;
    }
}

}  // namespace corpdir_tool
