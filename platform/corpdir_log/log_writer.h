// The log's one thread, and the commands that open and close.
#ifndef CORPDIR_LOG_LOG_WRITER_H
#define CORPDIR_LOG_LOG_WRITER_H

#include "base/mutex.h"
#include "base/thread.h"
#include "log_target.h"
#include "record.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>

namespace corpdir_log
{
// Takes records from any thread and writes them on a thread of its own, which alone touches files
// and lives while the log is open. At most kCapacity bytes of records wait, or one record that is
// larger; records that come when the queue is full push out the oldest. Thread-safe: queue and
// commands are under a mutex that is never held while a file is touched, and only the log's thread
// uses the target.
class LogWriter
{
public:
    static constexpr std::size_t kCapacity = 8U << 20;
    static constexpr unsigned int kHighestLevel = 2;

    // Also false when the log is closed.
    bool IsWritten(unsigned int level) const
    {
        return level <= kHighestLevel &&
               static_cast<int>(level) <= m_level.load(std::memory_order_relaxed);
    }

    // Queues a record. Never waits for the disk; a record for which there is no memory counts as
    // dropped.
    void Write(const Place& place, unsigned int level, const char* format,
               va_list arguments) noexcept __attribute__((format(printf, 4, 0)));

    // Opens the log, or gives an open one another target, after the records that are queued. 0, or
    // an error number, ETIMEDOUT when it took too long among them; then all is as before. Throws
    // std::bad_alloc or std::system_error when memory or threads ran out.
    int Open(const LogSettings& settings);

    // Writes what is queued and closes; records are refused at once. When it takes too long, only
    // the log's thread goes on waiting for a disk that does not answer.
    void Close();

    // Refuses to open from now on, and closes.
    void CloseForEver(base::Clock::time_point deadline);

    // The time limit of Open and Close: 5 s, unless it is set. For tests. Returns the previous one.
    static std::chrono::milliseconds SetPatience(std::chrono::milliseconds patience);

private:
    static constexpr int kClosed = -1;

    // An opening that its caller waits for.
    struct Opening
    {
        LogSettings settings;
        int error = ESHUTDOWN;  // until the log's thread executes it
    };

    void Push(std::list<Record>* record, std::list<Record>* dropped) CORPDIR_REQUIRES(m_mutex);
    bool HasCommand() const CORPDIR_REQUIRES(m_mutex)
    {
        return m_isCloseAsked || m_opening != nullptr;
    }
    void CloseBy(base::Clock::time_point deadline);
    void StartThread() CORPDIR_REQUIRES(m_mutex);
    void JoinEndedThread() CORPDIR_REQUIRES(m_mutex);

    // On the log's thread.
    void Run();
    void AwaitWork() CORPDIR_REQUIRES(m_mutex);
    void OpenTarget(const std::shared_ptr<Opening>& opening);
    bool FinishRound(bool isClosed);

    std::atomic<int> m_level{kClosed};  // the highest that is written; set under m_mutex

    base::Mutex m_mutex;
    base::CondVar m_wake;      // for the log's thread
    base::CondVar m_answered;  // for callers of Open and Close
    std::list<Record> m_records CORPDIR_GUARDED_BY(m_mutex);
    std::size_t m_bytes CORPDIR_GUARDED_BY(m_mutex) = 0;
    std::uint64_t m_dropped CORPDIR_GUARDED_BY(m_mutex) = 0;
    bool m_isUrgent CORPDIR_GUARDED_BY(m_mutex) = false;  // write the records now
    bool m_isCloseAsked CORPDIR_GUARDED_BY(m_mutex) = false;
    std::shared_ptr<Opening> m_opening CORPDIR_GUARDED_BY(m_mutex);  // null: none is asked for
    bool m_isClosedForEver CORPDIR_GUARDED_BY(m_mutex) = false;
    base::Thread m_thread CORPDIR_GUARDED_BY(m_mutex);
    bool m_isRunning CORPDIR_GUARDED_BY(m_mutex) =
        false;  // the thread, and it will look for commands again

    std::unique_ptr<LogTarget> m_target;  // the log's thread only
};

}  // namespace corpdir_log

#endif
