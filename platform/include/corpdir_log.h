/// @file
/// Module log: one log object for the process, written to size-rotated files or standard error.
///
/// Each record is one line. Its columns are separated by one blank:
///
///     2025-03-01T09:30:00.125+01:00 error 4711/4712 MODULE FUNCTION FILE:LINE TEXT
///
/// Time with milliseconds and offset, level (error, notice, info), process and thread, place (the
/// file without its folders), text. A line feed in the text is written as `\n`, a backslash as
/// `\\`. Each byte of a control character, of an invisible character, of one that changes the
/// direction of text, and of anything that is not UTF-8 is written as `\x` and two hexadecimal
/// digits; so are blanks in the other columns.
///
/// Files: corpdir.log, renamed to corpdir.1.log and so on when full, mode 0600. A second process
/// that logs into the same directory writes corpdir-2.log; .corpdir.lock, which is not removed,
/// records which process has which name. If that file belongs to another user, file names and lock
/// carry the user's number: corpdir-u1000.log. If no lock is possible, they carry the process's
/// number: corpdir-p4711.log; one such file remains for each process.
///
/// If the directory is removed or full, records are lost; the first time, one line goes to standard
/// error. The log continues as soon as it can; a record then says how many are missing at most. The
/// same holds if only the file is removed. If files cannot be renamed, the one file is truncated
/// when full, and one line on standard error says so. If standard error is not read, that line is
/// written later, or dropped.
///
/// The log has a thread of its own while it is open. It writes errors at once and other records
/// within a second. When 8 MiB of records wait, the oldest are dropped and a record says how many;
/// in an outage they are counted with the outage's own. When the process ends without
/// CorpDir_CloseLog, pending records are written within 1 s; later records are dropped. The child
/// of a fork starts with a closed log.
///
/// Everything here may be called on any thread at any time, also before the log is opened and after
/// it is closed. Nothing throws.
#ifndef CORPDIR_LOG_H
#define CORPDIR_LOG_H

#include "corpdir_loginfo.h"

/// Levels of a record.
enum tagCORPDIR_LOG_LEVEL
{
    CORPDIR_LOG_ERROR = 0,   ///< something failed
    CORPDIR_LOG_NOTICE = 1,  ///< a fallback worth knowing
    CORPDIR_LOG_INFO = 2     ///< progress and detail
};

/// The log object. Thread-safe: the layer's own lock guards its state.
class CCorpDirLog
{
public:
    /// Writes one record. A record above the level of the opened log, or on a closed log, is
    /// dropped. module, function, file: copied during the call; line: source line; format: as
    /// printf's. Control bytes in the formatted text are escaped, so that no argument can forge
    /// another record. A record may have any length; when memory runs out its text is cut and ends
    /// in `\[cut: memory ran out]`. Never waits for the disk. errno is left unchanged.
    void WriteLog(const char* module, const char* function, const char* file, unsigned int line,
                  unsigned int level, const char* format, ...)
        __attribute__((format(printf, 7, 8)));
};

extern "C"
{
    /// The log object: null until the log was opened for the first time, then the one object of the
    /// process, which is never destroyed. Read it once per record.
    extern CCorpDirLog* g_LogOne;

    /// 0: records are written; any other value: they are not, at the cost of this test.
    extern unsigned int g_LogMode;

    /// Opens the log, or changes the settings of an open one after the earlier records are written;
    /// if that fails, the open log continues. info: null for standard error at level 2; not kept. A
    /// relative directory is resolved during the call; a missing one is not created.
    ///
    /// Returns 0, or the system's error number (errno.h) for why the directory cannot be used,
    /// ENOMEM or EAGAIN when memory or threads ran out, ESHUTDOWN when the process is ending, or
    /// ETIMEDOUT when the disk did not open, or the disk or an unread standard error did not accept
    /// the pending records, within 5 s. A closed standard error is not a failure: records are
    /// dropped, also when its number is later reused for another file.
    unsigned int CorpDir_OpenLog(tag_CORPDIR_LOGINFO* info);

    /// Writes the pending records and closes the log. Gives up on a disk that does not answer after
    /// 5 s. Closing a closed log does nothing.
    void CorpDir_CloseLog();

}  // extern "C"

/// Logs that a function is entered (constructor) and left (destructor), at level 2. The log may be
/// null or closed at either end: the pointer behind `log` is read again at the exit.
class FunctionTrace
{
public:
    /// Logs the entry. log: address of the log pointer; module to line: as for WriteLog, kept, not
    /// copied; print: if not null, also called with each text; logMode: a value other than 0
    /// silences the trace; module2: the name that the records carry (null: module).
    FunctionTrace(CCorpDirLog** log, const char* module, const char* function, const char* file,
                  unsigned int line, void (*print)(const char*), unsigned int logMode,
                  const char* module2);
    /// Logs the exit.
    ~FunctionTrace();

    /// Not copyable: one entry, one exit.
    FunctionTrace(const FunctionTrace&) = delete;
    /// Not copyable.
    FunctionTrace& operator=(const FunctionTrace&) = delete;

private:
    CCorpDirLog** m_ppLog;
    const char* m_pcModule;
    const char* m_pcFunction;
    const char* m_pcFile;
    unsigned int m_ulLine;
    void (*m_pfnPrint)(const char*);
    unsigned int m_ulLogMode;
};

#endif
