// One record of this layer. Call it with no lock held.
#ifndef OSAK_LOG_H
#define OSAK_LOG_H

#include "corpdir_log.h"

// The two globals change while other threads log, hence the atomic loads; the pointer is read once.
#define OSAK_LOG(level, ...)                                                               \
    do                                                                                     \
    {                                                                                      \
        CCorpDirLog* const osakLog = __atomic_load_n(&g_LogOne, __ATOMIC_ACQUIRE);         \
        if (osakLog != nullptr && __atomic_load_n(&g_LogMode, __ATOMIC_RELAXED) == 0)      \
        {                                                                                  \
            osakLog->WriteLog("osak", __func__, __FILE__, __LINE__, (level), __VA_ARGS__); \
        }                                                                                  \
    } while (false)

#endif
