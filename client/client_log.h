// One record of this layer.
#ifndef CORPDIR_CLIENT_CLIENT_LOG_H
#define CORPDIR_CLIENT_CLIENT_LOG_H

#include "corpdir_log.h"

// The two globals change while other threads log, hence the atomic loads; the pointer is read once.
#define CLIENT_LOG(level, ...)                                                                 \
    do                                                                                         \
    {                                                                                          \
        CCorpDirLog* const clientLog = __atomic_load_n(&g_LogOne, __ATOMIC_ACQUIRE);           \
        if (clientLog != nullptr && __atomic_load_n(&g_LogMode, __ATOMIC_RELAXED) == 0)        \
        {                                                                                      \
            clientLog->WriteLog("client", __func__, __FILE__, __LINE__, (level), __VA_ARGS__); \
        }                                                                                      \
    } while (false)

#endif
