// The log, faked: it is there all the time, unless a test takes the pointer away.
#include <cstdarg>
#include <cstdio>

#include "fake_state.h"

using namespace fakes;

static CCorpDirLog g_log;
static std::atomic<void (*)(unsigned int, const char*, const char*)> g_pfnLogSink{nullptr};

extern "C"
{
    CCorpDirLog* g_LogOne = &g_log;
    unsigned int g_LogMode = 0;
}

static const char MODULE_NAME[] = "ZepCorpDirectory";

void fakes::SetLogSink(void (*pfnSink)(unsigned int, const char*, const char*))
{
    g_pfnLogSink = pfnSink;
}

extern "C" unsigned int CorpDir_OpenLog(tag_CORPDIR_LOGINFO* info)
{
    return Call("CorpDir_OpenLog", static_cast<const void*>(info)).Code();
}

extern "C" void CorpDir_CloseLog()
{
    const Call call("CorpDir_CloseLog");
}

__attribute__((format(printf, 1, 0))) static std::string Format(const char* pszFormat,
                                                                va_list arguments)
{
    va_list again;
    va_copy(again, arguments);
    const int iLength = std::vsnprintf(nullptr, 0, pszFormat, arguments);
    std::string strText(static_cast<size_t>(iLength) + 1, '\0');
    (void)std::vsnprintf(&strText[0], strText.size(), pszFormat, again);
    va_end(again);
    strText.pop_back();
    return strText;
}

void CCorpDirLog::WriteLog(const char* module, const char* function, const char* file,
                           unsigned int line, unsigned int level, const char* format, ...)
{
    const memory::Paused paused;
    const auto pfnSink = g_pfnLogSink.load();
    if (pfnSink == nullptr && !Recording())
    {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    const std::string strText = Format(format, arguments);
    va_end(arguments);
    if (pfnSink != nullptr)
    {
        pfnSink(level, function, strText.c_str());
    }
    if (Recording())
    {
        CheckPlace(function, line, file);
        const LockedState state;
        state->vecLog.push_back(LogRecord{level, function, strText});
        state->vecTrace.push_back("log " + std::to_string(level) + " " + function + ": " + strText);
        if (std::string(module) != MODULE_NAME)
        {
            state->vecMisuses.push_back("record of module " + std::string(module));
        }
    }
}

// All traces are made with the same arguments except function and line.
FunctionTrace::FunctionTrace(CCorpDirLog** log, const char* module, const char* function,
                             const char* file, unsigned int line, void (*print)(const char*),
                             unsigned int logMode, const char* module2)
    : m_ppLog(log),
      m_pcModule(module),
      m_pcFunction(function),
      m_pcFile(file),
      m_ulLine(line),
      m_pfnPrint(print),
      m_ulLogMode(logMode)
{
    if (Recording())
    {
        const memory::Paused paused;
        Note(std::string("enter ") + function);
        CheckPlace(m_pcFunction, m_ulLine, m_pcFile);
        if (m_ppLog != &g_LogOne || std::string(m_pcModule) != MODULE_NAME ||
            m_pfnPrint != nullptr || m_ulLogMode != g_LogMode ||
            std::string(module2) != MODULE_NAME)
        {
            Misuse(std::string("trace of ") + function + " with other arguments");
        }
    }
}

FunctionTrace::~FunctionTrace()
{
    if (Recording())
    {
        const memory::Paused paused;
        Note(std::string("leave ") + m_pcFunction);
    }
}
