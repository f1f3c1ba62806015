#include "log_writer.h"

#include "corpdir_log.h"

#include <exception>
#include <new>
#include <system_error>
#include <utility>

namespace corpdir_log
{
namespace
{
std::atomic<std::chrono::milliseconds> g_patience{std::chrono::seconds(5)};

// Waking a thread takes longer than queuing a record. So the log's thread lets records
// gather for this long, unless an error is among them, or more than this many bytes.
constexpr std::chrono::milliseconds kGather{100};
constexpr std::size_t kManyBytes = 256U << 10;

std::size_t MemorySize(const Record& record)
{
    return sizeof record + record.text.size();
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

}  // namespace

void LogWriter::Write(const Place& place, unsigned int level, const char* format,
                      va_list arguments) noexcept
{
    try
    {
        // Allocated and freed without the mutex: an operator new of the client may write records.
        std::list<Record> record;
        record.push_back(MakeRecord(place, level, format, arguments));
        std::list<Record> dropped;
        const base::MutexLock lock(m_mutex);
        Push(&record, &dropped);
    }
    catch (const std::exception&)  // memory ran out
    {
        const base::MutexLock lock(m_mutex);
        m_dropped += m_level == kClosed ? 0 : 1;
    }
}

// Moves the one record to the end of the queue, and those that it pushes out to `dropped`.
void LogWriter::Push(std::list<Record>* record, std::list<Record>* dropped)
{
    if (m_level == kClosed)
    {
        return;
    }
    const std::size_t bytes = MemorySize(record->front());
    while (m_bytes + bytes > kCapacity && !m_records.empty())
    {
        m_bytes -= MemorySize(m_records.front());
        dropped->splice(dropped->end(), m_records, m_records.begin());
        ++m_dropped;
    }
    const bool isFirst = m_records.empty();
    const bool isUrgent =
        record->front().level == CORPDIR_LOG_ERROR || m_bytes + bytes > kManyBytes;
    m_records.splice(m_records.end(), *record);
    m_bytes += bytes;
    if (isFirst || (isUrgent && !m_isUrgent))
    {
        m_wake.NotifyAll();
    }
    m_isUrgent |= isUrgent;
}

int LogWriter::Open(const LogSettings& settings)
{
    const auto deadline = base::Clock::now() + g_patience.load();
    const auto opening = std::make_shared<Opening>(Opening{settings});
    const base::MutexLock lock(m_mutex);
    while (m_opening != nullptr && m_answered.WaitUntil(m_mutex, deadline))
    {
    }
    if (m_opening != nullptr)
    {
        return ETIMEDOUT;
    }
    if (m_isClosedForEver)
    {
        return ESHUTDOWN;
    }
    StartThread();
    m_opening = opening;
    m_wake.NotifyAll();
    while (m_opening == opening && m_answered.WaitUntil(m_mutex, deadline))
    {
    }
    if (m_opening == opening)
    {
        m_opening.reset();
        m_answered.NotifyAll();
        return ETIMEDOUT;
    }
    JoinEndedThread();
    return opening->error;
}

void LogWriter::Close()
{
    CloseBy(base::Clock::now() + g_patience.load());
}

void LogWriter::CloseBy(base::Clock::time_point deadline)
{
    const base::MutexLock lock(m_mutex);
    m_level = kClosed;
    if (IsThreadRunning())
    {
        m_isCloseAsked = true;
        m_wake.NotifyAll();
        while (m_isCloseAsked && m_answered.WaitUntil(m_mutex, deadline))
        {
        }
    }
    JoinEndedThread();
}

void LogWriter::CloseForEver(base::Clock::time_point deadline)
{
    {
        const base::MutexLock lock(m_mutex);
        m_isClosedForEver = true;
        m_opening.reset();
        m_answered.NotifyAll();
    }
    CloseBy(deadline);
}

std::chrono::milliseconds LogWriter::SetPatience(std::chrono::milliseconds patience)
{
    return g_patience.exchange(patience);
}

bool LogWriter::HasCommand() const
{
    return m_isCloseAsked || m_opening != nullptr;
}

bool LogWriter::IsThreadRunning() const
{
    return m_thread.Joinable() && !m_hasThreadEnded;
}

void LogWriter::StartThread()
{
    JoinEndedThread();
    if (!IsThreadRunning())
    {
        m_thread = base::Thread("corpdir-log", [this] { Run(); });
    }
}

// The thread says that it has ended in its last section under the mutex, and owns no file by then:
// so this waits for no disk, only for the thread to return.
void LogWriter::JoinEndedThread()
{
    if (m_hasThreadEnded)
    {
        m_thread.Join();
        m_hasThreadEnded = false;
    }
}

// --- The log's thread

void LogWriter::Run()
{
    for (bool isOver = false; !isOver;)
    {
        const Work work = AwaitWork();
        if (m_target != nullptr)
        {
            m_target->Write(m_batch, work.dropped);
        }
        m_batch.clear();
        if (work.isClose && m_target != nullptr)
        {
            m_target->Settle();
            m_target.reset();  // before the answer: the client may remove the directory then
        }
        if (work.opening != nullptr)
        {
            OpenTarget(work.opening);
        }
        isOver = FinishRound(work.isClose);
    }
}

// Waits for a record or a command. A close is executed before an opening requested at the same
// time.
LogWriter::Work LogWriter::AwaitWork()
{
    const base::MutexLock lock(m_mutex);
    while (m_records.empty() && !HasCommand())
    {
        m_wake.Wait(m_mutex);
    }
    const auto deadline = base::Clock::now() + kGather;
    while (!m_isUrgent && !HasCommand() && m_wake.WaitUntil(m_mutex, deadline))
    {
    }
    m_isUrgent = false;
    m_bytes = 0;
    m_records.swap(m_batch);
    return {std::exchange(m_dropped, 0), m_isCloseAsked, m_isCloseAsked ? nullptr : m_opening};
}

void LogWriter::OpenTarget(const std::shared_ptr<Opening>& opening)
{
    if (m_target != nullptr)
    {
        m_target->Settle();
    }
    int error = 0;
    // The one that is not used in the end is destroyed without the mutex.
    std::unique_ptr<LogTarget> target = MakeTarget(opening->settings, m_target.get(), &error);
    const base::MutexLock lock(m_mutex);
    if (m_opening != opening)
    {
        return;  // its caller has given up
    }
    opening->error = error;
    if (target != nullptr)
    {
        m_target.swap(target);
        // A close that is asked for meanwhile has refused records already.
        m_level = m_isCloseAsked ? kClosed : static_cast<int>(opening->settings.level);
    }
    m_opening.reset();
    m_answered.NotifyAll();
}

// Answers a close. True, in the thread's last section under the mutex, when it is to end: the log
// is closed, and there is no command.
bool LogWriter::FinishRound(bool isClosed)
{
    const base::MutexLock lock(m_mutex);
    m_isCloseAsked = m_isCloseAsked && !isClosed;
    m_hasThreadEnded = m_target == nullptr && !HasCommand();
    m_answered.NotifyAll();
    return m_hasThreadEnded;
}

}  // namespace corpdir_log
