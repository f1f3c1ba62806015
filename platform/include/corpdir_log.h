// Module log: one log object for the process, written to size-rotated files or standard error.
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
    // dropped. module, function, file: static texts; line: source line; format: as printf's.
    // Control bytes in the formatted text are escaped, so that no argument can forge another
    // record.
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

    // Opens the log, or changes the settings of an open one; when that fails the open one goes on.
    // info: null for standard error at level 2. Not kept.
    // Returns 0; a non-zero code when the directory cannot be used or memory ran out.
    unsigned int CorpDir_OpenLog(tag_CORPDIR_LOGINFO* info);

    // Writes out what is pending and closes the log. Closing a closed log does nothing.
    void CorpDir_CloseLog();

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
    ~FunctionTrace();

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
