#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>

#include "commands/command.h"
#include "exit_error.h"
#include "state.h"
#include "text.h"
#include "ui/json.h"

namespace corpdir_tool
{

namespace
{

// Why the directory file is not the one that the state describes; empty when it is.
std::string FileProblem(const std::string& path, const client::State& state)
{
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0)
    {
        return "'" + path + "': " + SystemMessage(errno);
    }
    if (!S_ISREG(status.st_mode))
    {
        return "'" + path + "' is not a regular file";
    }
    return static_cast<std::uint64_t>(status.st_size) == state.size
               ? ""
               : "'" + path + "' has " + std::to_string(status.st_size) +
                     " bytes, but the file that was fetched has " + std::to_string(state.size);
}

// Why nothing can be said about the directory file.
std::string StateProblem(const std::string& path, const std::string& statePath,
                         const std::optional<client::State>& state, const std::string& problem)
{
    const std::string reason = !problem.empty() ? "'" + statePath + "' cannot be used: " + problem
                               : state          ? "no check has fetched it yet"
                                                : "'" + statePath + "' is missing or empty";
    return "nothing is known about '" + path + "': " + reason;
}

// Seconds since a time; one in the future counts as now.
std::int64_t AgeOf(std::int64_t time, std::time_t now)
{
    return time < now ? now - time : 0;
}

std::string OrNever(std::int64_t time)
{
    return time == 0 ? "never" : client::TimeText(time);
}

void PrintText(const client::State& state, const std::string& path)
{
    const auto print = [](const char* name, const std::string& value)
    { (void)std::fprintf(stdout, "%-10s %s\n", name, Printable(value).c_str()); };
    if (!state.version.empty())
    {
        print("version:", state.version);
        print("file:", path + " (" + std::to_string(state.size) + " bytes)");
        print("server:", state.server);
    }
    print("fetched:", OrNever(state.fetched));
    print("confirmed:", OrNever(state.confirmed));
    print("checked:", OrNever(state.checked));
    print("outcome:", state.outcome);
    if (!state.reason.empty())
    {
        print("reason:", state.reason);
    }
    print("failures:", std::to_string(state.failures));
}

void PrintJson(const client::State& state)
{
    const bool fetched = !state.version.empty();
    const Json object = {{"version", OrNull(state.version)},
                         {"size", fetched ? Json(state.size) : Json(nullptr)},
                         {"sha256", OrNull(state.sha256)},
                         {"server", OrNull(state.server)},
                         {"fetched", OrNull(client::TimeText(state.fetched))},
                         {"confirmed", OrNull(client::TimeText(state.confirmed))},
                         {"checked", OrNull(client::TimeText(state.checked))},
                         {"outcome", OrNull(state.outcome)},
                         {"reason", OrNull(state.reason)},
                         {"failures", state.failures}};
    (void)std::fprintf(stdout, "%s\n", TextOf(object).c_str());
}

// Throws ExitError when the last check that confirmed the file is too long ago.
void CheckAge(const client::State& state, unsigned int maxAge)
{
    const std::int64_t age = AgeOf(state.confirmed, std::time(nullptr));
    if (maxAge != 0 && age >= maxAge)
    {
        throw ExitError(
            kExitStale,
            "the last check that fetched the file or found it unchanged was " +
                (state.confirmed == 0 ? "never" : std::to_string(age) + " s ago") +
                ", --max-age is " + std::to_string(maxAge) + " s: " +
                (state.outcome == "failed"
                     ? "the last check failed, see its reason"
                     : "check that 'corpdir watch' or the job that fetches the file runs"));
    }
}

}  // namespace

int RunStatus(const Options& options)
{
    const Plan plan = PlanStatus(options);
    const std::string path = plan.DirectoryPath();
    const std::string statePath = plan.outputDir + client::StateName(plan.directoryName);
    std::string problem;
    const std::optional<client::State> state = client::ReadState(statePath, problem);
    const bool known = state && !state->version.empty();
    if (options.json)
    {
        PrintJson(state.value_or(client::State()));
    }
    else if (state)
    {
        PrintText(*state, path);
    }
    FlushResult();
    problem = known ? FileProblem(path, *state) : StateProblem(path, statePath, state, problem);
    if (!problem.empty())
    {
        // A fetch does not help where a file may not be read.
        const bool fetchHelps =
            access((known ? path : statePath).c_str(), R_OK) == 0 || errno == ENOENT;
        throw ExitError(kExitNoState, problem + (fetchHelps ? "; run 'corpdir fetch'" : ""));
    }
    CheckAge(*state, options.maxAgeSeconds);
    return kExitFetched;
}

}  // namespace corpdir_tool
