// The thread of a client of the C library: it runs the client layer and delivers the events.
#ifndef CORPDIR_C_WORKER_H
#define CORPDIR_C_WORKER_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/descriptor.h"
#include "base/mutex.h"
#include "base/thread.h"
#include "client.h"
#include "corpdir_c.h"
#include "events.h"

namespace corpdir_c
{

struct Request
{
    client::Settings settings;  // without the log and the suites
    Edition edition = Edition::kCurrent;
    corpdir_event_fn callback = nullptr;  // null: the events wait
    void* user = nullptr;
};

// The result of a call, also in words.
struct Answer
{
    corpdir_code code = CORPDIR_OK;
    std::string reason;
};

// Thread-safe: m_mutex guards what several threads use. It is held neither during a callback nor
// while the client layer works.
//
// The client layer runs on the worker's thread alone. Start and Stop on another thread wait until
// that thread answers them, so after a callback in progress. Within the callback they are answered
// at once.
class Worker : public std::enable_shared_from_this<Worker>
{
public:
    Worker() = default;
    ~Worker() = default;
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    // Starts the thread and the service. After a failure the worker is closed. Throws
    // std::system_error when there is no descriptor or thread, and std::bad_alloc.
    Answer Open(const tag_CORPDIR_LOGINFO& log);

    // Ends the thread and waits for its end. Within the callback it does not wait: then the service
    // is stopped, the thread ends when the callback has returned, and it returns false.
    bool Close();

    // Waits for the end of a worker that was closed. Not on the thread of a worker.
    void WaitForEnd();

    // These give CORPDIR_ERR_CLIENT from the close on.

    Answer Start(Request request);
    Answer Stop();
    corpdir_code CheckNow();
    corpdir_code SetSuites(std::vector<int> suites);
    corpdir_code AddSuite(int suite);
    int EventDescriptor();                          // -1: closed
    corpdir_code NextEvent(corpdir_event& record);  // its texts are valid until the next call

    // True on the thread of a worker, so within a callback.
    static bool CallerIsOne();

private:
    // A call that waits for its answer.
    struct Call
    {
        std::function<Answer()> work;
        Answer answer;
        bool done = false;
    };

    static bool PrepareForExit();
    [[noreturn]] void Hold();
    static void EndAtExit(base::Clock::time_point deadline);
    static void RemoveFilesAtExit();

    void Run() noexcept;
    bool Step();
    Answer Ask(std::function<Answer()> work);
    void AnswerCall();
    Answer Accept(Request& request);
    void Forget();
    void Restart();
    void Report(const client::Event& event);
    void Deliver(const EventData& event);
    void Wait(const EventData& event);
    bool IsClosing();
    bool TakeCheckNow();
    void ClearEvents() CORPDIR_REQUIRES(m_mutex);
    void SetReadable(bool readable) CORPDIR_REQUIRES(m_mutex);

    // Used on the thread alone. While m_closing is false, others may wake it under the lock.
    std::optional<client::Client> m_client;
    tag_CORPDIR_LOGINFO m_log = {};
    std::optional<Request> m_request;                  // under way
    std::size_t m_requests = 0;                        // accepted or stopped
    std::optional<base::Clock::time_point> m_restart;  // the client layer ran out of memory

    base::Mutex m_mutex;
    base::CondVar m_changed;
    base::Thread m_thread;
    Call* m_call CORPDIR_GUARDED_BY(m_mutex) = nullptr;
    bool m_checkNow CORPDIR_GUARDED_BY(m_mutex) = false;
    bool m_started CORPDIR_GUARDED_BY(m_mutex) = false;  // a request is under way
    bool m_closing CORPDIR_GUARDED_BY(m_mutex) = false;
    bool m_held CORPDIR_GUARDED_BY(m_mutex) = false;        // the process ends
    bool m_over CORPDIR_GUARDED_BY(m_mutex) = false;        // the thread does nothing more
    std::vector<int> m_suites CORPDIR_GUARDED_BY(m_mutex);  // empty: the default ones
    base::Descriptor m_readable CORPDIR_GUARDED_BY(m_mutex);
    std::deque<EventData> m_waiting CORPDIR_GUARDED_BY(m_mutex);
    bool m_lost CORPDIR_GUARDED_BY(m_mutex) = false;  // events before those that wait
    EventData m_taken CORPDIR_GUARDED_BY(m_mutex);
};

}  // namespace corpdir_c

#endif
