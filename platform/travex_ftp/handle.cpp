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
    m_settings.swap(settings);  // the old settings are destroyed after the lock is released
}

std::shared_ptr<const Settings> Handle::CurrentSettings()
{
    const base::MutexLock lock(m_mutex);
    return m_settings;
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

// If the handle has been closed, the task is dropped like a cancelled one.
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

void Handle::RemoveTemporaryFile()
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
        RunTask(task);
    }
    CloseConnection();
    DropTasks();
}

// The next task; null: the handle is closed.
TaskPtr Handle::AwaitTask()
{
    while (!m_closed)
    {
        TaskPtr task = TakeTask();
        if (task != nullptr)
        {
            return task;
        }
        AwaitWakeUp();
    }
    return nullptr;
}

// Null: the queue is empty, and the next Submit wakes the thread.
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

// Waits for a task. Closes an idle connection after a while, or when something arrives on it.
void Handle::AwaitWakeUp()
{
    const bool connected = m_connection != nullptr;
    const Deadline deadline = {connected ? m_idleUntil : Clock::now() + std::chrono::hours(1),
                               m_wake.Number()};
    const Io io = deadline.Wait(connected ? m_connection->TheChannel().Socket() : -1, POLLIN);
    const bool unsolicited = connected && io == Io::kDone && !m_connection->NothingPending();
    if (unsolicited || (connected && io == Io::kTimedOut))
    {
        CloseConnection();
    }
}

void Handle::DropTasks()
{
    TaskQueue<&Task::nextTransfer> dropped;
    const base::MutexLock lock(m_mutex);
    m_cancelled = true;  // nothing is queued from here on
    dropped = std::move(m_queue);
}

void Handle::RunTask(const TaskPtr& task)
{
    Transfer transfer{task, Limits::Current(), Clock::now()};
    bool good = false;
    try
    {
        good = Prepare(transfer) && Fetch(transfer);
    }
    catch (const std::bad_alloc&)
    {
        (void)FailSystem(transfer.report.failure, "transfer");
    }
    if (!good || !m_connection->NothingPending())
    {
        CloseConnection();
    }
    m_file.Discard();
    m_idleUntil = Clock::now() + transfer.limits.idle;
    if (!m_closed)
    {
        Finish(transfer);
    }
}

// Checks that need no connection.
bool Handle::Prepare(Transfer& transfer)
{
    const Task& task = *transfer.task;
    // Connecting to the zero address would send the password to the local host.
    if (task.settings->server.Zero())
    {
        SetStep(transfer.report.failure, TRAVEX_FTP_STEP_CONNECT);
        return Fail(transfer.report.failure, TRAVEX_FTP_ERR_CONNECT, "the server address is zero");
    }
    if (KnownRefusal(transfer))
    {
        return false;
    }
    m_notifier.Step(transfer.task, TRAVEX_FTP_STEP_LOCAL_FILE);
    return m_file.Open(task.directory, task.localFile, transfer.report.failure);
}

// Repeats an attempt on a new connection where that may help. The client does not see it.
bool Handle::Fetch(Transfer& transfer)
{
    ChooseConnection(*transfer.task->settings);
    bool again = false;
    bool good = Try(transfer, again);
    while (!good && again)
    {
        CloseConnection();
        again = false;
        good = Try(transfer, again);
    }
    RememberRefusal(transfer);
    return good;
}

// Closes the idle connection if it was made with other settings, or if anything has arrived on it,
// which would be mistaken for a reply.
void Handle::ChooseConnection(const Settings& settings)
{
    if (m_connection != nullptr &&
        (!m_connection->Serves(settings) || !m_connection->NothingPending()))
    {
        CloseConnection();
    }
}

