#include "captured_log.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <utility>

namespace
{
struct Store
{
    std::mutex guard;
    std::vector<captured_log::Record> records;
    unsigned int openResult = 0;
};

// Never destroyed: layers log while the process exits.
Store& TheStore()
{
    static Store& s_store = *new Store;
    return s_store;
}

std::string OrEmpty(const char* text)
{
    return text != nullptr ? text : "";
}

void Add(captured_log::Record record)
{
    Store& store = TheStore();
    const std::lock_guard<std::mutex> lock(store.guard);
    store.records.push_back(std::move(record));
}

struct Place
{
    const char* module;
    const char* function;
    const char* file;
    unsigned int line;
};

void Trace(captured_log::Kind kind, bool open, void (*print)(const char*), const Place& place)
{
    const char* const text = kind == captured_log::Kind::kEnter ? "enter" : "leave";
    if (open)
    {
        Add({kind, OrEmpty(place.module), OrEmpty(place.function), OrEmpty(place.file), place.line,
             CORPDIR_LOG_INFO, text});
    }
    if (print != nullptr)
    {
        print(text);
    }
}

CCorpDirLog s_log;

}  // namespace

CCorpDirLog* g_LogOne = &s_log;
unsigned int g_LogMode = 0;

void CCorpDirLog::WriteLog(const char* module, const char* function, const char* file,
                           unsigned int line, unsigned int level, const char* format, ...)
{
    // The analyzer does not follow va_start.
    // NOLINTBEGIN(clang-analyzer-valist.Uninitialized)
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(nullptr, 0, format, arguments);
    va_end(arguments);
    std::string text(length < 0 ? 1 : static_cast<size_t>(length) + 1, '\0');
    va_start(arguments, format);
    (void)std::vsnprintf(&text[0], text.size(), format, arguments);
    va_end(arguments);
    // NOLINTEND(clang-analyzer-valist.Uninitialized)
    text.pop_back();
    Add({captured_log::Kind::kWrite, OrEmpty(module), OrEmpty(function), OrEmpty(file), line, level,
         text});
}

unsigned int CorpDir_OpenLog(tag_CORPDIR_LOGINFO* info)
{
    Add({captured_log::Kind::kOpen, "", "", "", 0, info != nullptr ? info->ulLogLevel : 2,
         info != nullptr ? info->szLogDir : ""});
    Store& store = TheStore();
    const std::lock_guard<std::mutex> lock(store.guard);
    return store.openResult;
}

void CorpDir_CloseLog()
{
    Add({captured_log::Kind::kClose, "", "", "", 0, 0, ""});
}

FunctionTrace::FunctionTrace(CCorpDirLog** log, const char* module, const char* function,
                             const char* file, unsigned int line, void (*print)(const char*),
                             unsigned int logMode, const char* module2)
    : m_ppLog(log),
      m_pcModule(module2 != nullptr ? module2 : module),
      m_pcFunction(function),
      m_pcFile(file),
      m_ulLine(line),
      m_pfnPrint(print),
      m_ulLogMode(logMode)
{
    Trace(captured_log::Kind::kEnter, m_ulLogMode == 0 && m_ppLog != nullptr && *m_ppLog != nullptr,
          m_pfnPrint, {m_pcModule, m_pcFunction, m_pcFile, m_ulLine});
}

FunctionTrace::~FunctionTrace()
{
    Trace(captured_log::Kind::kLeave, m_ulLogMode == 0 && m_ppLog != nullptr && *m_ppLog != nullptr,
          m_pfnPrint, {m_pcModule, m_pcFunction, m_pcFile, m_ulLine});
}

namespace captured_log
{
std::vector<Record> Records()
{
    Store& store = TheStore();
    const std::lock_guard<std::mutex> lock(store.guard);
    return store.records;
}

std::vector<std::string> Texts(unsigned int level)
{
    std::vector<std::string> texts;
    for (const Record& record : Records())
    {
        if (record.kind == Kind::kWrite && record.level == level)
        {
            texts.push_back(record.text);
        }
    }
    return texts;
}

size_t CountWith(const std::string& part)
{
    size_t count = 0;
    for (const Record& record : Records())
    {
        if (record.kind == Kind::kWrite && record.text.find(part) != std::string::npos)
        {
            ++count;
        }
    }
    return count;
}

void Clear()
{
    Store& store = TheStore();
    const std::lock_guard<std::mutex> lock(store.guard);
    store.records.clear();
}

void SetOpenResult(unsigned int result)
{
    Store& store = TheStore();
    const std::lock_guard<std::mutex> lock(store.guard);
    store.openResult = result;
}

}  // namespace captured_log
