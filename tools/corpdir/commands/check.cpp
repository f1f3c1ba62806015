#include "commands/check.h"

#include <stdlib.h>

#include <algorithm>
#include <ctime>
#include <filesystem>

#include "commands/checker.h"
#include "commands/command.h"
#include "commands/failure.h"
#include "ftpcorpdir.h"
#include "os/password.h"
#include "travex_ftp.h"
#include "ui/check_table.h"
#include "ui/hints.h"
#include "ui/report.h"
#include "ui/text.h"

namespace corpdir_tool
{

namespace
{

// An empty directory, removed with what is in it.
class ScratchDirectory
{
public:
    ScratchDirectory()
    {
        std::string pattern = "/tmp/corpdir-check-XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr)
        {
            throw Failure(EXIT_LOCAL_FILE,
                          "no scratch directory can be made in /tmp: " + SystemMessage(errno));
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

// What `fetch` would end with: it goes on to the next server except after a bad version file.
int StatusOf(const std::vector<CheckResult>& results)
{
    for (const CheckResult& result : results)
    {
        if (result.failedAt == CheckStep::DONE)
        {
            return EXIT_FETCHED;
        }
        if (result.failedAt == CheckStep::VERSION_FILE && result.trouble.code == 0)
        {
            return EXIT_BAD_VERSION;
        }
    }
    return EXIT_NO_SERVER;
}

// Shows results as they come, or all together as JSON.
class CheckPrinter
{
public:
    CheckPrinter(const Options& options, const Plan& plan, Report& report)
        : m_json(options.json), m_quiet(options.quiet), m_plan(plan), m_report(report)
    {
    }

    void Add(const CheckResult& result)
    {
        m_results.push_back(result);
        if (!m_json && !(m_quiet && result.failedAt == CheckStep::DONE))
        {
            PrintCheck(result, m_plan, std::time(nullptr), Terminal(stdout));
            (void)std::fflush(stdout);
        }
    }

    void LeaveOut(const std::string& problem)
    {
        m_leftOut.push_back(problem);
    }

    // The last words; gives the status back.
    int End(int status, const std::string& error) const
    {
        if (m_json)
        {
            PrintChecksAsJson(m_results, m_leftOut, m_plan.port, status, error, stdout);
        }
        if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0)
        {
            throw Failure(EXIT_LOCAL_FILE, "the result cannot be written to standard output");
        }
        if (!error.empty())
        {
            m_report.Error(error);
            Hint();
        }
        return status;
    }

    const std::vector<CheckResult>& Results() const
    {
        return m_results;
    }

private:
    void Hint() const
    {
        std::vector<Trouble> troubles;
        for (const CheckResult& result : m_results)
        {
            troubles.push_back(result.trouble);
        }
        for (const std::string& hint : HintsFor(troubles, m_plan))
        {
            m_report.Hint(hint);
        }
    }

    const bool m_json;
    const bool m_quiet;
    const Plan& m_plan;
    Report& m_report;
    std::vector<CheckResult> m_results;
    std::vector<std::string> m_leftOut;
};

std::string ErrorOf(const std::vector<CheckResult>& results, int status)
{
    if (status == EXIT_FETCHED)
    {
        return "";
    }
    return status == EXIT_BAD_VERSION ? "the version file is not valid" : AllFailed(results.size());
}

// Ends with what the servers are good for, a check that was stopped as well.
int CheckAll(const std::vector<Server>& servers, const Plan& plan, const Secret& password,
             EventQueue::Clock::time_point deadline, CommandFrame& frame, CheckPrinter& printer)
{
    const ScratchDirectory scratch;
    const LastResort lastResort(frame, [&scratch] { scratch.Remove(); });
    Checker checker(*GetCorpDirInstance(), plan, scratch.Path(), password, frame.Events());
    try
    {
        for (const Server& server : servers)
        {
            printer.Add(checker.Check(server, deadline));
        }
    }
    catch (const CheckStopped& stopped)
    {
        const bool works = StatusOf(printer.Results()) == EXIT_FETCHED;
        const bool timeOver = stopped.status == EXIT_NO_OUTCOME;
        return printer.End(works && timeOver ? EXIT_FETCHED : stopped.status, stopped.message);
    }
    const int status = StatusOf(printer.Results());
    return printer.End(status, ErrorOf(printer.Results(), status));
}

int Check(const Options& options, const CipherSource& ciphers)
{
    const Plan plan = MakePlan(options, ciphers);
    Secret password;
    ReadPassword(options.passwordFile, password);

    CommandFrame frame(plan, [](int number) { return EXIT_SIGNAL + number; });
    ReportSettings settings;
    settings.quiet = options.quiet;
    Report report(settings, frame.Messages());
    CheckPrinter printer(options, plan, report);
    const auto deadline = EventQueue::Clock::now() + plan.timeout;
    const auto leaveOut = [&report, &printer](const std::string& problem)
    {
        report.Error(problem + "; left out");
        printer.LeaveOut(problem);
    };
    try
    {
        const std::vector<Server> servers = FindServers(plan, frame.Events(), deadline, leaveOut);
        return CheckAll(servers, plan, password, deadline, frame, printer);
    }
    catch (const Failure& failure)
    {
        return printer.End(failure.Status(), failure.what());
    }
}

}  // namespace

int RunCheck(const Options& options, const CipherSource& ciphers)
{
    try
    {
        return Check(options, ciphers);
    }
    catch (const Failure& failure)
    {
        if (options.json)
        {
            PrintChecksAsJson({}, {}, options.port, failure.Status(), failure.what(), stdout);
        }
        throw;
    }
}

}  // namespace corpdir_tool
