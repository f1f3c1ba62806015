// One record of the program.
#ifndef CORPDIR_TOOL_TOOL_LOG_H
#define CORPDIR_TOOL_TOOL_LOG_H

#include "corpdir_log.h"

// The two globals change while other threads log, hence the atomic loads; the pointer is read once.
#define TOOL_LOG(level, ...)                                                                  \
    do                                                                                        \
    {                                                                                         \
        CCorpDirLog* const toolLog = __atomic_load_n(&g_LogOne, __ATOMIC_ACQUIRE);            \
        if (toolLog != nullptr && __atomic_load_n(&g_LogMode, __ATOMIC_RELAXED) == 0)         \
        {                                                                                     \
            toolLog->WriteLog("corpdir", __func__, __FILE__, __LINE__, (level), __VA_ARGS__); \
        }                                                                                     \
    } while (false)

#endif
