#include "c_client.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <ostream>

#include <gtest/gtest.h>

namespace integration
{

void PrintTo(const Event& event, std::ostream* stream)
{
    *stream << "(kind " << event.kind << ", code " << event.code << ", " << event.server << ", "
            << event.file << ", " << event.bytes << " bytes, " << event.reason << ")";
}

void RecordedEvents::OnEvent(void* user, const corpdir_event* event)
{
    EXPECT_EQ(event->size, sizeof *event);
    EXPECT_TRUE(event->kind >= CORPDIR_EVENT_PROGRESS && event->kind <= CORPDIR_EVENT_START_FAILED)
        << event->kind;
    auto& events = *static_cast<RecordedEvents*>(user);
    const Event copy = {static_cast<corpdir_event_kind>(event->kind),
                        static_cast<corpdir_code>(event->code),
                        event->server,
                        event->file,
                        event->reason,
                        event->bytes,
                        event->total,
                        event->name,
                        event->version,
                        event->path,
                        event->time,
                        event->step,
                        event->reply,
                        event->failures,
                        event->seconds};
    std::function<void(const Event&)> action;
    {
        const std::lock_guard<std::mutex> lock(events.m_mutex);
        events.m_events.push_back(copy);
        action = events.m_action;
    }
    if (action)
    {
        action(copy);
    }
}

void RecordedEvents::Then(std::function<void()> action)
{
    SetAction([action = std::move(action)](const Event&) { action(); });
}

void RecordedEvents::On(corpdir_event_kind kind, std::function<void()> action)
{
    SetAction(
        [kind, action = std::move(action)](const Event& event)
        {
            if (event.kind == kind)
            {
                action();
            }
        });
}

void RecordedEvents::SetAction(std::function<void(const Event&)> action)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_action = std::move(action);
}

std::vector<Event> RecordedEvents::All() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_events;
}

std::vector<Event> RecordedEvents::OfKind(corpdir_event_kind kind) const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<Event> found;
    std::copy_if(m_events.begin(), m_events.end(), std::back_inserter(found),
                 [kind](const Event& event) { return event.kind == kind; });
    return found;
}

bool RecordedEvents::WaitFor(corpdir_event_kind kind, std::size_t count) const
{
    return support::WaitUntil([&] { return OfKind(kind).size() >= count; },
                              std::chrono::seconds(30));
}

CRequest::CRequest(const support::FtpServer& server, const support::TestCertificates& certificates,
                   const std::string& output, RecordedEvents& events)
    : servers(server.Host()),
      user(server.Options().user),
      password(server.Options().password),
      trust("ca=" + certificates.Authority()),
      directory(output)
{
    record.size = sizeof record;
    record.servers = servers.c_str();
    record.port = static_cast<std::uint32_t>(server.Port());
    record.user = user.c_str();
    record.password = password.c_str();
    record.trust = trust.c_str();
    record.version_file = "version.txt";
    record.directory_file = "directory.csv";
    record.directory_dir = directory.c_str();
    record.mode =
        server.Options().tls == support::Tls::kNone ? CORPDIR_MODE_FTP : CORPDIR_MODE_FTPS;
    record.on_event = &RecordedEvents::OnEvent;
    record.user_data = &events;
}

}  // namespace integration
