// The layer's surface: globals, records, opening and closing, and the one writer of the process
// through its end and its forks.
#include "corpdir_log.h"

#include "base/process_end.h"
#include "log_file.h"
#include "log_writer.h"
#include "name_lock.h"
#include "record.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <exception>
#include <memory>
#include <new>

using corpdir_log::LogWriter;

CCorpDirLog* g_LogOne = nullptr;
unsigned int g_LogMode = 0;

namespace
{
constexpr std::size_t kDefaultFileSize = 10U << 20;
constexpr std::size_t kDefaultFileCount = 5;
constexpr unsigned int kMostFiles = 1000;  // each rotation looks at that many names

// All state is in the writer, so the object itself is empty and there from the start.
CCorpDirLog g_log;

// Null until the log was opened for the first time. Never destroyed: threads that are not stopped
// may write records while static objects are destroyed.
std::atomic<LogWriter*> g_writer{nullptr};

// In the child of a fork, the parent's writer: it may be in any state and is never used again. Kept
// so that it is no leak, and atomic so that the compiler does not find the store useless.
std::atomic<LogWriter*> g_parentWriter{nullptr};

LogWriter* Writer()
{
    return g_writer.load(std::memory_order_acquire);
}

void OnExit(base::Clock::time_point deadline)
{
    LogWriter* const writer = Writer();
    if (writer != nullptr)
    {
        writer->CloseForEver(deadline);
    }
}

// The child starts with no log and may open its own: the log's thread exists in the parent only.
// Memory that the parent's threads were using stays allocated.
void OnForkInChild()
{
    LogWriter* const writer = g_writer.exchange(nullptr);
    if (writer != nullptr)
    {
        g_parentWriter = writer;
        corpdir_log::NameLock::ReleaseInForkedChild();
    }
}

// Makes the writer if need be. Throws std::bad_alloc.
LogWriter& MakeWriter()
{
    corpdir_log::WatchForks();
    static const bool s_isRegistered =
        base::ProcessEnd::Register<base::EndStage::kLog>(OnExit, OnForkInChild);
    if (!s_isRegistered)
    {
        throw std::bad_alloc();
    }
    LogWriter* writer = Writer();
    if (writer == nullptr)
    {
        auto made = std::make_unique<LogWriter>();
        if (g_writer.compare_exchange_strong(writer, made.get()))
        {
            writer = made.release();
        }
    }
    return *writer;
}

// Throws std::bad_alloc.
corpdir_log::LogSettings SettingsOf(const tag_CORPDIR_LOGINFO* info)
{
    if (info == nullptr)
    {
        return {"", LogWriter::kHighestLevel, kDefaultFileSize, kDefaultFileCount};
    }
    // The field may lack its terminator; its last byte does not count.
    return {
        {info->szLogDir, strnlen(info->szLogDir, sizeof info->szLogDir - 1)},
        std::min(info->ulLogLevel, LogWriter::kHighestLevel),
        info->ulMaxFileSize == 0 ? kDefaultFileSize : info->ulMaxFileSize,
        info->ulMaxFileCount == 0 ? kDefaultFileCount : std::min(info->ulMaxFileCount, kMostFiles)};
}

void Trace(CCorpDirLog** log, const char* module, const char* function, const char* file,
           unsigned int line, void (*print)(const char*), const char* text)
{
    CCorpDirLog* const object = log == nullptr ? nullptr : __atomic_load_n(log, __ATOMIC_ACQUIRE);
    if (object != nullptr)
    {
        object->WriteLog(module, function, file, line, CORPDIR_LOG_INFO, "%s", text);
    }
    if (print != nullptr)
    {
        print(text);
    }
}

}  // namespace

void CCorpDirLog::WriteLog(const char* module, const char* function, const char* file,
                           unsigned int line, unsigned int level, const char* format, ...)
{
    LogWriter* const writer = Writer();
    if (__atomic_load_n(&g_LogMode, __ATOMIC_RELAXED) != 0 || writer == nullptr ||
        !writer->IsWritten(level))
    {
        return;
    }
    const int callersErrno = errno;
    va_list arguments;
    va_start(arguments, format);
    writer->Write({module, function, file, line}, level, format, arguments);
    va_end(arguments);
    errno = callersErrno;
}

unsigned int CorpDir_OpenLog(tag_CORPDIR_LOGINFO* info)
try
{
    const int error = MakeWriter().Open(SettingsOf(info));
    // Written once, so that a thread that learnt of the opening in order may read it plainly.
    if (error == 0 && __atomic_load_n(&g_LogOne, __ATOMIC_RELAXED) == nullptr)
    {
        __atomic_store_n(&g_LogOne, &g_log, __ATOMIC_RELEASE);
    }
    return static_cast<unsigned int>(error);
}
catch (const std::exception& error)
{
    return static_cast<unsigned int>(corpdir_log::ErrorOf(error));
}

void CorpDir_CloseLog()
{
    LogWriter* const writer = Writer();
    if (writer != nullptr)
    {
        writer->Close();
    }
}

FunctionTrace::FunctionTrace(CCorpDirLog** log, const char* module, const char* function,
                             const char* file, unsigned int line, void (*print)(const char*),
                             unsigned int logMode, const char* module2)
    : m_ppLog(log),
      m_pcModule(module2 == nullptr ? module : module2),
      m_pcFunction(function),
      m_pcFile(file),
      m_ulLine(line),
      m_pfnPrint(print),
      m_ulLogMode(logMode)
{
    if (m_ulLogMode == 0)
    {
        Trace(m_ppLog, m_pcModule, m_pcFunction, m_pcFile, m_ulLine, m_pfnPrint, "Enter");
    }
}

FunctionTrace::~FunctionTrace()
{
    if (m_ulLogMode == 0)
    {
        Trace(m_ppLog, m_pcModule, m_pcFunction, m_pcFile, m_ulLine, m_pfnPrint, "Leave");
    }
}
