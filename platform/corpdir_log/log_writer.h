// The log's one thread, and the commands that open and close.
#ifndef CORPDIR_LOG_LOG_WRITER_H
#define CORPDIR_LOG_LOG_WRITER_H

#include "base/mutex.h"
#include "log_target.h"
#include "record_queue.h"

#include <pthread.h>

#include <atomic>
#include <memory>

namespace corpdir_log
{
// The longest that opening and closing wait for the disk.
constexpr std::chrono::seconds kDiskPatience{5};

// Takes records from any thread and writes them on a thread of its own, which alone touches files
// and lives while the log is open. Thread-safe: the queue is, commands are under a mutex, and the
// target belongs to the log's thread.
class LogWriter
{
public:
    LogWriter() = default;
    LogWriter(const LogWriter&) = delete;
    LogWriter& operator=(const LogWriter&) = delete;

    // False when the log is closed as well.
    bool IsWritten(unsigned int level) const
    {
        return level <= static_cast<unsigned int>(kHighestLevel) &&
               static_cast<int>(level) <= m_level.load(std::memory_order_relaxed);
    }

    // Queues a record; null counts as one that was dropped. Never waits for the disk.
    void Submit(RecordPtr record);

    // Opens the log, or gives an open one another target, after the records that are queued. 0, or
    // an error number, ETIMEDOUT after kDiskPatience among them; then all is as before.
    int Open(const LogSettings& settings);

    // Writes what is queued and closes. A disk that does not answer until the deadline goes on
    // being waited for by the log's thread alone.
    void Close(base::Clock::time_point deadline);

    // Refuses to open from now on, and closes.
    void CloseForEver(base::Clock::time_point deadline);

    static constexpr int kHighestLevel = 2;

private:
    static constexpr int kClosed = -1;

    enum class Command
    {
        kNone,
        kOpen,
        kClose
    };
    enum class Slot  // the place of the one command under way
    {
        kFree,
        kTaken,     // its caller prepares it
        kPosted,    // the log's thread executes it, or is about to
        kExecuted,  // its caller shall fetch the result
        kAbandoned  // as kPosted, but its caller has given up
    };
    enum class Thread
    {
        kNone,
        kRunning,
        kEnded  // to be joined
    };

    // Called by Open and Close.
    bool TakeSlot(base::Clock::time_point deadline) CORPDIR_REQUIRES(m_mutex);
    void FreeSlot() CORPDIR_REQUIRES(m_mutex);
    int Execute(Command command, base::Clock::time_point deadline) CORPDIR_REQUIRES(m_mutex);
    int StartThread() CORPDIR_REQUIRES(m_mutex);
    void JoinEndedThread() CORPDIR_REQUIRES(m_mutex);
    void RefuseRecords();

    // On the log's thread.
    static void* ThreadMain(void* writer);
    void Run();
    Command PostedCommand();
    Rest Write(Batch batch);
    void FlushWhenDue(bool isDue);
    bool ExecuteOpen();
    bool AnswerOpen(std::unique_ptr<LogTarget>* target, const LogSettings& settings, int error);
    bool ExecuteClose();
    void Answer(int result) CORPDIR_REQUIRES(m_mutex);

    RecordQueue m_queue;
    std::atomic<int> m_level{kClosed};  // the highest that is written; set under m_mutex

    base::Mutex m_mutex;
    base::CondVar m_slotChanged;
    Slot m_slot CORPDIR_GUARDED_BY(m_mutex) = Slot::kFree;
    Command m_command CORPDIR_GUARDED_BY(m_mutex) = Command::kNone;
    LogSettings m_settings CORPDIR_GUARDED_BY(m_mutex) = {};
    int m_result CORPDIR_GUARDED_BY(m_mutex) = 0;
    bool m_isClosedForEver CORPDIR_GUARDED_BY(m_mutex) = false;
    Thread m_threadState CORPDIR_GUARDED_BY(m_mutex) = Thread::kNone;
    pthread_t m_thread CORPDIR_GUARDED_BY(m_mutex) = {};

    // The log's thread only.
    std::unique_ptr<LogTarget> m_target;
    base::Clock::time_point m_nextFlush;
};

}  // namespace corpdir_log

#endif
