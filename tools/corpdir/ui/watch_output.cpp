#include "ui/watch_output.h"

#include <ctime>

#include "corpdir_log.h"
#include "text.h"
#include "travex_ftp.h"
#include "ui/json.h"

namespace corpdir_tool
{

namespace
{

std::string TimeNow()
{
    const std::time_t now = std::time(nullptr);
    std::tm parts = {};
    char text[32] = "";
    (void)gmtime_r(&now, &parts);
    (void)std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
}

Json FieldsOf(const Server& server)
{
    return {{"server", OrNull(server.address)}, {"name", OrNull(server.name)}};
}

std::string Quoted(const std::string& text)
{
    return "'" + text + "'";
}

// A record of another layer says the same.
constexpr std::nullopt_t kLoggedElsewhere = std::nullopt;

std::string Seconds(std::chrono::seconds time)
{
    return std::to_string(time.count()) + " s";
}

}  // namespace

std::string ProblemOf(const Server& server, const std::string& file, const std::string& reason)
{
    return (file.empty() ? "" : file + " from ") + server.Label() + ": " + reason;
}

template <typename Fields>
void WatchOutput::Write(Level level, bool always, const char* event, const std::string& sentence,
                        const Fields& fields)
{
    if (level)
    {
        m_log(*level, sentence);
    }
    if (m_quiet && !always)
    {
        return;
    }
    const std::string time = TimeNow();
    if (!m_json)
    {
        WriteLine(time + " " + Printable(sentence));
        return;
    }
    Json object = {{"time", time}, {"event", event}};
    object.update(fields);
    WriteLine(TextOf(object));
}

void WatchOutput::WriteLine(const std::string& line)
{
    (void)std::fprintf(m_output, "%s\n", line.c_str());
    m_lost = m_lost || std::fflush(m_output) != 0 || std::ferror(m_output) != 0;
}

void WatchOutput::Checking(const Server& server)
{
    Write(CORPDIR_LOG_INFO, false, "checking", "checking " + server.Label(), FieldsOf(server));
}

void WatchOutput::Unchanged(const Server& server, const std::string& version)
{
    Json fields = FieldsOf(server);
    fields["version"] = version;
    Write(CORPDIR_LOG_NOTICE, false, "unchanged",
          "unchanged: version " + Quoted(version) + " at " + server.Label(), fields);
}

void WatchOutput::NewVersion(const Server& server, const std::string& version)
{
    Json fields = FieldsOf(server);
    fields["version"] = version;
    Write(CORPDIR_LOG_INFO, false, "new_version",
          "new version " + Quoted(version) + " at " + server.Label(), fields);
}

void WatchOutput::Downloaded(const Server& server, const std::string& version,
                             const std::string& file, std::uint64_t bytes)
{
    Json fields = FieldsOf(server);
    fields["version"] = version;
    fields["file"] = file;
    fields["bytes"] = bytes;
    Write(CORPDIR_LOG_NOTICE, false, "downloaded",
          "downloaded " + file + ", version " + Quoted(version) + ", " + std::to_string(bytes) +
              " bytes from " + server.Label(),
          fields);
}

void WatchOutput::NextServer(const Server& server)
{
    Write(CORPDIR_LOG_INFO, false, "next_server", "next server " + server.Label(),
          FieldsOf(server));
}

void WatchOutput::Stopped(const std::string& signal)
{
    Write(CORPDIR_LOG_INFO, false, "stopped", "stopped by " + signal, Json({{"signal", signal}}));
}

void WatchOutput::Failed(const Server& server, const Failure& failure)
{
    Json fields = FieldsOf(server);
    fields["remote_file"] = OrNull(failure.file);
    fields["code"] = failure.code;
    fields["step"] = failure.step;
    fields["reply"] = failure.reply;
    fields["reason"] = failure.reason;
    // The FTP layer and the client log that a local file cannot be written.
    const Level level =
        failure.code == TRAVEX_FTP_ERR_LOCAL_FILE ? Level(kLoggedElsewhere) : CORPDIR_LOG_ERROR;
    Write(level, true, "failed", "failed: " + ProblemOf(server, failure.file, failure.reason),
          fields);
}

void WatchOutput::NameFailed(const std::string& problem)
{
    Write(kLoggedElsewhere, true, "name_failed", "failed: " + problem, Json({{"reason", problem}}));
}

void WatchOutput::InvalidVersion(const Server& server, const std::string& file,
                                 const std::string& version, const std::string& reason)
{
    Json fields = FieldsOf(server);
    fields["remote_file"] = file;
    fields["version"] = version;
    fields["reason"] = reason;
    Write(kLoggedElsewhere, true, "invalid_version", "failed: " + ProblemOf(server, file, reason),
          fields);
}

void WatchOutput::Warning(const std::string& reason)
{
    Write(kLoggedElsewhere, true, "warning", "warning: " + reason, Json({{"reason", reason}}));
}

void WatchOutput::Reloaded()
{
    Write(CORPDIR_LOG_NOTICE, false, "reloaded", "settings reloaded", Json::object());
}

void WatchOutput::ReloadFailed(const std::string& reason)
{
    Write(CORPDIR_LOG_ERROR, true, "reload_failed", "settings not reloaded: " + reason,
          Json({{"reason", reason}}));
}

void WatchOutput::NoServerLeft()
{
    Write(CORPDIR_LOG_ERROR, true, "no_server_left", "all servers failed", Json::object());
}

void WatchOutput::Recovered(unsigned int failures)
{
    Write(CORPDIR_LOG_NOTICE, false, "recovered",
          "the check succeeded after " + std::to_string(failures) + " that failed",
          Json({{"failures", failures}}));
}

void WatchOutput::CheckFailed()
{
    Write(CORPDIR_LOG_ERROR, true, "check_failed", "the check failed", Json::object());
}

void WatchOutput::StartFailed(const std::string& reason)
{
    Write(CORPDIR_LOG_ERROR, true, "start_failed", "failed: " + reason, Json({{"reason", reason}}));
}

void WatchOutput::Waiting(std::chrono::seconds time, bool own)
{
    WriteWaiting(own ? CORPDIR_LOG_NOTICE : CORPDIR_LOG_INFO,
                 (own ? "retrying in " : "next check within ") + Seconds(time), time, own);
}

void WatchOutput::FirstCheckIn(std::chrono::seconds time)
{
    WriteWaiting(CORPDIR_LOG_INFO, "first check in " + Seconds(time), time, true);
}

void WatchOutput::WriteWaiting(unsigned int level, const std::string& sentence,
                               std::chrono::seconds time, bool own)
{
    Write(level, true, "waiting", sentence, Json({{"seconds", time.count()}, {"asks_again", own}}));
}

void WatchOutput::CommandEnded(const char* option, int status, bool timedOut)
{
    std::string end = " succeeded";
    if (status != 0)
    {
        end = timedOut ? " exceeded --exec-timeout and was ended"
                       : " failed with status " + std::to_string(status);
    }
    Write(status == 0 ? CORPDIR_LOG_INFO : CORPDIR_LOG_ERROR, status != 0, "command",
          std::string("the command of ") + option + end,
          Json({{"option", option},
                {"status", status},
                {"reason", timedOut ? Json("timed out") : Json(nullptr)}}));
}

void WatchOutput::CommandFailed(const char* option, const std::string& reason)
{
    Write(CORPDIR_LOG_ERROR, true, "command",
          std::string("the command of ") + option + " could not be started: " + reason,
          Json({{"option", option}, {"status", nullptr}, {"reason", reason}}));
}

}  // namespace corpdir_tool
