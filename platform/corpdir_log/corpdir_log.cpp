// The layer's surface: globals, records, opening and closing, traces.
#include "corpdir_log.h"

#include "log_process.h"
#include "record.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstring>

CCorpDirLog* g_LogOne = nullptr;
unsigned int g_LogMode = 0;

namespace
{
constexpr std::size_t kDefaultFileSize = 10U << 20;
constexpr std::size_t kDefaultFileCount = 5;
constexpr unsigned int kMostFiles = 1000;  // each rotation looks at that many names

// All state is behind Writer(), so the object itself is empty and there from the start.
CCorpDirLog g_log;

corpdir_log::LogSettings SettingsOf(const tag_CORPDIR_LOGINFO* info)
{
    corpdir_log::LogSettings settings = {};
    settings.level = corpdir_log::LogWriter::kHighestLevel;
    settings.maxSize = kDefaultFileSize;
    settings.maxCount = kDefaultFileCount;
    if (info == nullptr)
    {
        return settings;
    }
    // The field may lack its terminator; the settings' last byte stays zero.
    memcpy(settings.directory, info->szLogDir,
           strnlen(info->szLogDir, sizeof settings.directory - 1));
    settings.level = std::min(info->ulLogLevel, settings.level);
    settings.maxSize = info->ulMaxFileSize == 0 ? kDefaultFileSize : info->ulMaxFileSize;
    settings.maxCount =
        info->ulMaxFileCount == 0 ? kDefaultFileCount : std::min(info->ulMaxFileCount, kMostFiles);
    return settings;
}

// Who has something to say at the close: filled from the front, never emptied.
std::array<std::atomic<void (*)()>, 8> g_atClose;

bool IsLogOff()
{
    return __atomic_load_n(&g_LogMode, __ATOMIC_RELAXED) != 0;
}

void CallAtClose()
{
    for (const auto& place : g_atClose)
    {
        void (*const last)() = place.load();
        if (last != nullptr)
        {
            last();
        }
    }
}

}  // namespace

void CCorpDirLog::WriteLog(const char* module, const char* function, const char* file,
                           unsigned int line, unsigned int level, const char* format, ...)
{
    if (IsLogOff())
    {
        return;
    }
    corpdir_log::LogWriter* const writer = corpdir_log::Writer();
    if (writer == nullptr || !writer->IsWritten(level))
    {
        return;
    }
    const int callersErrno = errno;
    va_list arguments;
    va_start(arguments, format);
    writer->Submit(
        corpdir_log::MakeRecord({module, function, file, line}, level, format, arguments));
    va_end(arguments);
    errno = callersErrno;
}

unsigned int CorpDir_OpenLog(tag_CORPDIR_LOGINFO* info)
{
    corpdir_log::LogWriter* const writer = corpdir_log::MakeWriter();
    if (writer == nullptr)
    {
        return ENOMEM;
    }
    const int error = writer->Open(SettingsOf(info));
    // Written once, so that a thread that learnt of the opening in order may read it plainly.
    if (error == 0 && __atomic_load_n(&g_LogOne, __ATOMIC_RELAXED) == nullptr)
    {
        __atomic_store_n(&g_LogOne, &g_log, __ATOMIC_RELEASE);
    }
    return static_cast<unsigned int>(error);
}

void CorpDir_CloseLog()
{
    corpdir_log::LogWriter* const writer = corpdir_log::Writer();
    if (writer == nullptr)
    {
        return;
    }
    if (writer->IsWritten(CORPDIR_LOG_ERROR))
    {
        CallAtClose();
    }
    writer->Close(base::Clock::now() + corpdir_log::kDiskPatience);
}

bool CorpDir_AtCloseLog(void (*last)())
{
    if (last == nullptr)
    {
        return false;
    }
    for (auto& place : g_atClose)
    {
        void (*none)() = nullptr;
        if (place.compare_exchange_strong(none, last))
        {
            return true;
        }
    }
    return false;
}
