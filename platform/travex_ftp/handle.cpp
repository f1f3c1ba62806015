#include "handle.h"

#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <system_error>
#include <utility>

#include "log.h"

namespace travex_ftp
{
namespace
{
base::Descriptor MakeWake()
{
    base::Descriptor made(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!made.IsOpen())
    {
        throw std::system_error(errno, std::generic_category());
    }
    return made;
}

}  // namespace

Handle::Handle(Notifier& notifier) : m_notifier(notifier), m_wake(MakeWake()) {}

void Handle::SetSettings(std::shared_ptr<const Settings> settings)
{
    const base::MutexLock lock(m_mutex);
    m_settings.swap(settings);  // the old ones go after the lock
}

void Handle::SetDataParam()
{
    const base::MutexLock lock(m_mutex);
    m_dataParam = true;
}

std::shared_ptr<const Settings> Handle::CurrentSettings()
{
    const base::MutexLock lock(m_mutex);
    return m_settings;
}

bool Handle::DataParamSet()
{
    const base::MutexLock lock(m_mutex);
    return m_dataParam;
}

void Handle::StartThread()
{
    const base::MutexLock lock(m_mutex);
    if (!m_started && !m_cancelled)
    {
        m_worker.Start("corpdir-ftp", [this] { Run(); });
        m_started = true;
    }
}

// On a handle that was closed meanwhile the task is as one that was cancelled.
void Handle::Submit(TaskPtr task)
{
    const base::MutexLock lock(m_mutex);
    if (m_cancelled)
    {
        return;
    }
    m_queue.Push(std::move(task));
    if (m_idle)
    {
        (void)eventfd_write(m_wake.Number(), 1);
    }
}

void Handle::Cancel()
{
    m_closed = true;
    const base::MutexLock lock(m_mutex);
    m_cancelled = true;
    (void)eventfd_write(m_wake.Number(), 1);
}

void Handle::LeaveNoFile()
{
    if (m_worker.IsCaller())
    {
        m_file.Discard();
    }
}

void Handle::Run()
{
    while (const TaskPtr task = AwaitTask())
    {
        Transfer(task);
    }
    LeaveServer();
    DropTasks();
}

// The next task; null: the handle is cancelled.
TaskPtr Handle::AwaitTask()
{
    while (!m_closed)
    {
        TaskPtr task = TakeTask();
        if (task != nullptr)
        {
            return task;
        }
        AwaitWork();
    }
    return nullptr;
}

// Null: there is none now, and Submit wakes the thread.
TaskPtr Handle::TakeTask()
{
    const base::MutexLock lock(m_mutex);
    eventfd_t ignored = 0;
    m_idle = m_queue.IsEmpty();
    if (!m_cancelled)
    {
        (void)eventfd_read(m_wake.Number(), &ignored);
    }
    return m_queue.Pop();
}

// Nothing is to do. The connection is kept for a while, unless the server gives it up.
void Handle::AwaitWork()
{
    const bool kept = m_connection != nullptr;
    const Deadline deadline = {kept ? m_keptUntil : Clock::now() + std::chrono::hours(1),
                               m_wake.Number()};
    const Io io = deadline.Wait(kept ? m_connection->TheChannel().Socket() : -1, POLLIN);
    const bool chatter = kept && io == Io::kDone && !m_connection->Quiet();
    if (chatter || (kept && io == Io::kTimedOut))
    {
        LeaveServer();
    }
}

void Handle::DropTasks()
{
    TaskQueue<&Task::nextTransfer> dropped;
    const base::MutexLock lock(m_mutex);
    m_cancelled = true;  // nothing is queued from here on
    dropped = std::move(m_queue);
}

void Handle::Transfer(const TaskPtr& task)
{
    Work work{task, Limits::Current(), Clock::now()};
    bool good = false;
    try
    {
        good = Prepare(work) && Fetch(work);
    }
    catch (const std::bad_alloc&)
    {
        (void)FailSystem(work.failure, "transfer");
    }
    if (!good || !m_connection->Quiet())
    {
        LeaveServer();
    }
    m_file.Discard();
    m_keptUntil = Clock::now() + work.limits.idle;
    if (!m_closed)
    {
        Finish(work);
    }
}

// What can fail without a connection.
bool Handle::Prepare(Work& work)
{
    const Task& task = *work.task;
    // Connecting to the zero address would reach the local host, and hand it the password.
    if (task.settings->server.Zero())
    {
        SetStep(work.failure, TRAVEX_FTP_STEP_CONNECT);
        return Fail(work.failure, TRAVEX_FTP_ERR_CONNECT, "the server address is zero");
    }
    return !KnownRefusal(work) && m_file.Open(task.directory, task.localFile, work.failure);
}

// Tries again, unseen, what failed for reasons that a fresh connection can mend.
bool Handle::Fetch(Work& work)
{
    ChooseConnection(*work.task->settings);
    bool again = false;
    bool good = Try(work, again);
    while (!good && again)
    {
        LeaveServer();
        again = false;
        good = Try(work, again);
    }
    RememberRefusal(work);
    return good;
}

// A connection on which something has arrived since is left: it would be taken for a reply.
void Handle::ChooseConnection(const Settings& settings)
{
    if (m_connection != nullptr && (!m_connection->Serves(settings) || !m_connection->Quiet()))
    {
        LeaveServer();
    }
}

bool Handle::Try(Work& work, bool& again)
{
    const Settings& settings = *work.task->settings;
    const bool reused = m_connection != nullptr;
    TRAVEX_FTP_LOG(CORPDIR_LOG_INFO, "%s: task %u: %s on a %s connection",
                   settings.serverText.c_str(), work.task->id.Value(),
                   work.task->serverFile.c_str(), reused ? "known" : "new");
    Attempt attempt(work.limits, m_wake.Number(), work.begin + work.limits.transfer);
    if (reused)
    {
        m_connection->Reopen(attempt);
    }
    else
    {
        m_connection = std::make_unique<ControlConnection>(work.task->settings, m_closed);
    }
    ServerHabits& habits = m_habits[settings.serverText];
    Retrieval retrieval(*m_connection, attempt, work.task, m_file, habits, m_notifier);
    const bool good =
        (reused || m_connection->Open(attempt)) && retrieval.Run() && Commit(attempt.failure);
    work.failure = attempt.failure;
    work.timings = attempt.timings;
    work.received = retrieval.Received();
    work.announced = retrieval.Announced();
    work.timings.ullEnded = attempt.Elapsed();
    // A server may have given up a connection that was kept, or said something on it just now that
    // was taken for a reply.
    const bool stale =
        reused && (m_connection->Heard() == 0 || attempt.failure.ulReply == kServiceNotAvailable ||
                   attempt.failure.ulRet == TRAVEX_FTP_ERR_REPLY);
    habits.noEpsv = habits.noEpsv || (retrieval.WantsPasv() && !stale);
    again = !attempt.cancelled && work.received == 0 && (stale || retrieval.WantsPasv());
    return good;
}

// Flushing may take its time, in which the handle may be closed.
bool Handle::Commit(Failure& failure)
{
    const bool complete = m_file.Complete(failure);
    Worker::ParkAtExit();
    return complete && !m_closed && m_file.Publish(failure);
}

// The outcome for the log and the client.
void Handle::Finish(Work& work)
{
    const Task& task = *work.task;
    const char* const server = task.settings->serverText.c_str();
    if (Failed(work.failure))
    {
        TRAVEX_FTP_LOG(CORPDIR_LOG_ERROR, "%s: %s (task %u, %s)", server, work.failure.acReason,
                       task.id.Value(), task.serverFile.c_str());
    }
    else
    {
        TRAVEX_FTP_LOG(CORPDIR_LOG_INFO, "%s: task %u: %s complete, %llu bytes in %.3f s", server,
                       task.id.Value(), task.serverFile.c_str(),
                       static_cast<unsigned long long>(work.received),
                       Attempt::Seconds(Clock::now() - work.begin));
    }
    m_notifier.Finished(work.task, work.failure, work.received, work.announced, work.timings);
}

void Handle::LeaveServer()
{
    if (m_connection != nullptr)
    {
        m_connection->Quit();
        m_connection.reset();
    }
}

// The account would be locked by further tries; what the server said holds for a while.
bool Handle::KnownRefusal(Work& work)
{
    const Clock::time_point now = Clock::now();
    m_refusedLogins.erase(
        std::remove_if(m_refusedLogins.begin(), m_refusedLogins.end(),
                       [now](const RefusedLogin& one) { return one.until < now; }),
        m_refusedLogins.end());
    const Settings& settings = *work.task->settings;
    for (const RefusedLogin& one : m_refusedLogins)
    {
        if (one.settings->SameLogin(settings))
        {
            work.failure = one.failure;
            return true;
        }
    }
    return false;
}

void Handle::RememberRefusal(const Work& work)
{
    constexpr unsigned int kNotLoggedIn = 530;
    if (work.failure.ulRet == TRAVEX_FTP_ERR_LOGIN && work.failure.ulReply == kNotLoggedIn)
    {
        m_refusedLogins.push_back(
            {work.task->settings, work.failure, Clock::now() + kRefusedLogin});
    }
}

}  // namespace travex_ftp
