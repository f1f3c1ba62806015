// A client of the C library, for tests: it knows corpdir_c.h and nothing else of the product.
#ifndef CORPDIR_TESTS_C_CLIENT_H
#define CORPDIR_TESTS_C_CLIENT_H

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "corpdir_c.h"
#include "files.h"
#include "ftp_servers.h"

namespace integration
{

// A copy of an event.
struct Event
{
    corpdir_event_kind kind;
    corpdir_code code;
    std::string server;
    std::string file;
    std::string reason;
    std::uint64_t bytes;
    std::uint64_t total;
    std::string name;
    std::string version;
    std::string path;
    std::int64_t time;
    std::uint32_t step;
    std::uint32_t reply;
    std::uint32_t failures;
    std::uint32_t seconds;
};

// How GoogleTest shows one.
void PrintTo(const Event& event, std::ostream* stream);

// The events that one callback received. Thread-safe; must outlive the callback.
class RecordedEvents
{
public:
    static void OnEvent(void* user, const corpdir_event* event);

    // Runs on the event thread after each event, or each one of this kind, was recorded.
    void Then(std::function<void()> action);
    void On(corpdir_event_kind kind, std::function<void()> action);

    std::vector<Event> All() const;
    std::vector<Event> OfKind(corpdir_event_kind kind) const;
    bool WaitFor(corpdir_event_kind kind, std::size_t count = 1) const;  // false: not in time

private:
    void SetAction(std::function<void(const Event&)> action);

    mutable std::mutex m_mutex;
    std::vector<Event> m_events;
    std::function<void(const Event&)> m_action;
};

// A request to a server, with the texts that the record points to.
struct CRequest
{
    CRequest(const support::FtpServer& server, const support::TestCertificates& certificates,
             const std::string& directory, RecordedEvents& events);
    CRequest(const CRequest&) = delete;
    CRequest& operator=(const CRequest&) = delete;

    std::string servers;
    std::string user;
    std::string password;
    std::string trust;
    std::string directory;
    corpdir_request record = {};
};

}  // namespace integration

#endif
