// The four layers under the service, faked at link time.
//
// Every call is recorded in one trace, in order, together with the log's records and the entries
// and exits of traced functions. Any function can be made to fail at its Nth call, or to run a
// piece of the test in the middle of a call. Handles print as small numbers, so that traces compare
// as text. What a layer's contract forbids (a handle closed twice, a record without the module's
// name) is collected as misuse.
//
// Safe on any thread. The state is never destroyed: the service uses the layers at process exit.
#ifndef TESTS_SERVICE_FAKES_H
#define TESTS_SERVICE_FAKES_H

#include <functional>
#include <string>
#include <vector>

#include "corpdir_log.h"
#include "osak.h"
#include "travex_ftp.h"
#include "zep.h"

namespace fakes
{

// Forgets everything, ends a worker that is left over, and releases what the fakes hold.
void Reset();

// --- What happened ------------------------------------------------------------------------------

struct LogRecord
{
    unsigned int ulLevel;
    std::string strFunction;
    std::string strText;
};

// All events since the last TakeTrace, oldest first: "TRAVEX_FTP_Init()", a code that was not 0
// behind it, "log 2 CorpDirInit: ftp init OK!", "enter CorpDirInit", "leave CorpDirInit".
std::vector<std::string> TakeTrace();

// The log records since the last TakeLog or Reset; TakeLogged gives them as "2 CorpDirInit: text".
std::vector<LogRecord> TakeLog();
std::vector<std::string> TakeLogged();

// Calls of one function since Reset.
unsigned int Calls(const std::string& strFunction);

// Calls that the contract of a layer forbids.
std::vector<std::string> TakeMisuses();

// Adds an event of the test's own.
void Note(const std::string& strEvent);

// The name under which a pointer is printed from now on.
void NamePointer(const void* pPointer, const std::string& strName);

// Off: calls are neither recorded nor compared with rules, for tests with a million calls.
void SetRecording(bool bOn);

// Sees every log record, also while nothing is recorded. Null: none.
void SetLogSink(void (*pfnSink)(unsigned int ulLevel, const char* pszFunction,
                                const char* pszText));

// --- Faults and actions --------------------------------------------------------------------------

// The Nth call of the function from now on (from 1) does nothing and returns ulCode; a function
// that returns a pointer returns null. These do their work before they return the code, since the
// service does not call them again: TRAVEX_FTP_CloseHandle, OSAK_MutexDestroy and OSAK_FreeRelTimer
// release, OSAK_MutexInitRecursive initialises. The FTP library's other functions note their
// arguments, and zep_strncpy_s leaves an empty text.
void FailCall(const std::string& strFunction, unsigned int ulNth, unsigned int ulCode);

// The action runs at the beginning of the Nth call from now on, on the calling thread.
void OnCall(const std::string& strFunction, unsigned int ulNth, std::function<void()> action);

// Rules of FailCall and OnCall whose call has not come: a test that states one expects it to come.
std::vector<std::string> UnusedRules();

// --- FTP library --------------------------------------------------------------------------------

// The control parameters last handed over, with copies of what they pointed to.
struct ControlParameters
{
    TRAVEX_FTP_HANDLE hFtp = nullptr;
    tagTRAVEX_FTP_S_CTRL_PARAM stRecord = {};
    std::string strTrustText;
    std::vector<int> vecCiphers;
};

struct Download
{
    TRAVEX_FTP_HANDLE hFtp = nullptr;
    unsigned int* pulTaskID = nullptr;
    unsigned int ulTaskID = 0;
    std::string strServerFile;
    std::string strDir;
    std::string strLocalFile;
    TRAVEX_FTP_NOTIFY_CB pfnNotify = nullptr;
};

ControlParameters LastControlParameters();
tagTRAVEX_FTP_S_DATA_PARAM LastDataParameters();
Download LastDownload();

unsigned int LiveFtpHandles();

// The handle that CreateHandle gave at its Nth call (from 1).
TRAVEX_FTP_HANDLE FtpHandle(unsigned int ulNth);

// --- OS layer -----------------------------------------------------------------------------------

// How a thread that the service creates runs.
enum class WorkerMode
{
    Recorded,  // not before it is joined; then on the joining thread
    Stepped,   // at once, and then from one idle pass to the next, as StepWorker says
    Late,      // not before StartLateWorker, then as Stepped
    Free       // as threads do
};

void SetWorkerMode(WorkerMode eMode);
void StartLateWorker();

// Lets the worker run until its next idle pass, or its end. False: it has ended.
bool StepWorker();

// Bytes of tracked memory blocks that have not been released.
size_t LiveMemory();
bool IsLiveBlock(const void* pBlock);

struct Timer
{
    OSAK_TIMER_PROC pfnCallback = nullptr;
    unsigned int ulMode = 0;
    unsigned int ulLengthMs = 0;  // 0: never started
    void* pParam = nullptr;
};
// The live timer; its callback is null when no timer is live.
Timer LiveTimer();
unsigned int LiveTimers();

// The result of the next resolutions: one entry of this family with this address; empty: an entry
// without an address.
void SetResolved(int iFamily, const std::string& strAddressBytes);
unsigned int ResolverResultsNotFreed();

// --- Security layer -----------------------------------------------------------------------------

// The result of the next decryptions instead of the fake cipher's.
void SetUnsealed(const std::string& strBytes);

// Notes where the layers see this text in the service's own memory. A place counts as not wiped
// until zep_memset_s has overwritten it.
void WatchSecret(const std::string& strSecret);
unsigned int SecretCopiesSeen();
unsigned int SecretCopiesNotWiped();

}  // namespace fakes

#endif