bool Handle::Try(Transfer& transfer, bool& again)
{
    const Settings& settings = *transfer.task->settings;
    const bool reused = m_connection != nullptr;
    TRAVEX_FTP_LOG(CORPDIR_LOG_INFO, "%s: task %u: %s on a %s connection",
                   settings.serverText.c_str(), transfer.task->id,
                   transfer.task->serverFile.c_str(), reused ? "reused" : "new");
    Attempt attempt(transfer.limits, m_wake.Number(), transfer.begin + transfer.limits.transfer,
                    transfer.task, m_notifier);
    if (reused)
    {
        m_connection->BeginTransfer(attempt);
    }
    else
    {
        m_connection = std::make_unique<ControlConnection>(transfer.task->settings, m_closed);
    }
    bool& usePasv = m_usePasv[settings.serverText];
    Retrieval retrieval(*m_connection, attempt, transfer.task, m_file, usePasv, m_notifier);
    const bool good = (reused || m_connection->Open(attempt)) && retrieval.Run() && Commit(attempt);
    transfer.report.failure = attempt.failure;
    transfer.report.timings = attempt.timings;
    transfer.report.bytes = retrieval.Received();
    transfer.report.total = retrieval.Announced();
    transfer.report.timings.ullEnded = attempt.Elapsed();
    // The server may have closed the idle connection, or just sent something on it that was
    // mistaken for a reply.
    const bool stale = reused && (m_connection->ReplyCount() == 0 ||
                                  attempt.failure.ulReply == kServiceNotAvailable ||
                                  attempt.failure.ulRet == TRAVEX_FTP_ERR_REPLY);
    usePasv = usePasv || (retrieval.WantsPasv() && !stale);
    again = !attempt.cancelled && transfer.report.bytes == 0 && (stale || retrieval.WantsPasv());
    return good;
}

// The handle may be closed while the file is flushed.
bool Handle::Commit(Attempt& attempt)
{
    attempt.Enter(TRAVEX_FTP_STEP_LOCAL_FILE);
    const bool complete = m_file.Complete(attempt.failure);
    Worker::ParkAtExit();
    return complete && !m_closed && m_file.MoveIntoPlace(attempt.failure);
}

// Reports the outcome to the log and the client.
void Handle::Finish(Transfer& transfer)
{
    const Task& task = *transfer.task;
    const char* const server = task.settings->serverText.c_str();
    if (transfer.report.failure.ulRet == TRAVEX_FTP_ERR_TOO_LARGE &&
        transfer.limits.fileBytes == kProbe)
    {
        TRAVEX_FTP_LOG(CORPDIR_LOG_NOTICE,
                       "%s: task %u: %s cancelled at its first byte, as the limit of 1 byte asks",
                       server, task.id, task.serverFile.c_str());
    }
    else if (Failed(transfer.report.failure))
    {
        TRAVEX_FTP_LOG(CORPDIR_LOG_ERROR, "%s: %s (task %u, %s)", server,
                       transfer.report.failure.acReason, task.id, task.serverFile.c_str());
    }
    else
    {
        TRAVEX_FTP_LOG(CORPDIR_LOG_INFO, "%s: task %u: %s complete, %llu bytes in %.3f s", server,
                       task.id, task.serverFile.c_str(),
                       static_cast<unsigned long long>(transfer.report.bytes),
                       Attempt::Seconds(Clock::now() - transfer.begin));
    }
    m_notifier.Finished(transfer.task, transfer.report);
}

void Handle::CloseConnection()
{
    if (m_connection != nullptr)
    {
        m_connection->Quit();
        m_connection.reset();
    }
}

// Fails like an earlier 530, and says that nothing was sent: repeated failures may lock the
// account.
bool Handle::KnownRefusal(Transfer& transfer)
{
    const Clock::time_point now = Clock::now();
    m_refusedLogins.erase(
        std::remove_if(m_refusedLogins.begin(), m_refusedLogins.end(),
                       [now](const RefusedLogin& one) { return one.until < now; }),
        m_refusedLogins.end());
    const Settings& settings = *transfer.task->settings;
    for (const RefusedLogin& one : m_refusedLogins)
    {
        if (one.settings->SameLogin(settings))
        {
            Failure& failure = transfer.report.failure;
            SetStep(failure, one.failure.ulStep);
            failure.ulReply = one.failure.ulReply;
            (void)Fail(failure, one.failure.ulRet, "%s (not sent again)", one.failure.acReason);
            return true;
        }
    }
    return false;
}

void Handle::RememberRefusal(const Transfer& transfer)
{
    constexpr unsigned int kNotLoggedIn = 530;
    if (transfer.report.failure.ulRet == TRAVEX_FTP_ERR_LOGIN &&
        transfer.report.failure.ulReply == kNotLoggedIn)
    {
        m_refusedLogins.push_back(
            {transfer.task->settings, transfer.report.failure, Clock::now() + kRefusedLogin});
    }
}

}  // namespace travex_ftp
