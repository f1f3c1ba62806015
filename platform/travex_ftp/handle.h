// A handle: its parameters, and the thread that runs its downloads one after the other.
#ifndef TRAVEX_FTP_HANDLE_H
#define TRAVEX_FTP_HANDLE_H

#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "attempt.h"
#include "base/descriptor.h"
#include "base/mutex.h"
#include "control_connection.h"
#include "download_file.h"
#include "limits.h"
#include "notifier.h"
#include "retrieve.h"
#include "task.h"
#include "worker.h"

namespace travex_ftp
{
// Public functions are thread-safe, private ones run on the transfer thread. The thread starts with
// the first download; the object must outlive it.
class Handle
{
public:
    // Throws std::system_error when the system has no descriptor left.
    explicit Handle(Notifier& notifier);
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;

    void SetSettings(std::shared_ptr<const Settings> settings) CORPDIR_EXCLUDES(m_mutex);
    void SetDataParam()
    {
        m_dataParam = true;
    }

    // The current parameters; null settings: never set.
    std::shared_ptr<const Settings> CurrentSettings() CORPDIR_EXCLUDES(m_mutex);
    bool DataParamSet() const
    {
        return m_dataParam;
    }

    // Starts the thread if it is not running. Throws std::system_error or std::bad_alloc.
    void StartThread() CORPDIR_EXCLUDES(m_mutex);

    // Queues a download. StartThread() must have been called.
    void Submit(TaskPtr task) CORPDIR_EXCLUDES(m_mutex);

    // Cancels all downloads; no notification of the handle begins afterwards. Does not wait.
    void Cancel() CORPDIR_EXCLUDES(m_mutex);

    bool Closed() const
    {
        return m_closed;
    }

    Worker& Thread()
    {
        return m_worker;
    }

    // At process exit, if called on the transfer thread: removes the temporary file of the current
    // download.
    void RemoveTemporaryFile();

private:
    // The current download.
    struct Transfer
    {
        const TaskPtr& task;
        const Limits limits;
        const Clock::time_point begin;
        Task::Report report{};
    };

    // A login that a server refused with 530.
    struct RefusedLogin
    {
        std::shared_ptr<const Settings> settings;
        Failure failure;
        Clock::time_point until;
    };

    void Run();
    TaskPtr AwaitTask() CORPDIR_EXCLUDES(m_mutex);
    TaskPtr TakeTask() CORPDIR_EXCLUDES(m_mutex);
    void AwaitWakeUp();
    void DropTasks() CORPDIR_EXCLUDES(m_mutex);
    void RunTask(const TaskPtr& task);
    bool Prepare(Transfer& transfer);
    void ChooseConnection(const Settings& settings);
    bool Fetch(Transfer& transfer);
    bool Try(Transfer& transfer, bool& again);
    bool Commit(Attempt& attempt);
    void Finish(Transfer& transfer);
    void CloseConnection();
    bool KnownRefusal(Transfer& transfer);
    void RememberRefusal(const Transfer& transfer);

    Notifier& m_notifier;
    Worker m_worker;
    // An eventfd: readable when the handle is closed, or a task came while idle.
    const base::Descriptor m_wake;
    std::atomic<bool> m_closed{false};
    std::atomic<bool> m_dataParam{false};

    base::Mutex m_mutex;
    std::shared_ptr<const Settings> m_settings CORPDIR_GUARDED_BY(m_mutex);
    bool m_started CORPDIR_GUARDED_BY(m_mutex) = false;
    bool m_cancelled CORPDIR_GUARDED_BY(m_mutex) = false;
    bool m_idle CORPDIR_GUARDED_BY(m_mutex) = false;
    TaskQueue<&Task::nextTransfer> m_queue CORPDIR_GUARDED_BY(m_mutex);

    // Transfer thread only.
    DownloadFile m_file;
    std::unique_ptr<ControlConnection> m_connection;
    Clock::time_point m_idleUntil;
    std::map<std::string, bool> m_usePasv;  // by Settings::serverText, see Retrieval
    std::vector<RefusedLogin> m_refusedLogins;
};

}  // namespace travex_ftp

#endif
