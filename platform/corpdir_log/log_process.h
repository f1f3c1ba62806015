// The one LogWriter of the process, through its end and its forks.
#ifndef CORPDIR_LOG_LOG_PROCESS_H
#define CORPDIR_LOG_LOG_PROCESS_H

#include "log_writer.h"

namespace corpdir_log
{
// Null until the log was opened for the first time. Never destroyed: threads that nobody stopped
// may write records while static objects are destroyed.
LogWriter* Writer();

// Makes it if need be, and sees to it that the log is closed when the process ends, and that a
// child of fork begins without it: the log's thread exists in the parent only. Null when memory
// ran out.
LogWriter* MakeWriter();

}  // namespace corpdir_log

#endif
