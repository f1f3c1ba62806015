// Log records of this layer.
#ifndef TRAVEX_FTP_LOG_H
#define TRAVEX_FTP_LOG_H

#include "corpdir_log.h"

namespace travex_ftp
{
// The log object, read once per record: the log component may set it on another thread.
inline CCorpDirLog* TheLog()
{
    return g_LogMode == 0 ? __atomic_load_n(&g_LogOne, __ATOMIC_ACQUIRE) : nullptr;
}

}  // namespace travex_ftp

#define TRAVEX_FTP_LOG(level, ...)                                                          \
    do                                                                                      \
    {                                                                                       \
        if (CCorpDirLog* const log_ = travex_ftp::TheLog())                                 \
        {                                                                                   \
            log_->WriteLog("travex_ftp", __func__, __FILE__, __LINE__, level, __VA_ARGS__); \
        }                                                                                   \
    } while (false)

#endif
