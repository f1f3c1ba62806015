// Output of `watch`: one line for each event.
#ifndef CORPDIR_TOOL_WATCH_OUTPUT_H
#define CORPDIR_TOOL_WATCH_OUTPUT_H

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "cli/servers.h"
#include "ui/hints.h"

namespace corpdir_tool
{

// With its server, and the file when one is concerned.
std::string ProblemOf(const Server& server, const std::string& file, const std::string& reason);

// Writes and flushes each event with its time (UTC, RFC 3339) as a sentence or as a JSON object,
// and hands the sentence to the log.
// Not thread-safe: belongs to the main thread. Does not own the stream.
class WatchOutput
{
public:
    // level: tagCORPDIR_LOG_LEVEL.
    using Log = std::function<void(unsigned int level, const std::string& sentence)>;

    WatchOutput(std::FILE* output, bool json, bool quiet, Log log)
        : m_output(output), m_json(json), m_quiet(quiet), m_log(std::move(log))
    {
    }

    void Checking(const Server& server);
    void Unchanged(const Server& server, const std::string& version);
    void NewVersion(const Server& server, const std::string& version);
    void Downloaded(const Server& server, const std::string& version, const std::string& file,
                    std::uint64_t bytes);
    void NextServer(const Server& server);
    void Reloaded();
    void Stopped(const std::string& signal);

    // With --quiet only the events below are written.

    void Failed(const Server& server, const Failure& failure);
    void NameFailed(const std::string& problem);
    void InvalidVersion(const Server& server, const std::string& file, const std::string& version,
                        const std::string& reason);
    void Warning(const std::string& reason);

    // The settings of before stay in use.
    void ReloadFailed(const std::string& reason);

    // The end of a check.
    void NoServerLeft();
    void Recovered(unsigned int failures);
    void CheckFailed();  // for another reason

    // A restart of the service failed.
    void StartFailed(const std::string& reason);

    // own: the program retries after this time; otherwise the service checks within it.
    void Waiting(std::chrono::seconds time, bool own);
    void FirstCheckIn(std::chrono::seconds time);

    // option: the one that gives the command. status: as a shell reports it; with --quiet a 0 is
    // not written.
    void CommandEnded(const char* option, int status, bool timedOut);
    void CommandFailed(const char* option, const std::string& reason);

    // True when a line could not be written.
    bool Lost() const
    {
        return m_lost;
    }

private:
    using Level = std::optional<unsigned int>;

    template <typename Fields>
    void Write(Level level, bool always, const char* event, const std::string& sentence,
               const Fields& fields);
    void WriteLine(const std::string& line);
    void WriteWaiting(unsigned int level, const std::string& sentence, std::chrono::seconds time,
                      bool own);

    std::FILE* m_output;
    const bool m_json;
    const bool m_quiet;
    const Log m_log;
    bool m_lost = false;
};

}  // namespace corpdir_tool

#endif
