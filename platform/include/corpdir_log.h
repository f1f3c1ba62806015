// Module log: one log object for the process, written to size-rotated files or standard error.
//
// One line a record, its columns separated by one blank each:
//
//     2025-03-01T09:30:00.125+01:00 error 4711 MODULE FUNCTION FILE:LINE TEXT
//
// time with milliseconds and offset, level (error, notice, info), thread, place, text. A line feed
// in the text is written as \n, a backslash as \\, and each byte of a control character, of one
// that is invisible or changes the direction of a text, or of anything that is not UTF-8 as \x and
// two hexadecimal digits; blanks of the other columns too.
//
// Files: corpdir.log, when full renamed to corpdir.1.log and so on, mode 0600. The second process
// that logs into a directory writes corpdir-2.log; .corpdir.lock, which stays, holds who has which.
// Where that file is another user's, names and lock carry the user's number: corpdir-u1000.log; and
// without any lock the process's: corpdir-p4711.log, of which one stays behind for each process.
// A directory that is removed or full costs records and one line on standard error; the log goes on
// when it can, and a record says how many are missing at most. So it does when the file is removed
// alone. Where files cannot be renamed, the one file begins anew when it is full, for one line on
// standard error. That line is dropped for as long as nobody reads standard error.
//
// Records are written by a thread of the log's own, which lives while the log is open: errors at
// once, others within a second. When 8 MiB of records wait, the oldest are dropped, and a record
// says how many; in an outage they are counted with its own. When the process ends without
// CorpDir_CloseLog, what is pending is written within at most 1 s; records after that are dropped.
// The child of a fork starts with a closed log.
//
// Everything here may be called on any thread at any time, before the log is opened and after it is
// closed included. Nothing throws.
#ifndef CORPDIR_LOG_H
#define CORPDIR_LOG_H

#include "corpdir_loginfo.h"

// Levels of a record.
enum tagCORPDIR_LOG_LEVEL
{
    CORPDIR_LOG_ERROR = 0,   // something failed
    CORPDIR_LOG_NOTICE = 1,  // a fallback worth knowing
    CORPDIR_LOG_INFO = 2     // progress and detail
};

// The log object. Thread-safe: its state is the layer's, under the layer's own lock.
class CCorpDirLog
{
public:
    // Writes one record. A record above the level of the opened log, or on a closed log, is
    // dropped. module, function, file: copied during the call; line: source line; format: as
    // printf's. Control bytes in the formatted text are escaped, so that no argument can forge
    // another record. A record may have any length; when memory runs out its text is cut, and ends
    // in \[cut: memory ran out]. Never waits for the disk. errno is left as it was.
    void WriteLog(const char* module, const char* function, const char* file, unsigned int line,
                  unsigned int level, const char* format, ...)
        __attribute__((format(printf, 7, 8)));
};

extern "C"
{
    // The log object: null until the log was opened for the first time, then the one object of the
    // process, which is never destroyed. Read it once per record.
    extern CCorpDirLog* g_LogOne;

    // 0: records are written; any other value: they are not, at the cost of this test.
    extern unsigned int g_LogMode;

    // Opens the log, or changes the settings of an open one once the records before are written;
    // when that fails the open one goes on. info: null for standard error at level 2. Not kept. A
    // relative directory is that of the moment; a missing one is not made.
    // Returns 0, or the system's error number (errno.h) of why the directory cannot be used,
    // ENOMEM or EAGAIN when memory or threads ran out, ESHUTDOWN when the process is ending, or
    // ETIMEDOUT when the disk, or a standard error that nobody reads, did not take what was pending
    // or did not open within 5 s. A standard error that is closed is no failure: records are
    // dropped then, also when its number is later another file's.
    unsigned int CorpDir_OpenLog(tag_CORPDIR_LOGINFO* info);

    // Writes out what is pending and closes the log; gives up on a disk that does not answer after
    // 5 s, which begin after the functions of CorpDir_AtCloseLog. Closing a closed log does
    // nothing.
    void CorpDir_CloseLog();

    // For a layer that has something to say at the end: `last` is called by each CorpDir_CloseLog
    // of an open log, on its thread and while records are still written, in the order of
    // registration; not when the process ends with the log open. Lasts for the life of the process.
    // False when it is null or there is no place: 8 at most.
    bool CorpDir_AtCloseLog(void (*last)());

}  // extern "C"

// Logs that a function is entered (constructor) and left (destructor), at level 2. The log may be
// null or closed at either end: the pointer behind `log` is read anew at the exit.
class FunctionTrace
{
public:
    // log: address of the log pointer; module .. line: as for WriteLog, kept, not copied; print:
    // also given each text when not null; logMode: not 0 silences the trace; module2: name that the
    // records carry (the module's own once more; null: module).
    FunctionTrace(CCorpDirLog** log, const char* module, const char* function, const char* file,
                  unsigned int line, void (*print)(const char*), unsigned int logMode,
                  const char* module2);
    // Logs the exit.
    ~FunctionTrace();

    // One entry and one exit: not to be copied.
    FunctionTrace(const FunctionTrace&) = delete;
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
