#include "log_writer.h"

#include "corpdir_log.h"

#include <cerrno>
#include <csignal>
#include <new>
#include <system_error>
#include <utility>

namespace corpdir_log
{
namespace
{
// In a stream of records that never pauses, what was written is handed to the system this often.
constexpr std::chrono::milliseconds kFlushInterval{500};

// All signals are the client's threads' business. SIGPIPE and SIGXFSZ, which would end the client,
// then become errors of the write that caused them.
int CreateWithoutSignals(pthread_t* thread, void* (*main)(void*), void* argument)
{
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    const int error = pthread_create(thread, nullptr, main, argument);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return error;
}

// The target, or null and the error number.
std::unique_ptr<LogTarget> MakeTarget(const LogSettings& settings, const LogTarget* previous,
                                      int* error)
{
    *error = 0;
    try
    {
        return std::make_unique<LogTarget>(settings, previous);
    }
    catch (const std::system_error& failure)
    {
        *error = failure.code().value();
    }
    catch (const std::bad_alloc&)
    {
        *error = ENOMEM;
    }
    return nullptr;
}

// An error, so that it is written at every level.
void WriteDropNotice(LogTarget* target, std::uint64_t dropped)
{
    const RecordPtr notice =
        MakeOwnRecord({"corpdir_log", __func__, __FILE__, __LINE__}, CORPDIR_LOG_ERROR,
                      "%llu records are missing here: they came faster than they could be written",
                      static_cast<unsigned long long>(dropped));
    if (notice == nullptr)
    {
        target->AddLost(dropped, "memory ran out");
        return;
    }
    target->Write(*notice, dropped);
}

}  // namespace

void LogWriter::Submit(RecordPtr record)
{
    m_queue.Push(std::move(record));
}

int LogWriter::Open(const LogSettings& settings)
{
    const auto deadline = base::Clock::now() + kDiskPatience;
    const base::MutexLock lock(m_mutex);
    if (!TakeSlot(deadline))
    {
        return ETIMEDOUT;
    }
    int error = m_isClosedForEver ? ESHUTDOWN : StartThread();
    if (error != 0)
    {
        FreeSlot();
        return error;
    }
    m_settings = settings;
    const int result = Execute(Command::kOpen, deadline);
    JoinEndedThread();
    return result;
}

void LogWriter::Close(base::Clock::time_point deadline)
{
    const base::MutexLock lock(m_mutex);
    RefuseRecords();
    if (!TakeSlot(deadline))
    {
        return;
    }
    RefuseRecords();  // once more: an open may have come in between
    if (m_threadState != Thread::kRunning)
    {
        FreeSlot();
        return;
    }
    (void)Execute(Command::kClose, deadline);  // in time or not
    JoinEndedThread();
}

void LogWriter::CloseForEver(base::Clock::time_point deadline)
{
    {
        const base::MutexLock lock(m_mutex);
        m_isClosedForEver = true;
    }
    Close(deadline);
}

// --- Commands, on the caller's thread

bool LogWriter::TakeSlot(base::Clock::time_point deadline)
{
    while (m_slot != Slot::kFree)
    {
        if (!m_slotChanged.WaitUntil(m_mutex, deadline) && m_slot != Slot::kFree)
        {
            return false;
        }
    }
    m_slot = Slot::kTaken;
    return true;
}

void LogWriter::FreeSlot()
{
    m_slot = Slot::kFree;
    m_slotChanged.NotifyAll();
}

// The slot of an abandoned command is freed by the log's thread, once it is done with it.
int LogWriter::Execute(Command command, base::Clock::time_point deadline)
{
    m_command = command;
    m_slot = Slot::kPosted;
    m_queue.Wake();
    while (m_slot != Slot::kExecuted)
    {
        if (!m_slotChanged.WaitUntil(m_mutex, deadline) && m_slot != Slot::kExecuted)
        {
            m_slot = Slot::kAbandoned;
            return ETIMEDOUT;
        }
    }
    const int result = m_result;
    FreeSlot();
    return result;
}

// The owner of the slot calls this, so no command is under way that the thread could be executing.
int LogWriter::StartThread()
{
    if (m_threadState == Thread::kRunning)
    {
        return 0;
    }
    JoinEndedThread();
    const int error = CreateWithoutSignals(&m_thread, ThreadMain, this);
    if (error == 0)
    {
        m_threadState = Thread::kRunning;
    }
    return error;
}

// The thread marks itself as ended in its last section under the mutex, and owns no file by then:
// so this waits for no disk, only for the thread to return.
void LogWriter::JoinEndedThread()
{
    if (m_threadState == Thread::kEnded)
    {
        pthread_join(m_thread, nullptr);
        m_threadState = Thread::kNone;
    }
}

// At once, not only when the log's thread gets to it: records after a close are dropped.
void LogWriter::RefuseRecords()
{
    m_level.store(kClosed, std::memory_order_relaxed);
    m_queue.Close();
}

// --- The log's thread

void* LogWriter::ThreadMain(void* writer)
{
    pthread_setname_np(pthread_self(), "corpdir-log");
    static_cast<LogWriter*>(writer)->Run();
    return nullptr;
}

// Ends when the log is closed.
void LogWriter::Run()
{
    Rest rest = Rest::kLong;
    for (bool isOpen = true; isOpen;)
    {
        // The command first: what was queued before it was posted is then in the batch.
        const Command command = PostedCommand();
        rest = Write(m_queue.Take(command == Command::kNone ? rest : Rest::kNone));
        if (command != Command::kNone)
        {
            isOpen = command == Command::kOpen ? ExecuteOpen() : ExecuteClose();
        }
    }
}

LogWriter::Command LogWriter::PostedCommand()
{
    const base::MutexLock lock(m_mutex);
    return m_slot == Slot::kPosted || m_slot == Slot::kAbandoned ? m_command : Command::kNone;
}

// Returns how to wait for the next records.
Rest LogWriter::Write(Batch batch)
{
    if (m_target == nullptr)
    {
        return Rest::kLong;  // not open yet: the command is on its way
    }
    const bool isIdle = batch.records.IsEmpty() && batch.dropped == 0;
    bool hasError = batch.dropped != 0;
    m_target->CheckPlace();
    if (batch.dropped != 0)
    {
        WriteDropNotice(m_target.get(), batch.dropped);
    }
    while (const RecordPtr record = batch.records.PopFront())
    {
        m_target->Write(*record);
        hasError |= record->level == CORPDIR_LOG_ERROR;
    }
    FlushWhenDue(hasError || isIdle);
    return isIdle ? Rest::kLong : Rest::kShort;
}

void LogWriter::FlushWhenDue(bool isDue)
{
    const base::Clock::time_point now = base::Clock::now();
    if (isDue || now >= m_nextFlush)
    {
        m_target->Flush();
        m_nextFlush = now + kFlushInterval;
    }
}

// Returns whether the log is open now.
bool LogWriter::ExecuteOpen()
{
    LogSettings settings;
    {
        const base::MutexLock lock(m_mutex);
        settings = m_settings;
    }
    if (m_target != nullptr)
    {
        m_target->Settle();
    }
    int error = 0;
    std::unique_ptr<LogTarget> target = MakeTarget(settings, m_target.get(), &error);
    if (!AnswerOpen(&target, settings, error))
    {
        target.reset();  // first: whoever joins the thread after the answer waits for no disk
        const base::MutexLock lock(m_mutex);
        Answer(0);
    }
    return m_target != nullptr;
}

// False when nobody waits for the new target any more.
bool LogWriter::AnswerOpen(std::unique_ptr<LogTarget>* target, const LogSettings& settings,
                           int error)
{
    const base::MutexLock lock(m_mutex);
    if (m_slot == Slot::kAbandoned)
    {
        return false;
    }
    if (*target != nullptr)
    {
        m_target.swap(*target);
        m_queue.Open();
        m_level.store(static_cast<int>(settings.level), std::memory_order_relaxed);
    }
    Answer(error);
    return true;
}

// The file is closed before the answer, so that the client may remove its directory.
bool LogWriter::ExecuteClose()
{
    m_target->Settle();
    m_target.reset();
    const base::MutexLock lock(m_mutex);
    Answer(0);
    return false;
}

void LogWriter::Answer(int result)
{
    m_result = result;
    m_slot = m_slot == Slot::kAbandoned ? Slot::kFree : Slot::kExecuted;
    if (m_target == nullptr)
    {
        m_threadState = Thread::kEnded;
    }
    m_slotChanged.NotifyAll();
}

}  // namespace corpdir_log
