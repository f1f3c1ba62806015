#include "corpdir_log.h"

namespace
{
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
