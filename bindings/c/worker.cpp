#include "worker.h"

#include <sys/eventfd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <new>
#include <system_error>
#include <utility>

#include "base/gate.h"
#include "base/process_end.h"
#include "ftpcorpdir.h"
#include "settings_check.h"
#include "suites.h"

namespace corpdir_c
{

namespace
{

constexpr std::size_t kMaxWaiting = 1000;
constexpr std::chrono::hours kLongWait{24};
constexpr std::chrono::seconds kRestartAfter{1};

thread_local const Worker* t_worker = nullptr;

// The end of the process. Workers are inside the gate while they do anything.
base::Gate g_gate;
std::atomic<bool> g_ending{false};
std::atomic<bool> g_forked{false};  // this process is a child: its workers are the parent's
base::Mutex g_currentMutex;
Worker* g_current CORPDIR_GUARDED_BY(g_currentMutex) = nullptr;

EventData Lost()
{
    EventData event;
    event.time = std::time(nullptr);
    return event;
}

Answer AnswerOf(const client::StartError& error)
{
    return {error.Log() != 0 ? CORPDIR_ERR_LOG : CORPDIR_ERR_SERVICE, error.what()};
}

Answer Closed()
{
    return {CORPDIR_ERR_CLIENT, ""};
}

}  // namespace

// At exit the worker's thread does not return from here on: the layers below go away.
void Worker::EndAtExit(base::Clock::time_point deadline)
{
    if (g_forked)
    {
        return;
    }
    g_ending = true;
    const base::MutexLock lock(g_currentMutex);
    if (g_current != nullptr)
    {
        const base::MutexLock workerLock(g_current->m_mutex);
        if (!g_current->m_closing)
        {
            g_current->m_client->Wake();
        }
    }
    g_gate.Close(CallerIsOne() ? 1 : 0, deadline);
}

// When no transfer and no service uses them any more.
void Worker::RemoveFilesAtExit()
{
    if (g_forked)
    {
        return;
    }
    const base::MutexLock lock(g_currentMutex);
    if (g_current != nullptr)
    {
        const base::MutexLock workerLock(g_current->m_mutex);
        if (!g_current->m_closing)
        {
            g_current->m_client->RemoveStaged();
        }
    }
}

bool Worker::PrepareForExit()
{
    // One worker is opened at a time. The first handler runs last, after those of all layers.
    static bool s_registered = false;
    s_registered = s_registered || (std::atexit(RemoveFilesAtExit) == 0 &&
                                    base::ProcessEnd::Register<base::EndStage::kEvents>(
                                        EndAtExit, [] { g_forked = true; }));
    return s_registered;
}

// Stops the thread for good, outside the gate. Others do not wait for it.
void Worker::Hold()
{
    {
        const base::MutexLock lock(m_mutex);
        m_held = true;
        m_changed.NotifyAll();
    }
    base::ProcessEnd::HoldCaller();
}

bool Worker::CallerIsOne()
{
    return t_worker != nullptr;
}

Answer Worker::Open(const tag_CORPDIR_LOGINFO& log)
{
    base::Descriptor readable(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    if (!readable.IsOpen())
    {
        throw std::system_error(errno, std::generic_category());
    }
    if (!PrepareForExit())
    {
        throw std::bad_alloc();
    }
    m_log = log;
    client::Settings settings;
    settings.log = log;
    settings.suites = client::SuitesOf(client::SuiteSet::kCompatible);
    m_client.emplace(*GetCorpDirInstance());
    {
        const base::MutexLock lock(m_mutex);
        m_readable = std::move(readable);
        m_thread = base::Thread("corpdir-client", [self = shared_from_this()] { self->Run(); });
    }
    Answer answer = Ask(
        [this, &settings]
        {
            try
            {
                m_client->Open(settings);
                return Answer();
            }
            catch (const client::StartError& error)
            {
                return AnswerOf(error);
            }
        });
    if (answer.code != CORPDIR_OK)
    {
        (void)Close();
    }
    return answer;
}

bool Worker::Close()
{
    if (g_forked || base::ProcessEnd::IsCaller())
    {
        return true;  // called by a destructor, in a child or at exit
    }
    if (t_worker == this)
    {
        {
            const base::MutexLock lock(m_mutex);
            m_closing = true;
            m_readable = base::Descriptor();
            ClearEvents();
            m_thread.Detach();
        }
        Forget();
        m_client.reset();
        return false;
    }
    {
        const base::MutexLock lock(m_mutex);
        if (!m_closing)
        {
            m_client->Wake();
        }
        m_closing = true;
        m_changed.NotifyAll();
    }
    WaitForEnd();
    return true;
}

// The thread says that it is over in its last section under the mutex, so the join within it is
// short.
void Worker::WaitForEnd()
{
    const base::MutexLock lock(m_mutex);
    while (!m_over && !m_held)
    {
        m_changed.Wait(m_mutex);
    }
    if (m_over && m_thread.Joinable())
    {
        m_thread.Join();
    }
}

void Worker::Run() noexcept
{
    t_worker = this;
    {
        const base::MutexLock lock(g_currentMutex);
        g_current = this;
    }
    bool goOn = true;
    while (goOn)
    {
        if (g_ending || !g_gate.Enter())
        {
            Hold();
        }
        goOn = Step();
        if (!goOn)
        {
            Forget();
            m_client.reset();
        }
        g_gate.Leave();
    }
    {
        const base::MutexLock lock(g_currentMutex);
        g_current = g_current == this ? nullptr : g_current;
    }
    const base::MutexLock lock(m_mutex);
    m_readable = base::Descriptor();
    if (m_call != nullptr)
    {
        m_call->answer = Closed();
        m_call->done = true;
    }
    m_over = true;
    m_changed.NotifyAll();
}

// False when the worker is closed.
bool Worker::Step()
{
    if (IsClosing())
    {
        return false;
    }
    AnswerCall();
    if (TakeCheckNow())
    {
        m_client->CheckNow();
    }
    try
    {
        const base::Clock::time_point now = base::Clock::now();
        if (m_restart && now >= *m_restart)
        {
            Restart();
        }
        if (const std::optional<client::Event> event =
                m_client->Next(m_restart.value_or(now + kLongWait)))
        {
            Report(*event);
        }
    }
    catch (const std::exception&)  // memory, or the security layer's resources
    {
        m_restart = base::Clock::now() + kRestartAfter;
        Deliver(Lost());
    }
    return true;
}

// The client layer stops when memory runs out.
void Worker::Restart()
{
    m_restart.reset();
    if (m_request)
    {
        m_client->Start(m_request->settings, client::Client::FirstFailure::kRetry);
    }
}

bool Worker::IsClosing()
{
    const base::MutexLock lock(m_mutex);
    return m_closing;
}

bool Worker::TakeCheckNow()
{
    const base::MutexLock lock(m_mutex);
    return std::exchange(m_checkNow, false);
}

// Has the thread do some work, and waits for its answer.
Answer Worker::Ask(std::function<Answer()> work)
{
    if (g_forked || base::ProcessEnd::IsCaller())
    {
        return Closed();
    }
    if (t_worker == this)
    {
        return IsClosing() ? Closed() : work();
    }
    Call call;
    call.work = std::move(work);
    const base::MutexLock lock(m_mutex);
    while (m_call != nullptr && !m_closing && !m_held)
    {
        m_changed.Wait(m_mutex);
    }
    if (m_closing || m_held)
    {
        return Closed();
    }
    m_call = &call;
    m_client->Wake();
    while (!call.done && !m_held)
    {
        m_changed.Wait(m_mutex);
    }
    return call.done ? std::move(call.answer) : Closed();
}

void Worker::AnswerCall()
{
    Call* call = nullptr;
    {
        const base::MutexLock lock(m_mutex);
        call = m_call;
    }
    if (call == nullptr)
    {
        return;
    }
    try
    {
        call->answer = call->work();
    }
    catch (const std::exception&)
    {
        call->answer = {CORPDIR_ERR_MEMORY, ""};
    }
    const base::MutexLock lock(m_mutex);
    call->done = true;
    m_call = nullptr;
    m_changed.NotifyAll();
}

Answer Worker::Start(Request request)
{
    return Ask([this, &request] { return Accept(request); });
}

// On the thread. The earlier request goes on when the new one is refused.
Answer Worker::Accept(Request& request)
{
    try
    {
        request.settings.log = m_log;
        {
            const base::MutexLock lock(m_mutex);
            request.settings.suites = m_suites;
        }
        if (request.settings.suites.empty())
        {
            request.settings.suites = client::SuitesOf(client::SuiteSet::kCompatible);
        }
        m_client->Check(request.settings);
        m_client->Start(request.settings, client::Client::FirstFailure::kStartFinal);
        Forget();
        m_request = std::move(request);
        const base::MutexLock lock(m_mutex);
        m_started = true;
        return {};
    }
    catch (const client::SettingsError& error)
    {
        return {CodeOf(error.Code()), error.what()};
    }
    catch (const std::system_error& error)
    {
        return {CORPDIR_ERR_LOCAL_FILE, error.what()};
    }
    catch (const client::StartError& error)
    {
        m_client->Stop();
        Forget();
        return AnswerOf(error);
    }
    catch (const std::bad_alloc&)
    {
        m_client->Stop();
        Forget();
        return {CORPDIR_ERR_MEMORY, ""};
    }
}

Answer Worker::Stop()
{
    return Ask(
        [this]() -> Answer
        {
            if (!m_request)
            {
                return {CORPDIR_ERR_NOT_STARTED, ""};
            }
            m_client->Stop();
            Forget();
            return {};
        });
}

// The request and its events.
void Worker::Forget()
{
    m_request.reset();
    m_restart.reset();
    ++m_requests;
    const base::MutexLock lock(m_mutex);
    m_started = false;
    m_checkNow = false;
    ClearEvents();
}

corpdir_code Worker::CheckNow()
{
    const base::MutexLock lock(m_mutex);
    if (m_closing)
    {
        return CORPDIR_ERR_CLIENT;
    }
    if (!m_started)
    {
        return CORPDIR_ERR_NOT_STARTED;
    }
    m_checkNow = true;
    m_client->Wake();
    return CORPDIR_OK;
}

corpdir_code Worker::SetSuites(std::vector<int> suites)
{
    const base::MutexLock lock(m_mutex);
    if (m_closing)
    {
        return CORPDIR_ERR_CLIENT;
    }
    m_suites.swap(suites);
    return CORPDIR_OK;
}

corpdir_code Worker::AddSuite(int suite)
{
    const base::MutexLock lock(m_mutex);
    if (m_closing)
    {
        return CORPDIR_ERR_CLIENT;
    }
    std::vector<int> suites =
        m_suites.empty() ? client::SuitesOf(client::SuiteSet::kCompatible) : m_suites;
    if (std::find(suites.begin(), suites.end(), suite) == suites.end())
    {
        suites.push_back(suite);
    }
    m_suites.swap(suites);
    return CORPDIR_OK;
}

// A callback may close the worker, or end the request.
void Worker::Report(const client::Event& event)
{
    if (!m_request)
    {
        return;
    }
    const std::size_t request = m_requests;
    try
    {
        for (const EventData& data : EventsOf(event, m_request->edition))
        {
            if (m_requests == request && !IsClosing())
            {
                Deliver(data);
            }
        }
    }
    catch (const std::bad_alloc&)
    {
        Deliver(Lost());
    }
}

void Worker::Deliver(const EventData& event)
{
    if (!m_request)
    {
        return;
    }
    if (m_request->callback == nullptr)
    {
        Wait(event);
        return;
    }
    if (g_ending)
    {
        g_gate.Leave();
        Hold();
    }
    const corpdir_event record = event.Record();
    m_request->callback(m_request->user, &record);
}

// For NextEvent.
void Worker::Wait(const EventData& event)
{
    const base::MutexLock lock(m_mutex);
    const auto isProgress = [](const EventData& one) { return one.kind == CORPDIR_EVENT_PROGRESS; };
    try
    {
        if (!m_waiting.empty() && isProgress(event) && isProgress(m_waiting.back()) &&
            m_waiting.back().file == event.file)
        {
            m_waiting.back() = event;
        }
        else
        {
            m_waiting.push_back(event);
        }
        if (m_waiting.size() > kMaxWaiting)
        {
            m_waiting.pop_front();
            m_lost = true;
        }
    }
    catch (const std::bad_alloc&)
    {
        m_lost = true;
    }
    SetReadable(true);
}

corpdir_code Worker::NextEvent(corpdir_event& record)
{
    const base::MutexLock lock(m_mutex);
    if (m_closing)
    {
        return CORPDIR_ERR_CLIENT;
    }
    if (m_lost)
    {
        m_lost = false;
        m_taken = Lost();
    }
    else if (m_waiting.empty())
    {
        return CORPDIR_ERR_NO_EVENT;
    }
    else
    {
        m_taken = std::move(m_waiting.front());
        m_waiting.pop_front();
    }
    SetReadable(!m_waiting.empty());
    record = m_taken.Record();
    return CORPDIR_OK;
}

int Worker::EventDescriptor()
{
    const base::MutexLock lock(m_mutex);
    return m_closing ? -1 : m_readable.Number();
}

void Worker::ClearEvents()
{
    m_waiting.clear();
    m_lost = false;
    SetReadable(false);
}

void Worker::SetReadable(bool readable)
{
    if (m_readable.IsOpen())
    {
        eventfd_t count = 0;
        (void)eventfd_read(m_readable.Number(), &count);
        if (readable)
        {
            (void)eventfd_write(m_readable.Number(), 1);
        }
    }
}

}  // namespace corpdir_c
