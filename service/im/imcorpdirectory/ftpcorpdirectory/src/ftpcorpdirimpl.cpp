// The directory service, from its start to the rotation through its servers. Sections, in order:
// log, shared members, task list, the object, start and stop, worker, request, sealing, control
// parameters, data parameters, cipher list, download and dispatch, version check, directory
// download, failure and rotation.
#include "ftpcorpdirimpl.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <new>
#include <utility>

// --- Log ---

constexpr char MODULE[] = "ZepCorpDirectory";

// One record from the operation named `function`. Arguments are evaluated only when the record is
// written. The log pointer is read once, since another thread may open the log at the same time.
#define LOG_AS(function, level, ...)                                                           \
    do                                                                                         \
    {                                                                                          \
        CCorpDirLog* const pLog = SharedLoad(g_LogMode) == 0 ? SharedLoad(g_LogOne) : nullptr; \
        if (pLog != nullptr)                                                                   \
        {                                                                                      \
            pLog->WriteLog(MODULE, function, __FILE__, __LINE__, level, __VA_ARGS__);          \
        }                                                                                      \
    } while (false)

#define LOG(level, ...) LOG_AS(__func__, level, __VA_ARGS__)

// Logs entry and exit of the operation that contains it.
#define TRACE()                                                                         \
    const FunctionTrace trace(&g_LogOne, MODULE, __func__, __FILE__, __LINE__, nullptr, \
                              SharedLoad(g_LogMode), MODULE)

// --- Shared members ---
//
// The client's thread, the worker, the timer thread and the notification thread use the members of
// the service without a lock. Every such access goes through one of the functions below, so that it
// can be found by name; only a task id is also stored by the FTP library. Numbers and pointers are
// read and written atomically. Texts are not: a request made while an earlier one is under way, and
// a check that the timer queues while another transfer fails, may read a text while it changes.

namespace
{

template <class T>
T SharedLoad(const T& value)
{
    return __atomic_load_n(&value, __ATOMIC_ACQUIRE);
}

template <class T, class V>
void SharedStore(T& member, V value)
{
    __atomic_store_n(&member, static_cast<T>(value), __ATOMIC_RELEASE);
}

// Takes a pointer out of its member, so that of two threads only one gets it.
template <class T>
T* SharedTake(T*& member)
{
    return __atomic_exchange_n(&member, nullptr, __ATOMIC_ACQ_REL);
}

bool SharedEmpty(const std::string& strMember)
{
    return strMember.empty();
}

std::string SharedText(const std::string& strMember)
{
    return strMember;
}

// For a record's argument. It needs no memory, so that an operation never fails because of a
// record.
const char* SharedTextPointer(const std::string& strMember)
{
    return strMember.c_str();
}

void SharedAssign(std::string& strMember, const std::string& strValue)
{
    strMember = strValue;
}

void SharedSwap(std::string& strMember, std::string& strValue) noexcept
{
    strMember.swap(strValue);
}

void SharedClear(std::string& strMember) noexcept
{
    strMember.clear();
}

std::string::size_type SharedFindSeparator(const std::string& strIPs)
{
    return strIPs.find(';');
}

// Moves the first address of a server list into strFtpIP. A list of a single address ends empty.
void SharedTakeFirstIP(std::string& strIPs, std::string& strFtpIP)
{
    const std::string::size_type ulPos = strIPs.find(';');
    strFtpIP.assign(strIPs, 0, ulPos);
    strIPs.erase(0, ulPos == std::string::npos ? ulPos : ulPos + 1);
}

void SharedCopyOut(unsigned char* pucTo, const unsigned char* pucMember, size_t ulCount)
{
    std::memcpy(pucTo, pucMember, ulCount);
}

template <size_t SIZE>
void SharedWipe(unsigned char (&aucMember)[SIZE])
{
    (void)zep_memset_s(aucMember, SIZE, 0, SIZE);
}

template <size_t SIZE>
void SharedCopyIn(unsigned char (&aucMember)[SIZE], const unsigned char (&aucValue)[SIZE])
{
    SharedWipe(aucMember);
    (void)zep_memcpy_s(aucMember, SIZE, aucValue, SIZE);
}

// The library copies the record, and the texts and lists that it points to, during the call.
unsigned int SharedHandOver(TRAVEX_FTP_HANDLE hFtp, const tagTRAVEX_FTP_S_CTRL_PARAM& stParam)
{
    return TRAVEX_FTP_SetCtrlParam(hFtp, &stParam);
}

}  // namespace

// --- Task list ---
//
// The timer thread and the notification thread append. The worker takes the front. The worker and
// the client's thread clear the list.

void CThreadProList::push_back(value_type eType)
{
    const std::lock_guard<std::mutex> lock(m_Mutex);
    m_listTask.push_back(eType);
}

bool CThreadProList::empty() const
{
    const std::lock_guard<std::mutex> lock(m_Mutex);
    return m_listTask.empty();
}

size_t CThreadProList::size() const
{
    const std::lock_guard<std::mutex> lock(m_Mutex);
    return m_listTask.size();
}

CThreadProList::value_type CThreadProList::front() const
{
    const std::lock_guard<std::mutex> lock(m_Mutex);
    return m_listTask.empty() ? value_type{} : m_listTask.front();
}

bool CThreadProList::take_front(value_type& eType)
{
    const std::lock_guard<std::mutex> lock(m_Mutex);
    if (m_listTask.empty())
    {
        return false;
    }
    eType = m_listTask.front();
    m_listTask.pop_front();
    return true;
}

void CThreadProList::clear()
{
    const std::lock_guard<std::mutex> lock(m_Mutex);
    m_listTask.clear();
}

// --- The object ---
//
// It is built at load and destroyed at exit; no caller creates or deletes it. Construction
// allocates nothing, opens nothing and starts nothing; CorpDirInit does.

static OSAK_THREAD g_stThread = nullptr;   // the worker, null: none
static unsigned int g_bThreadRuning = 0;   // 1 while the worker is to keep running
static CFTPCorpDirImpl g_CorpDirInstance;  // the singleton, built at load, destroyed at exit

extern "C" IFtpCorpDir* GetCorpDirInstance()
{
    return CFTPCorpDirImpl::GetInstance();
}

CFTPCorpDirImpl* CFTPCorpDirImpl::GetInstance()
{
    return &g_CorpDirInstance;
}

CFTPCorpDirImpl::CFTPCorpDirImpl()
    : m_pucPassword(nullptr),
      m_ulPort(0),
      m_ulFtpMode(0),
      m_ulCertVerify(0),
      m_pDownVersionTimer(nullptr),
      m_hFtpHandle(nullptr)
{
    SharedWipe(m_aucKey);
    SharedWipe(m_aucIV);
    m_ulVersionTaskID = 0;
    m_ulCorpDirTaskID = 0;
    g_stThread = nullptr;
    g_bThreadRuning = 0;
    m_pfnDownloadCb = nullptr;
    m_hMutex = nullptr;
}

CFTPCorpDirImpl::~CFTPCorpDirImpl()
{
    if (m_pDownVersionTimer != nullptr)
    {
        (void)OSAK_FreeRelTimer(m_pDownVersionTimer);
        m_pDownVersionTimer = nullptr;
    }
    ClearRequest();
    SharedStore(m_ulVersionTaskID, 0);
    SharedStore(m_ulCorpDirTaskID, 0);
    m_listThreadPro.clear();
    if (m_hMutex != nullptr)
    {
        (void)OSAK_MutexDestroy(m_hMutex);
        OSAK_MemFreeD(m_hMutex, __LINE__, __FILE__);
        SharedStore(m_hMutex, nullptr);
    }
}

void CFTPCorpDirImpl::ClearRequest() noexcept
{
    SharedClear(m_strUserName);
    std::free(SharedTake(m_pucPassword));
    SharedWipe(m_aucKey);
    SharedWipe(m_aucIV);
    for (std::string* pstrMember :
         {&m_strFtpIP, &m_strIPs, &m_strAllIPs, &m_strLocalIP, &m_strOldVersion,
          &m_strVersionServerPath, &m_strCorpDirServerPath, &m_strVersionLocalPath,
          &m_strVersionFileName, &m_strCorpDirLocalPath, &m_strCorpDirFileName})
    {
        SharedClear(*pstrMember);
    }
}

// --- Start and stop ---
//
// A start runs these steps: log, FTP library, handle, mutex, worker. When a step fails, the earlier
// ones are undone in reverse. A stop first frees the timer, so that no check is queued; then it
// joins the worker, which closes the handle, so that no notification begins; then it waits for
// notifications in progress; only then does it release the data that all of them use.

namespace
{

constexpr int REVISION = 35197;
constexpr useconds_t POLL_INTERVAL_US = 50;

void UnInitFtpLibrary(const char* pszFunction)
{
    const unsigned int ulRet = TRAVEX_FTP_UnInit();
    LOG_AS(pszFunction, 2, "ftp uninit ret:%u", ulRet);
}

void CloseFtpHandle(const char* pszFunction, TRAVEX_FTP_HANDLE hFtp)
{
    const unsigned int ulRet = TRAVEX_FTP_CloseHandle(hFtp);
    LOG_AS(pszFunction, 2, "TRAVEX_FTP_CloseHandle Ret : %d", static_cast<int>(ulRet));
}

// Undoes the steps that a failed start had completed.
void AbandonStart(const char* pszFunction, TRAVEX_FTP_HANDLE hFtp)
{
    CloseFtpHandle(pszFunction, hFtp);
    UnInitFtpLibrary(pszFunction);
    CorpDir_CloseLog();
}

// How many notifications are inside the service: on all threads, and on the calling thread.
std::atomic<unsigned int> g_ulInCallback{0};
thread_local unsigned int t_ulInCallback = 0;

// Counts a notification for as long as it is inside the service.
class CCallbackEntry
{
public:
    CCallbackEntry()
    {
        ++t_ulInCallback;
        g_ulInCallback.fetch_add(1);
    }
    ~CCallbackEntry()
    {
        --t_ulInCallback;
        g_ulInCallback.fetch_sub(1);
    }
    CCallbackEntry(const CCallbackEntry&) = delete;
    CCallbackEntry& operator=(const CCallbackEntry&) = delete;
};

// Set while a stop clears the members. A notification that began before the handle was closed and
// enters the service only then is dropped.
std::atomic<bool> g_bStopping{false};

// Waits until no other thread is inside a notification. The caller's own does not count: a stop
// from within the client's callback would wait for itself.
void WaitForOtherCallbacks()
{
    while (g_ulInCallback.load() > t_ulInCallback)
    {
        (void)usleep(POLL_INTERVAL_US);
    }
}

// The steps of CorpDirInit. A step that fails undoes the earlier ones.
constexpr char INIT[] = "CorpDirInit";

// Returns the result of the start: 0, the log's own code, or 1.
unsigned int OpenLogAndLibrary(tag_CORPDIR_LOGINFO* pstLogInfo)
{
    unsigned int ulRet = CorpDir_OpenLog(pstLogInfo);
    if (ulRet != 0)
    {
        LOG_AS(INIT, 0, "Openlog failed : %d0", static_cast<int>(ulRet));
        return ulRet;
    }
    // Date and time come from the build system, so that two builds of one source are identical.
    LOG_AS(INIT, 2, "built date: %s, %s", CORPDIR_BUILD_DATE, CORPDIR_BUILD_TIME);
    LOG_AS(INIT, 2, "built at svn version :%d", REVISION);

    ulRet = TRAVEX_FTP_Init();
    if (ulRet != 0)
    {
        LOG_AS(INIT, 0, "ftp init fail, ret:%u", ulRet);
        CorpDir_CloseLog();
        return 1;
    }
    LOG_AS(INIT, 2, "ftp init OK!");
    return 0;
}

// An existing handle is kept, even a closed one that a failed start left.
bool CreateHandle(TRAVEX_FTP_HANDLE& hFtp)
{
    if (SharedLoad(hFtp) != nullptr)
    {
        return true;
    }
    SharedStore(hFtp, TRAVEX_FTP_CreateHandle());
    if (SharedLoad(hFtp) == nullptr)
    {
        LOG_AS(INIT, 0, "TRAVEX_FTP_CreateHandle fail !");
        UnInitFtpLibrary(INIT);
        CorpDir_CloseLog();
        return false;
    }
    LOG_AS(INIT, 2, "Ftp create handle success.");
    return true;
}

// The worker may be polling on the old mutex: the OS layer makes that harmless.
bool ReplaceMutex(OSAK_MUTEX*& hMutex, TRAVEX_FTP_HANDLE hFtp)
{
    if (SharedLoad(hMutex) != nullptr)
    {
        LOG_AS(INIT, 0, "Mutex existed, it will be destoried.");
        (void)OSAK_MutexDestroy(SharedLoad(hMutex));
        OSAK_MemFreeD(SharedLoad(hMutex), __LINE__, __FILE__);
        SharedStore(hMutex, nullptr);
    }
    void* const pStorage = OSAK_MemMallocD(sizeof(OSAK_MUTEX), __LINE__, __FILE__);
    SharedStore(hMutex, static_cast<OSAK_MUTEX*>(pStorage));
    if (pStorage == nullptr)
    {
        LOG_AS(INIT, 0, "Metex create failed. ");
        AbandonStart(INIT, hFtp);
        return false;
    }
    (void)OSAK_MutexInitRecursive(SharedLoad(hMutex), nullptr);
    return true;
}

// The run flag is set before the worker exists, since one that found it 0 would end at once. After
// a failure the handle and the mutex keep their closed and released values on purpose.
bool CreateWorker(OSAK_MUTEX* hMutex, TRAVEX_FTP_HANDLE hFtp)
{
    if (SharedLoad(g_stThread) != nullptr)
    {
        return true;
    }
    const unsigned int ulRuningBefore = SharedLoad(g_bThreadRuning);
    SharedStore(g_bThreadRuning, 1);
    if (OSAK_PthreadCreate(&g_stThread, nullptr, CFTPCorpDirImpl::ThreadProcess, nullptr) != 0)
    {
        SharedStore(g_bThreadRuning, ulRuningBefore);
        LOG_AS(INIT, 0, "OSAK_PthreadCreate fail !");
        (void)OSAK_MutexDestroy(hMutex);
        OSAK_MemFreeD(hMutex, __LINE__, __FILE__);
        AbandonStart(INIT, hFtp);
        return false;
    }
    LOG_AS(INIT, 2, "Thread Process Runing: %u", SharedLoad(g_bThreadRuning));
    return true;
}

}  // namespace

unsigned int CFTPCorpDirImpl::CorpDirInit(tag_CORPDIR_LOGINFO* pstLogInfo)
{
    TRACE();
    const unsigned int ulRet = OpenLogAndLibrary(pstLogInfo);
    if (ulRet != 0)
    {
        return ulRet;
    }
    if (!CreateHandle(m_hFtpHandle) || !ReplaceMutex(m_hMutex, SharedLoad(m_hFtpHandle)))
    {
        return 1;
    }
    m_listThreadPro.clear();
    if (!CreateWorker(SharedLoad(m_hMutex), SharedLoad(m_hFtpHandle)))
    {
        return 1;
    }
    LOG(2, "CorpDirInit OK, Thread Handle: %p", static_cast<void*>(SharedLoad(g_stThread)));
    return 0;
}

namespace
{

constexpr char UNINIT[] = "CorpDirUninit";

// The worker closes the handle on its way out; when it could not be joined it may still use it.
void JoinWorker(TRAVEX_FTP_HANDLE& hFtp)
{
    SharedStore(g_bThreadRuning, 0);
    LOG_AS(UNINIT, 2, "ThreadRuning: %u", SharedLoad(g_bThreadRuning));
    LOG_AS(UNINIT, 2, "OSAK_PthreadJoin:%p", static_cast<void*>(SharedLoad(g_stThread)));
    unsigned int ulRet = 0;
    if (SharedLoad(g_stThread) != nullptr)
    {
        ulRet = OSAK_PthreadJoin(SharedLoad(g_stThread), nullptr);
        LOG_AS(UNINIT, 2, "OSAK_PthreadJoin Ret : %d", static_cast<int>(ulRet));
        SharedStore(g_stThread, nullptr);
    }
    if (ulRet == 0 && SharedLoad(hFtp) != nullptr)
    {
        CloseFtpHandle(UNINIT, SharedLoad(hFtp));
        SharedStore(hFtp, nullptr);
    }
}

void ReleaseMutex(OSAK_MUTEX*& hMutex)
{
    if (SharedLoad(hMutex) != nullptr)
    {
        const unsigned int ulRet = OSAK_MutexDestroy(SharedLoad(hMutex));
        LOG_AS(UNINIT, 2, "OSAK_MutexDestroy Ret : %d", static_cast<int>(ulRet));
        OSAK_MemFreeD(SharedLoad(hMutex), __LINE__, __FILE__);
        SharedStore(hMutex, nullptr);
    }
}

}  // namespace

void CFTPCorpDirImpl::CorpDirUninit()
{
    TRACE();
    if (SharedLoad(m_pDownVersionTimer) != nullptr)
    {
        LOG(2, "DownVersionTimer freeing.");
        (void)OSAK_FreeRelTimer(SharedLoad(m_pDownVersionTimer));
        SharedStore(m_pDownVersionTimer, nullptr);
    }
    else
    {
        LOG(2, "DownVersionTimer is freed.");
    }
    SharedStore(m_ulVersionTaskID, 0);
    SharedStore(m_ulCorpDirTaskID, 0);
    JoinWorker(m_hFtpHandle);
    g_bStopping.store(true);
    WaitForOtherCallbacks();
    // Again: the worker may have started a transfer while it was being joined.
    SharedStore(m_ulVersionTaskID, 0);
    SharedStore(m_ulCorpDirTaskID, 0);
    ClearRequest();
    m_listThreadPro.clear();
    ReleaseMutex(m_hMutex);
    freeFtpCipherList();
    UnInitFtpLibrary(UNINIT);  // waits for a notification that is about to enter the service
    g_bStopping.store(false);
    LOG(2, "before close log.");
    CorpDir_CloseLog();
}

// --- Worker ---
//
// Follow-up downloads are started on one thread, one after the other. It polls, since the threads
// that queue tasks send no signal; the interval bounds the delay of a start. The worker only starts
// transfers and does not wait for them. A start that fails is logged and not repeated.

namespace
{

// Takes the front task under the queue mutex; false when there is no task. Lock and unlock use the
// same mutex, although a second start may replace the member in between.
bool TakeTask(CThreadProList& listThreadPro, OSAK_MUTEX* hMutex, tagCORPDIR_E_THREADPRO_TYPE& eTask)
{
    if (hMutex != nullptr)
    {
        (void)OSAK_MutexLock(hMutex);
    }
    const bool bTask = listThreadPro.take_front(eTask);
    if (bTask)
    {
        LOG_AS("ThreadProcess", 2, "Thread download type : %d", static_cast<int>(eTask));
    }
    if (hMutex != nullptr)
    {
        (void)OSAK_MutexUnLock(hMutex);
    }
    return bTask;
}

}  // namespace

unsigned int CFTPCorpDirImpl::ThreadProcess()
{
    LOG(2, "Thread Process In : %p.", static_cast<void*>(SharedLoad(g_stThread)));
    CFTPCorpDirImpl* const pService = GetInstance();
    if (pService == nullptr)
    {
        LOG(0, "FtpCorpDirImpl is NULL. ");
        SharedStore(g_stThread, nullptr);
        return 1;
    }
    tagCORPDIR_E_THREADPRO_TYPE eTask{};
    while (SharedLoad(g_bThreadRuning) != 0)
    {
        if (!TakeTask(pService->m_listThreadPro, SharedLoad(pService->m_hMutex), eTask))
        {
            (void)usleep(POLL_INTERVAL_US);
            continue;
        }
        if (SharedLoad(g_bThreadRuning) == 0)
        {
            LOG(2, "Thread Process break.");
            break;
        }
        if (eTask == CORPDIR_E_THREADPRO_VERSION)
        {
            LOG(2, "Thread begin VersionDownload.");
            const unsigned int ulRet = pService->VersionDownload();
            if (ulRet != 0)
            {
                LOG(0, "VersionDownload failed : %d", static_cast<int>(ulRet));
            }
        }
        else if (eTask == CORPDIR_E_THREADPRO_CORPDIR)
        {
            LOG(2, "Thread begin CorpDirDownload.");
            const unsigned int ulRet = pService->CorpDirDownload();
            if (ulRet != 0)
            {
                LOG(0, "CorpDirDownload failed : %d", static_cast<int>(ulRet));
            }
        }
    }
    pService->m_listThreadPro.clear();
    LOG(2, "Before CloseHandle.");
    if (SharedLoad(pService->m_hFtpHandle) != nullptr)
    {
        const unsigned int ulRet = TRAVEX_FTP_CloseHandle(SharedLoad(pService->m_hFtpHandle));
        LOG(2, "TRAVEX_FTP_CloseHandle Ret : %u", ulRet);
        SharedStore(pService->m_hFtpHandle, nullptr);
    }
    LOG(2, "ThreadProcess Leave.");
    return 0;
}

// --- Request ---
//
// A request is copied into the members, the password in sealed form only, and its first version
// check is started here, on the client's thread. What was copied before a failure stays copied.

namespace
{

constexpr unsigned int SEALED_SIZE = 256;  // bytes of the sealed password's block
constexpr unsigned int KEY_SIZE = 32;
constexpr unsigned int IV_SIZE = 16;

// Wipes storage at the end of its scope, on every path.
class CWiper
{
public:
    CWiper(void* pStorage, size_t ulSize) : m_pStorage(pStorage), m_ulSize(ulSize) {}
    ~CWiper()
    {
        (void)zep_memset_s(m_pStorage, m_ulSize, 0, m_ulSize);
    }
    CWiper(const CWiper&) = delete;
    CWiper& operator=(const CWiper&) = delete;

private:
    void* m_pStorage;
    size_t m_ulSize;
};

// A sealed password with what unseals it, copied out of the service's members.
struct tagSEALED_PASSWORD
{
    unsigned char aucBlock[SEALED_SIZE + 1];  // one more, so that it always ends as a text
    unsigned char aucKey[KEY_SIZE];
    unsigned char aucIV[IV_SIZE];
};

// A field of a record as a text, also when it arrived without a terminator: at most 255 bytes.
class CFieldCopy
{
public:
    explicit CFieldCopy(const char (&acField)[256])
    {
        std::memcpy(m_acText, acField, sizeof(m_acText) - 1);
    }
    const char* Text() const
    {
        return m_acText;
    }

private:
    char m_acText[256] = {};
};

// Seals the request's password. False after a record.
bool SealPassword(const char (&acPassword)[256], tagSEALED_PASSWORD& stSealed,
                  unsigned int& ulSealedLen)
{
    char acPlain[sizeof(acPassword)] = {};
    const CWiper wiper(acPlain, sizeof(acPlain));
    std::memcpy(acPlain, acPassword, sizeof(acPlain) - 1);
    const unsigned int ulPlainLen = OSAK_StrLen(acPlain);
    if (ulPlainLen == 0)
    {
        LOG_AS("SetFtpInfo", 0, "param Length is zero.");
        return false;
    }
    ulSealedLen = SEALED_SIZE;
    if (CommonEncrypt(reinterpret_cast<unsigned char*>(acPlain), ulPlainLen, stSealed.aucKey,
                      KEY_SIZE, stSealed.aucIV, IV_SIZE, stSealed.aucBlock, &ulSealedLen) != 0)
    {
        LOG_AS("SetFtpInfo", 0, "CommonEncrypt failed.");
        return false;
    }
    return true;
}

// A new block with the sealed bytes. The rest is zero, from which their length is computed.
unsigned char* SealedBlock(const tagSEALED_PASSWORD& stSealed, unsigned int ulSealedLen)
{
    auto* const pucBlock = static_cast<unsigned char*>(std::malloc(SEALED_SIZE));
    if (pucBlock != nullptr)
    {
        (void)zep_memset_s(pucBlock, SEALED_SIZE, 0, SEALED_SIZE);
        (void)zep_memcpy_s(pucBlock, SEALED_SIZE, stSealed.aucBlock, ulSealedLen);
    }
    return pucBlock;
}

// Makes the first address of the list current and leaves the servers after it in the list. A single
// address stays in the list and is tried once more.
void StartPass(std::string& strIPs, std::string& strFtpIP)
{
    if (SharedFindSeparator(strIPs) != std::string::npos)
    {
        SharedTakeFirstIP(strIPs, strFtpIP);
    }
    else if (!SharedEmpty(strIPs))
    {
        SharedAssign(strFtpIP, strIPs);
    }
}

}  // namespace

unsigned int CFTPCorpDirImpl::CorpDirDownloadNetaddr(tag_CORPDIR_DOWNLOADINFO* pstDownloadInfo,
                                                     CORPDIR_DOWNLOAD_CB pfnDownloadCb)
{
    TRACE();
    if (pstDownloadInfo == nullptr)
    {
        LOG(0, "downloadinfo is null");
        return 1;
    }
    unsigned int ulRet = SetFtpInfo(pstDownloadInfo);
    if (ulRet != 0)
    {
        LOG(0, "SetFtpInfo failed : %d", static_cast<int>(ulRet));
        return ulRet;
    }
    if (pfnDownloadCb == nullptr)
    {
        LOG(0, "DownCallbackPtr is NULL.");
        return 1;
    }
    SharedStore(m_pfnDownloadCb, pfnDownloadCb);
    ulRet = VersionDownload();
    if (ulRet != 0)
    {
        LOG(0, "VersionDownload failed : %d", static_cast<int>(ulRet));
        return ulRet;
    }
    ulRet = StartTimerForVersion();
    if (ulRet != 0)
    {
        LOG(0, "StartTimerForVersion failed : %d", static_cast<int>(ulRet));
        return ulRet;
    }
    return 0;
}

unsigned int CFTPCorpDirImpl::SetFtpInfo(tag_CORPDIR_DOWNLOADINFO* pstDownloadInfo)
try
{
    if (pstDownloadInfo == nullptr || pstDownloadInfo->pszFtpIPs == nullptr)
    {
        LOG(0, "Input downloadinfo is null");
        return 1;
    }
    const tag_CORPDIR_DOWNLOADINFO& stInfo = *pstDownloadInfo;
    LOG(2, "before setftpinfo, username : %s, FTPIPs : %s ", CFieldCopy(stInfo.szUserName).Text(),
        stInfo.pszFtpIPs);
    SharedAssign(m_strFtpCtrlInfo, CFieldCopy(stInfo.szFtpCtrlInfo).Text());
    SharedAssign(m_strUserName, CFieldCopy(stInfo.szUserName).Text());

    tagSEALED_PASSWORD stSealed = {};
    const CWiper wiper(&stSealed, sizeof(stSealed));
    unsigned int ulSealedLen = 0;
    if (!SealPassword(stInfo.szPassword, stSealed, ulSealedLen))
    {
        return 1;
    }
    SharedCopyIn(m_aucKey, stSealed.aucKey);
    SharedCopyIn(m_aucIV, stSealed.aucIV);
    std::free(SharedTake(m_pucPassword));
    SharedStore(m_pucPassword, SealedBlock(stSealed, ulSealedLen));
    if (SharedLoad(m_pucPassword) == nullptr)
    {
        LOG(0, "param malloc failed.");
        return 1;
    }

    SharedAssign(m_strIPs, stInfo.pszFtpIPs);
    SharedAssign(m_strAllIPs, m_strIPs);
    StartPass(m_strIPs, m_strFtpIP);
    if (stInfo.pszLocalIP != nullptr)
    {
        SharedAssign(m_strLocalIP, stInfo.pszLocalIP);
    }
    SharedStore(m_ulCertVerify, stInfo.ulCertVerify == 1 ? 1 : 0);
    SharedStore(m_ulPort, stInfo.ulPort);
    SharedStore(m_ulFtpMode, stInfo.ulFtpMode);
    SharedAssign(m_strVersionServerPath, CFieldCopy(stInfo.szVersionServerFile).Text());
    SharedAssign(m_strCorpDirServerPath, CFieldCopy(stInfo.szCorpDirServerFile).Text());
    SharedAssign(m_strVersionLocalPath, CFieldCopy(stInfo.szVersionLocalDir).Text());
    SharedAssign(m_strVersionFileName, CFieldCopy(stInfo.szVersionLocalFileName).Text());
    SharedAssign(m_strCorpDirLocalPath, CFieldCopy(stInfo.szCorpDirLocalDir).Text());
    SharedAssign(m_strCorpDirFileName, CFieldCopy(stInfo.szCorpDirLocalFileName).Text());
    SharedAssign(m_strOldVersion, "");
    LOG(2, "after setftpinfo, username : %s, IPs : %s, FtpIP : %s , LocalIP : %s",
        SharedTextPointer(m_strUserName), SharedTextPointer(m_strIPs),
        SharedTextPointer(m_strFtpIP), SharedTextPointer(m_strLocalIP));
    return 0;
}
catch (const std::bad_alloc&)
{
    return 1;
}

// --- Sealing ---
//
// The password is encrypted under a key and an IV drawn for each request. The sealed length is not
// stored: the rest of the block is zero, and a cipher block of zeros does not occur in practice
// (once in 2^128).

constexpr unsigned int CIPHER_ALGORITHM = 0;

unsigned int CommonEncrypt(unsigned char* pucPlain, unsigned int ulPlainLen, unsigned char* pucKey,
                           unsigned int ulKeyLen, unsigned char* pucIV, unsigned int ulIVLen,
                           unsigned char* pucOut, unsigned int* pulOutLen)
{
    const unsigned int ulKeyRet = ZEP_CPYPT_RealRandom(pucKey, ulKeyLen);
    const unsigned int ulIVRet = ZEP_CPYPT_RealRandom(pucIV, ulIVLen);
    const unsigned int ulRandomRet = ulKeyRet | ulIVRet;
    if (ulRandomRet != 0)
    {
        LOG(0, "Get RealRandom failed, errno is %u .", ulRandomRet);
        *pulOutLen = 0;
        return ulRandomRet;
    }
    // A block size of 0 means that the crypto layer does not know the algorithm.
    const unsigned int ulBlock = ZEP_CRYPT_GetblockSize(CIPHER_ALGORITHM);
    if (ulBlock == 0 || (ulPlainLen / ulBlock + 1) * ulBlock > *pulOutLen)
    {
        LOG(0, "out buffer is not enough.");
        *pulOutLen = 0;
        return 1;
    }
    const unsigned int ulRet = ZEP_CPYPT_Encrypt(CIPHER_ALGORITHM, pucKey, ulKeyLen, pucIV, ulIVLen,
                                                 pucPlain, ulPlainLen, pucOut, pulOutLen);
    if (ulRet != 0)
    {
        LOG(0, "ZEP_CPYPT_Encrypt error : %u", ulRet);
    }
    return ulRet;
}

unsigned int CommonPasswordLength(unsigned char* pucSealed)
{
    int iLast = static_cast<int>(SEALED_SIZE) - 1;
    while (iLast >= 0 && pucSealed[iLast] == 0)
    {
        --iLast;
    }
    return iLast < 0 ? 0 : (static_cast<unsigned int>(iLast) / 16 + 1) * 16;
}

unsigned int CommonDecrypt(unsigned char* pucSealed, unsigned int /*ulSealedLen*/,
                           unsigned char* pucKey, unsigned int ulKeyLen, unsigned char* pucIV,
                           unsigned int ulIVLen, unsigned char* pucOut, unsigned int* pulOutLen)
{
    const unsigned int ulRet =
        ZEP_CPYPT_Decrypt(CIPHER_ALGORITHM, pucKey, ulKeyLen, pucIV, ulIVLen, pucSealed,
                          CommonPasswordLength(pucSealed), pucOut, pulOutLen);
    if (ulRet != 0)
    {
        LOG(0, "ZEP_CPYPT_Decrypt error : %u", ulRet);
    }
    return ulRet;
}

// --- Control parameters ---
//
// Before every transfer all parameters are handed to the library again, from the current members,
// so that a new request or a rotation takes effect at the next transfer. The plain password exists
// only here, and is wiped on every path.

// The suites offered when the client set none.
static const int g_aiDefaultFtpChiperList[] = {
    0x03000035,  // TLS_RSA_WITH_AES_256_CBC_SHA
    0x0300003C,  // TLS_RSA_WITH_AES_128_CBC_SHA256
    0x0300003D,  // TLS_RSA_WITH_AES_256_CBC_SHA256
};
static const int g_iDefaultFtpChiperListSize = 3;

tagCORPDIR_CIPHER_LIST g_stFtpCiperList = {0, nullptr};

namespace
{

constexpr char CTRL_PARAM[] = "SetFtpCtrlParam";

// Wipes a text at the end of its scope, on every path.
class CTextWiper
{
public:
    explicit CTextWiper(std::string& strText) : m_strText(strText) {}
    ~CTextWiper()
    {
        (void)zep_memset_s(&m_strText[0], m_strText.size(), 0, m_strText.size());
    }
    CTextWiper(const CTextWiper&) = delete;
    CTextWiper& operator=(const CTextWiper&) = delete;

private:
    std::string& m_strText;
};

// Unseals the password into strPlain, up to its first zero byte. False after a record.
bool UnsealPassword(const unsigned char* pucPassword, const unsigned char (&aucKey)[KEY_SIZE],
                    const unsigned char (&aucIV)[IV_SIZE], std::string& strPlain)
{
    tagSEALED_PASSWORD stSealed = {};
    const CWiper wiperSealed(&stSealed, sizeof(stSealed));
    SharedCopyOut(stSealed.aucBlock, pucPassword, SEALED_SIZE);
    SharedCopyOut(stSealed.aucKey, aucKey, KEY_SIZE);
    SharedCopyOut(stSealed.aucIV, aucIV, IV_SIZE);
    unsigned char aucUnsealed[256] = {};
    unsigned char aucPlain[256];
    const CWiper wiperUnsealed(aucUnsealed, sizeof(aucUnsealed));
    const CWiper wiperPlain(aucPlain, sizeof(aucPlain));
    unsigned int ulLength = sizeof(aucUnsealed);
    const unsigned int ulSealedLen = OSAK_StrLen(reinterpret_cast<char*>(stSealed.aucBlock));
    if (CommonDecrypt(stSealed.aucBlock, ulSealedLen, stSealed.aucKey, KEY_SIZE, stSealed.aucIV,
                      IV_SIZE, aucUnsealed, &ulLength) != 0)
    {
        LOG_AS(CTRL_PARAM, 0, "CommonDecrypt failed.");
        return false;
    }
    (void)zep_memset_s(aucPlain, sizeof(aucPlain), 0, sizeof(aucPlain));
    (void)zep_memcpy_s(aucPlain, sizeof(aucPlain), aucUnsealed, ulLength);
    const char* const pcPlain = reinterpret_cast<const char*>(aucPlain);
    strPlain.assign(pcPlain, strnlen(pcPlain, sizeof(aucPlain)));
    return true;
}

unsigned int IPv4Value(const unsigned char (&aucAddress)[16])
{
    unsigned int ulAddress = 0;
    std::memcpy(&ulAddress, aucAddress, sizeof(ulAddress));
    return ulAddress;
}

// The raw bytes of an address as a record prints them: up to the first zero byte.
std::string AddressBytes(const unsigned char (&aucAddress)[16])
{
    const char* const pcAddress = reinterpret_cast<const char*>(aucAddress);
    return std::string(pcAddress, strnlen(pcAddress, sizeof(aucAddress)));
}

// Unlike CommonIsHostName, any non-zero result of a parse counts as success here.
void ConvertServerLiteral(const std::string& strIP, tagTRAVEX_FTP_S_CTRL_PARAM& stParam)
{
    if (OSAK_Inet_Pton(AF_INET6, strIP.c_str(), stParam.aucServerIp) != 0)
    {
        stParam.ulServerIpType = 1;
        LOG_AS(CTRL_PARAM, 2, "after OSAK_Inet_Pton, FTP Server IPv6 : %s ",
               AddressBytes(stParam.aucServerIp).c_str());
    }
    else if (OSAK_Inet_Pton(AF_INET, strIP.c_str(), stParam.aucServerIp) != 0)
    {
        stParam.ulServerIpType = 0;
        LOG_AS(CTRL_PARAM, 2, "after OSAK_Inet_Pton, FTP Server IPv4 : %u ",
               IPv4Value(stParam.aucServerIp));
    }
    else
    {
        LOG_AS(CTRL_PARAM, 0, "FTP Server IP convert error : %s", strIP.c_str());
    }
}

void ConvertLocalLiteral(const std::string& strIP, tagTRAVEX_FTP_S_CTRL_PARAM& stParam)
{
    if (OSAK_Inet_Pton(AF_INET6, strIP.c_str(), stParam.aucLocalIp) != 0)
    {
        stParam.ulLocalIpType = 1;
        LOG_AS(CTRL_PARAM, 2, "after OSAK_Inet_Pton, FTP Local IPv6 : %s ",
               AddressBytes(stParam.aucLocalIp).c_str());
    }
    else if (OSAK_Inet_Pton(AF_INET, strIP.c_str(), stParam.aucLocalIp) != 0)
    {
        stParam.ulLocalIpType = 0;
        LOG_AS(CTRL_PARAM, 2, "after OSAK_Inet_Pton, FTP Local IPv4 : %u ",
               IPv4Value(stParam.aucLocalIp));
    }
    else
    {
        LOG_AS(CTRL_PARAM, 0, "FTP Local IP convert error : %s", strIP.c_str());
    }
}

// Takes the first address of the name. False after a record. An entry without an address is no
// failure: the server address stays zero, and the result is not freed.
bool ResolveServer(const std::string& strName, tagTRAVEX_FTP_S_CTRL_PARAM& stParam)
{
    addrinfo* pstRemoteHost = nullptr;
    const int iRet = OSAK_GetAddrInfo(strName.c_str(), "0", nullptr, &pstRemoteHost);
    if (iRet != 0)
    {
        LOG_AS(CTRL_PARAM, 0, "OSAK_GetAddrInfo failed : %d ", iRet);
        return false;
    }
    if (pstRemoteHost == nullptr || pstRemoteHost->ai_addr == nullptr)
    {
        LOG_AS(CTRL_PARAM, 0, "pstRemoteHost->ai_addr is NULL ");
        return true;
    }
    bool bKnownFamily = true;
    if (pstRemoteHost->ai_family == AF_INET)
    {
        const auto* const pstIPv4 = reinterpret_cast<const sockaddr_in*>(pstRemoteHost->ai_addr);
        (void)zep_memcpy_s(stParam.aucServerIp, 4, &pstIPv4->sin_addr, 4);
        stParam.ulServerIpType = 0;
        LOG_AS(CTRL_PARAM, 2, "after zep_memcpy_s, IPv4 : %u", IPv4Value(stParam.aucServerIp));
    }
    else if (pstRemoteHost->ai_family == ZEP_Socket_Get_AF_INET6())
    {
        const auto* const pstIPv6 = reinterpret_cast<const sockaddr_in6*>(pstRemoteHost->ai_addr);
        (void)zep_memcpy_s(stParam.aucServerIp, 16, &pstIPv6->sin6_addr, 16);
        stParam.ulServerIpType = 1;
    }
    else
    {
        bKnownFamily = false;
    }
    OSAK_FreeAddrInfo(pstRemoteHost);
    if (!bKnownFamily)
    {
        LOG_AS(CTRL_PARAM, 0, "DNS Parse error!");
    }
    return bKnownFamily;
}

// The current list, or the default, which is then installed for later transfers too. A list that a
// stop has released is replaced without a record.
void SetCipherList(CFTPCorpDirImpl& service, tagTRAVEX_FTP_S_CTRL_PARAM& stParam)
{
    stParam.piCipherList = SharedLoad(g_stFtpCiperList.piCipherList);
    stParam.ulCipherNum = SharedLoad(g_stFtpCiperList.ulCipherNum);
    if (stParam.piCipherList != nullptr && stParam.ulCipherNum != 0)
    {
        return;
    }
    if (stParam.ulCipherNum == 0)
    {
        LOG_AS(CTRL_PARAM, 1, "Ftp cipher list not set, use default value!");
    }
    (void)service.CorpDirSetFtpCipherListToDirImpl(g_aiDefaultFtpChiperList,
                                                   g_iDefaultFtpChiperListSize);
    stParam.piCipherList = g_aiDefaultFtpChiperList;
    stParam.ulCipherNum = g_iDefaultFtpChiperListSize;
}

bool SetAddresses(const std::string& strFtpIP, const std::string& strLocalIP,
                  tagTRAVEX_FTP_S_CTRL_PARAM& stParam)
{
    if (CommonIsHostName(strFtpIP.c_str()) == 1)
    {
        if (!ResolveServer(strFtpIP, stParam))
        {
            return false;
        }
    }
    else
    {
        ConvertServerLiteral(strFtpIP, stParam);
    }
    if (!strLocalIP.empty())
    {
        ConvertLocalLiteral(strLocalIP, stParam);
    }
    return true;
}

// A text that does not fit its field leaves the field empty, which the library refuses.
void SetText(char (&acField)[128], const std::string& strText)
{
    (void)zep_strncpy_s(acField, sizeof(acField), strText.c_str(), strText.size());
}

void SetCredentials(const std::string& strUserName, const std::string& strPassword,
                    tagTRAVEX_FTP_S_CTRL_PARAM& stParam)
{
    stParam.ulCtrlOption1 = 1;
    SetText(stParam.acUserName, strUserName);
    SetText(stParam.acPassword, strPassword);
    stParam.ulCtrlOption2 = 2;
    stParam.ulCtrlOption3 = 10;
}

// The directory with a closing "/".
std::string WithSlash(std::string strDir)
{
    if (strDir.empty() || strDir.back() != '/')
    {
        strDir += '/';
    }
    return strDir;
}

void SetWorkDir(const std::string& strLocalDir, tagTRAVEX_FTP_S_CTRL_PARAM& stParam)
{
    const std::string strWorkDir = WithSlash(strLocalDir);
    LOG_AS(CTRL_PARAM, 2, "WordDir : %s", strWorkDir.c_str());
    SetText(stParam.acWorkDir, strWorkDir);
}

// pcTrust is not copied and must outlive the record.
void SetTlsGroup(const char* pcTrust, TRAVEX_FTP_VERIFY_CB pfnVerify,
                 tagTRAVEX_FTP_S_CTRL_PARAM& stParam)
{
    stParam.pcFtpCtrlInfo = pcTrust;
    stParam.ulTlsOption1 = 1;
    stParam.usTlsOption2 = 28;
    stParam.ulTlsOption3 = 1;
    stParam.pfnFtpsVerify = pfnVerify;
}

void SetPort(unsigned int ulPort, tagTRAVEX_FTP_S_CTRL_PARAM& stParam)
{
    if (ulPort != 0)
    {
        stParam.ulServerPort = ulPort;
        LOG_AS(CTRL_PARAM, 2, "use new port:%u", ulPort);
    }
}

}  // namespace

int CFTPCorpDirImpl::VerifyCallback(void* pServer, void* pSubject)
{
    LOG(2, "VerifyCallback Enter FnFtpsVerify, %p, %p", pServer, pSubject);
    return 0;
}

int CommonIsHostName(const char* pcAddr)
{
    in6_addr stParsed = {};  // not used
    if (OSAK_Inet_Pton(AF_INET6, pcAddr, &stParsed) > 0 ||
        OSAK_Inet_Pton(AF_INET, pcAddr, &stParsed) > 0)
    {
        return 0;
    }
    if (OSAK_InetAddr(pcAddr) == INADDR_NONE)
    {
        return 1;
    }
    // Numbers and dots that only inet_addr accepts: a longer text counts as a name.
    constexpr unsigned int LONGEST_LITERAL = 16;
    return OSAK_StrLen(pcAddr) > LONGEST_LITERAL ? 1 : 0;
}

unsigned int CFTPCorpDirImpl::SetFtpCtrlParam(std::string strLocalDir)
try
{
    const std::string strFtpIP = SharedText(m_strFtpIP);
    const std::string strUserName = SharedText(m_strUserName);
    const unsigned char* const pucPassword = SharedLoad(m_pucPassword);
    if (strLocalDir.empty() || SharedEmpty(m_strFtpCtrlInfo) || strUserName.empty() ||
        pucPassword == nullptr || strFtpIP.empty())
    {
        LOG(0, "Input param is empty.");
        return 1;
    }
    if (SharedLoad(m_hFtpHandle) == nullptr)
    {
        LOG(0, "FTPS Handle is NULL!");
        return 1;
    }
    std::string strPassword;
    const CTextWiper wiperPassword(strPassword);
    if (!UnsealPassword(pucPassword, m_aucKey, m_aucIV, strPassword))
    {
        return 1;
    }

    tagTRAVEX_FTP_S_CTRL_PARAM stParam;
    const CWiper wiperParam(&stParam, sizeof(stParam));
    (void)zep_memset_s(&stParam, sizeof(stParam), 0, sizeof(stParam));
    stParam.ulServerType = SharedLoad(m_ulFtpMode) != 0 ? 0 : 1;  // the request's 0 asks for FTPS
    SetCipherList(*this, stParam);
    LOG(2, "Set ServerType:%d(0:ftp, 1:ftps), FTP IP : %s", static_cast<int>(stParam.ulServerType),
        strFtpIP.c_str());
    if (!SetAddresses(strFtpIP, SharedText(m_strLocalIP), stParam))
    {
        return 1;
    }
    SetCredentials(strUserName, strPassword, stParam);
    SetWorkDir(strLocalDir, stParam);
    SetTlsGroup(SharedTextPointer(m_strFtpCtrlInfo), VerifyCallback, stParam);
    SetPort(SharedLoad(m_ulPort), stParam);
    stParam.ulCertVerify = SharedLoad(m_ulCertVerify);

    const unsigned int ulRet = SharedHandOver(SharedLoad(m_hFtpHandle), stParam);
    if (ulRet != 0)
    {
        LOG(0, "TRAVEX_FTP_SetCtrlParam Failed! Ret = %d", static_cast<int>(ulRet));
        return 1;
    }
    return 0;
}
catch (const std::bad_alloc&)
{
    return 1;
}

// --- Data parameters ---

unsigned int CFTPCorpDirImpl::SetFtpDataParam()
{
    if (SharedLoad(m_hFtpHandle) == nullptr)
    {
        LOG(0, "FTPS Handle is NULL!");
        return 1;
    }
    tagTRAVEX_FTP_S_DATA_PARAM stParam;
    (void)zep_memset_s(&stParam, sizeof(stParam), 0, sizeof(stParam));
    stParam.ulDataOption1 = 0;
    stParam.ulDataOption2 = 1;
    stParam.ulDataOption3 = 0;
    stParam.ulDataOption4 = 1;
    const unsigned int ulRet = TRAVEX_FTP_SetDataParam(SharedLoad(m_hFtpHandle), &stParam);
    if (ulRet != 0)
    {
        LOG(0, "TRAVEX_FTP_SetDataParam Failed! Ret = %u", ulRet);
        return 1;
    }
    return 0;
}

// --- Cipher list ---
//
// A list that is set has a count and storage; one that was never set has neither. A stop releases
// the storage and keeps the count; all functions here treat that as never set.

namespace
{

// The largest list whose size in bytes fits 32 bits.
constexpr unsigned int MAX_CIPHERS = 0x3FFFFFFF;

// Sets the count, frees the old storage, allocates new storage and copies ulCount entries into it.
// A failed allocation becomes a failed copy.
unsigned int FillCipherList(const int* piCipherList, unsigned int ulCount)
{
    const unsigned int ulSize = ulCount * static_cast<unsigned int>(sizeof(int));
    SharedStore(g_stFtpCiperList.ulCipherNum, ulCount);
    if (SharedLoad(g_stFtpCiperList.piCipherList) != nullptr)
    {
        OSAK_MemFreeD(SharedLoad(g_stFtpCiperList.piCipherList), __LINE__, __FILE__);
    }
    SharedStore(g_stFtpCiperList.piCipherList,
                static_cast<int*>(OSAK_MemMallocS(ulSize, 0, __LINE__, __FILE__)));
    return static_cast<unsigned int>(
        zep_memcpy_s(SharedLoad(g_stFtpCiperList.piCipherList), ulSize, piCipherList, ulSize));
}

bool ContainsCipher(int iCipher)
{
    const int* const piCipherList = SharedLoad(g_stFtpCiperList.piCipherList);
    const int* const piEnd = piCipherList + SharedLoad(g_stFtpCiperList.ulCipherNum);
    return std::find(piCipherList, piEnd, iCipher) != piEnd;
}

// Grows the list by exactly one entry. When the copy fails, the old list stays and the new block is
// not released.
unsigned int AppendCipher(int iCipher)
{
    const unsigned int ulCount = SharedLoad(g_stFtpCiperList.ulCipherNum);
    if (ulCount >= MAX_CIPHERS)
    {
        return 1;
    }
    const unsigned int ulSize = ulCount * static_cast<unsigned int>(sizeof(int));
    auto* const piGrown =
        static_cast<int*>(OSAK_MemMallocS(ulSize + sizeof(int), 0, __LINE__, __FILE__));
    if (zep_memcpy_s(piGrown, ulSize, SharedLoad(g_stFtpCiperList.piCipherList), ulSize) != 0)
    {
        LOG_AS("CorpDirAddFtpCipherListToDirImplByOne", 0,
               "add ftp cipher list zep_memcpy_s error!");
        return 1;
    }
    void* pOld = SharedTake(g_stFtpCiperList.piCipherList);
    OSAK_MemFreeSetNullD(&pOld, __LINE__, __FILE__);
    piGrown[ulCount] = iCipher;
    SharedStore(g_stFtpCiperList.piCipherList, piGrown);
    SharedStore(g_stFtpCiperList.ulCipherNum, ulCount + 1);
    return 0;
}

}  // namespace

unsigned int CFTPCorpDirImpl::CorpDirSetFtpCipherListToDirImpl(const int* piCipherList,
                                                               unsigned int ulCipherNum)
{
    TRACE();
    if (ulCipherNum == 0)
    {
        LOG(0, "input cipher list is empty !");
        return 1;
    }
    if (piCipherList == nullptr || ulCipherNum > MAX_CIPHERS)
    {
        return 1;  // the current list stays
    }
    return FillCipherList(piCipherList, ulCipherNum);
}

unsigned int CFTPCorpDirImpl::CorpDirAddFtpCipherListToDirImplByOne(int iCipher)
{
    TRACE();
    if (SharedLoad(g_stFtpCiperList.ulCipherNum) == 0 ||
        SharedLoad(g_stFtpCiperList.piCipherList) == nullptr)
    {
        const unsigned int ulRet =
            FillCipherList(g_aiDefaultFtpChiperList, g_iDefaultFtpChiperListSize);
        if (ulRet != 0)
        {
            LOG(0, "add ftp cipher list zep_memcpy_s error! %d", static_cast<int>(ulRet));
            return 1;
        }
    }
    if (ContainsCipher(iCipher))
    {
        LOG(0, "cipher 0x%x already exists!", static_cast<unsigned int>(iCipher));
        return 0;
    }
    return AppendCipher(iCipher);
}

unsigned int CFTPCorpDirImpl::CorpDirAddFtpCipherListToDirImpl(const int* piCipherList,
                                                               unsigned int ulCipherNum)
{
    TRACE();
    if ((piCipherList == nullptr && ulCipherNum != 0) || ulCipherNum > MAX_CIPHERS)
    {
        return 1;
    }
    for (unsigned int i = 0; i < ulCipherNum; ++i)
    {
        const unsigned int ulRet = CorpDirAddFtpCipherListToDirImplByOne(piCipherList[i]);
        if (ulRet != 0)
        {
            return ulRet;
        }
    }
    return 0;
}

void CFTPCorpDirImpl::freeFtpCipherList()
{
    if (SharedLoad(g_stFtpCiperList.piCipherList) != nullptr)
    {
        void* pStorage = SharedTake(g_stFtpCiperList.piCipherList);
        OSAK_MemFreeSetNullD(&pStorage, __LINE__, __FILE__);
    }
}

// --- Download and dispatch ---
//
// Both files are started in the same way. The library's notifications are distinguished by type and
// by the task id that the start left in its member. The service acts on the end of a successful
// transfer (12), not on the 0 before it.

unsigned int CFTPCorpDirImpl::StartDownload(const char* pszFunction,
                                            const std::string& strServerPath,
                                            const std::string& strLocalPath,
                                            const std::string& strFileName, unsigned int& ulTaskID)
try
{
    if (SharedEmpty(strServerPath) || SharedEmpty(strLocalPath) || SharedEmpty(strFileName))
    {
        LOG_AS(pszFunction, 0, "Input param is empty.");
        return 1;
    }
    SharedStore(ulTaskID, 0);
    const unsigned int ulRet = AsynFtpDownload(SharedText(strServerPath), SharedText(strLocalPath),
                                               SharedText(strFileName), ulTaskID);
    if (ulRet != 0)
    {
        LOG_AS(pszFunction, 0, "AsynFtpDownload failed, filename : %s",
               SharedTextPointer(strFileName));
    }
    return ulRet;
}
catch (const std::bad_alloc&)
{
    return 1;
}

unsigned int CFTPCorpDirImpl::AsynFtpDownload(std::string strServerFile, std::string strLocalDir,
                                              std::string strLocalFileName, unsigned int& ulTaskID)
{
    if (strServerFile.empty() || strLocalDir.empty() || strLocalFileName.empty())
    {
        LOG(0, "Input param is empty.");
        return 1;
    }
    if (SharedLoad(m_hFtpHandle) == nullptr)
    {
        LOG(1, "Ftp Handle is Null, creating.");
        SharedStore(m_hFtpHandle, TRAVEX_FTP_CreateHandle());
        if (SharedLoad(m_hFtpHandle) == nullptr)
        {
            LOG(0, "TRAVEX_FTP_CreateHandle Failed!");
            return 1;
        }
    }
    else
    {
        LOG(1, "Already Init FTPS!");
    }
    // Both failures give the same record.
    unsigned int ulRet = SetFtpCtrlParam(std::move(strLocalDir));
    if (ulRet == 0)
    {
        ulRet = SetFtpDataParam();
    }
    if (ulRet != 0)
    {
        LOG(0, "SetFtpDataParam failed, iRet = %d", static_cast<int>(ulRet));
        return ulRet;
    }
    // The library stores the task id before the task's first notification, which looks for it in
    // the member: it must be the member's address that it is given.
    SharedStore(ulTaskID, 0);
    ulRet = TRAVEX_FTP_AsynDownloadFile(SharedLoad(m_hFtpHandle), &ulTaskID, strServerFile.c_str(),
                                        ".", strLocalFileName.c_str(), DownloadCallback);
    LOG(2, "Download file : %s, TaskID : %u", strLocalFileName.c_str(), SharedLoad(ulTaskID));
    if (ulRet != 0)
    {
        LOG(0, "TRAVEX_FTP_AsynDownloadFile Failed! ulRet = %d", static_cast<int>(ulRet));
        return ulRet;
    }
    return 0;
}

void CFTPCorpDirImpl::DownloadCallback(void* pUserData, tagTRAVEX_FTP_S_NOTIFY_DATA* pstNotify)
try
{
    const CCallbackEntry entry;
    if (g_bStopping.load())
    {
        return;
    }
    if (pstNotify == nullptr)
    {
        LOG(0, "DownloadCallback Param is NULL, %p, %p", pUserData, static_cast<void*>(pstNotify));
        return;
    }
    CFTPCorpDirImpl* const pService = GetInstance();
    if (pService == nullptr)
    {
        LOG(0, "FtpCorpDirImpl is NULL");
        return;
    }
    const CFieldCopy fileName(pstNotify->DownFileName);
    const auto LogDetail = [&]
    {
        LOG_AS("DownloadCallback", 2,
               "DownloadCallback : ulTaskID = %ul, ulType = %ul, VersionTaskID = %u, "
               "CorpDirTaskID = %u, DownFileName : %s",
               pstNotify->ulTaskID, pstNotify->ulType, SharedLoad(pService->m_ulVersionTaskID),
               SharedLoad(pService->m_ulCorpDirTaskID), fileName.Text());
    };
    if (pstNotify->ulType == TRAVEX_FTP_NOTIFY_SUCCESS)
    {
        LOG(2, "Download SUCCESS!");
        LogDetail();
    }
    else if (pstNotify->ulType == TRAVEX_FTP_NOTIFY_FAILED)
    {
        LogDetail();
        pService->VersionCorpDownloadErr(pstNotify);
    }
    else if (pstNotify->ulType == TRAVEX_FTP_NOTIFY_OVER)
    {
        LOG(2, "Download is OVER!");
        LogDetail();
        if (pstNotify->ulTaskID == SharedLoad(pService->m_ulVersionTaskID))
        {
            pService->VersionDownloadOver();
        }
        else if (pstNotify->ulTaskID == SharedLoad(pService->m_ulCorpDirTaskID))
        {
            pService->CorpDirDownloadOver();
        }
    }
}
catch (const std::bad_alloc&)
{
    // No memory: the notification is dropped.
}

// --- Version check ---
//
// The version is the first line of a small file. Any difference from the last accepted version
// counts as new. A valid version, new or not, also refills the list of untried servers.

namespace
{

constexpr unsigned int VERSION_TIMER_MS = 600000;  // ten minutes
constexpr unsigned int MIN_VERSION_LENGTH = 5;

// The first line of the file, at most 30 bytes of it. False when the file does not open.
bool ReadVersion(const std::string& strFile, char (&acVersion)[32])
{
    std::ifstream file(strFile);
    if (!file.is_open())
    {
        return false;
    }
    (void)file.getline(acVersion, 31);
    return true;
}

// Starts or restarts the timer. False: it did not start and was freed.
bool StartTimer(OSAK_TIMER& pTimer, void* pParam)
{
    const unsigned int ulRet = OSAK_StartRelTimer(SharedLoad(pTimer), VERSION_TIMER_MS, pParam);
    if (ulRet != 0)
    {
        LOG_AS("StartTimerForVersion", 0, "StartRelTimer UploadTimer Fail: %x", ulRet);
        (void)OSAK_FreeRelTimer(SharedLoad(pTimer));
        SharedStore(pTimer, nullptr);
        return false;
    }
    return true;
}

// Stores the version and queues the directory file. When memory runs out for the task, the old
// version is restored, so that the next check finds the new one again.
void AcceptVersion(std::string& strOldVersion, std::string strVersion,
                   CThreadProList& listThreadPro)
{
    SharedSwap(strOldVersion, strVersion);
    LOG_AS("VersionDownloadOver", 2, "Thread add corpdir download. ");
    try
    {
        listThreadPro.push_back(CORPDIR_E_THREADPRO_CORPDIR);
    }
    catch (const std::bad_alloc&)
    {
        SharedSwap(strOldVersion, strVersion);
    }
}

}  // namespace

unsigned int CFTPCorpDirImpl::VersionDownload()
{
    TRACE();
    return StartDownload(__func__, m_strVersionServerPath, m_strVersionLocalPath,
                         m_strVersionFileName, m_ulVersionTaskID);
}

unsigned int CFTPCorpDirImpl::StartTimerForVersion()
{
    void* const pCallback = reinterpret_cast<void*>(DownloadVersionTimerPro);
    if (SharedLoad(m_pDownVersionTimer) != nullptr)
    {
        LOG(2, "StartRelTimer UploadTimer = %p, timerproc : %p",
            static_cast<void*>(SharedLoad(m_pDownVersionTimer)), pCallback);
        return StartTimer(m_pDownVersionTimer, this) ? 0 : 1;
    }
    SharedStore(m_pDownVersionTimer,
                OSAK_CreateRelTimerM(DownloadVersionTimerPro, 0, __LINE__, __FILE__));
    if (SharedLoad(m_pDownVersionTimer) == nullptr)
    {
        // The request succeeds without periodic checks.
        LOG(0, "CreateRelTimer uploadtimer Fail!");
        return 0;
    }
    LOG(2,
        "CreateRelTimer uploadtimer success, uploadtimer = %p,                       timerproc : "
        "%p",
        static_cast<void*>(SharedLoad(m_pDownVersionTimer)), pCallback);
    if (!StartTimer(m_pDownVersionTimer, this))
    {
        return 1;
    }
    LOG(2, "StartRelTimer UploadTimer success");
    return 0;
}

void CFTPCorpDirImpl::DownloadVersionTimerPro(void* /*pParam*/)
try
{
    CFTPCorpDirImpl* const pService = GetInstance();
    if (pService == nullptr)
    {
        LOG(0, "FtpCorpDirImpl is NULL");
        return;
    }
    LOG(2, "Thread Add versiondown. ");
    pService->m_listThreadPro.push_back(CORPDIR_E_THREADPRO_VERSION);
}
catch (const std::bad_alloc&)
{
    // No memory: this check is dropped; the next expiry queues another.
}

void CFTPCorpDirImpl::VersionDownloadOver()
{
    TRACE();
    const std::string strPath = WithSlash(SharedText(m_strVersionLocalPath));
    const std::string strName = SharedText(m_strVersionFileName);
    const std::string strFile = strPath + strName;
    LOG(2, "Version Path : %s", strPath.c_str());
    LOG(2, "Version Name : %s", strName.c_str());
    LOG(2, "Version File : %s", strFile.c_str());
    char acVersion[32] = {};
    if (!ReadVersion(strFile, acVersion))
    {
        LOG(0, "Open Version file Failed : %s!", strFile.c_str());
        return;
    }
    if (OSAK_StrLen(acVersion) < MIN_VERSION_LENGTH)
    {
        LOG(0, "version is Invalid!");
        return;
    }
    LOG(2, "Version Prepared Update! Version : [%s]", acVersion);
    const std::string strOldVersion = SharedText(m_strOldVersion);
    if (OSAK_StrCmp(strOldVersion.c_str(), acVersion) != 0)
    {
        LOG(2, "OldVersion : %s, NewVersion : %s ", strOldVersion.c_str(), acVersion);
        AcceptVersion(m_strOldVersion, acVersion, m_listThreadPro);
    }
    if (!SharedEmpty(m_strAllIPs))
    {
        SharedAssign(m_strIPs, m_strAllIPs);
        LOG(2, "FTP After rotating, IPs copy ftps = %s", SharedTextPointer(m_strAllIPs));
    }
}

// --- Directory download ---

namespace
{

// The path is only for the log: when memory runs out here, the client is still called.
void LogDirectoryFile(const std::string& strLocalPath, const std::string& strFileName)
try
{
    constexpr char OVER[] = "CorpDirDownloadOver";
    const std::string strPath = WithSlash(SharedText(strLocalPath));
    LOG_AS(OVER, 2, "CorpDir Path : %s", strPath.c_str());
    LOG_AS(OVER, 2, "CorpDir Name : %s", SharedTextPointer(strFileName));
    LOG_AS(OVER, 2, "CorpDir File : %s", (strPath + strFileName).c_str());
}
catch (const std::bad_alloc&)
{
}

// Reports a result to the client: 0 the directory file has arrived, 1 a transfer failed.
void TellClient(const char* pszFunction, CORPDIR_DOWNLOAD_CB pfnDownloadCb, unsigned int ulResult)
{
    if (pfnDownloadCb != nullptr)
    {
        pfnDownloadCb(1, ulResult, nullptr, nullptr);
    }
    else
    {
        LOG_AS(pszFunction, 0, "corpdir_downloadCb is NULL");
    }
}

}  // namespace

unsigned int CFTPCorpDirImpl::CorpDirDownload()
{
    TRACE();
    return StartDownload(__func__, m_strCorpDirServerPath, m_strCorpDirLocalPath,
                         m_strCorpDirFileName, m_ulCorpDirTaskID);
}

void CFTPCorpDirImpl::CorpDirDownloadOver()
{
    TRACE();
    LogDirectoryFile(m_strCorpDirLocalPath, m_strCorpDirFileName);
    TellClient(__func__, SharedLoad(m_pfnDownloadCb), 0);
}

// --- Failure and rotation ---
//
// With the list A;B;C, and A current:
//
//     version file fails on A     B current, C left            tried again at once
//     version file fails on B     C current, none left         tried again at once
//     version file fails on C     A current, B;C left          the pass ends
//     directory file fails        nothing changes              unless none is left: the pass ends
//
// The timer starts the next pass. Every failure is reported to the client first.

namespace
{

constexpr char DOWNLOAD_ERR[] = "VersionCorpDownloadErr";

void LogFailure(const tagTRAVEX_FTP_S_NOTIFY_DATA& stNotify)
{
    if (stNotify.pstErrInfo != nullptr)
    {
        LOG_AS(DOWNLOAD_ERR, 0, "Download Error, ret = %x, taskid = %u", stNotify.pstErrInfo->ulRet,
               stNotify.ulTaskID);
    }
    else
    {
        LOG_AS(DOWNLOAD_ERR, 0, "Download Error, taskid = %u", stNotify.ulTaskID);
    }
}

// Ends the pass. The timer starts the next one, which begins with the first server.
void Refill(const std::string& strAllIPs, std::string& strIPs, std::string& strFtpIP)
{
    SharedAssign(strIPs, strAllIPs);
    LOG_AS(DOWNLOAD_ERR, 2, "FTP After rotating IP : %s, IPs : %s", SharedTextPointer(strFtpIP),
           SharedTextPointer(strIPs));
    StartPass(strIPs, strFtpIP);
    LOG_AS(DOWNLOAD_ERR, 2, "FTP After find IP : %s, IPs : %s", SharedTextPointer(strFtpIP),
           SharedTextPointer(strIPs));
}

}  // namespace

void CFTPCorpDirImpl::VersionCorpDownloadErr(tagTRAVEX_FTP_S_NOTIFY_DATA* pstNotify)
{
    if (pstNotify == nullptr)
    {
        LOG(0, "VersionCorpDownloadErr Param is NULL");
        return;
    }
    LogFailure(*pstNotify);
    if (pstNotify->ulTaskID == SharedLoad(m_ulVersionTaskID))
    {
        SharedStore(m_ulVersionTaskID, 0);
    }
    else if (pstNotify->ulTaskID == SharedLoad(m_ulCorpDirTaskID))
    {
        SharedStore(m_ulCorpDirTaskID, 0);
    }
    TellClient(__func__, SharedLoad(m_pfnDownloadCb), 1);
    if (SharedEmpty(m_strIPs))
    {
        Refill(m_strAllIPs, m_strIPs, m_strFtpIP);
        return;
    }
    // Without a separator the position is printed as 4294967295.
    LOG(2, "FTP IP pos = %u, IPs = %s", static_cast<unsigned int>(SharedFindSeparator(m_strIPs)),
        SharedTextPointer(m_strIPs));
    const CFieldCopy failedFile(pstNotify->DownFileName);
    if (OSAK_StrCmp(SharedTextPointer(m_strVersionServerPath), failedFile.Text()) != 0)
    {
        return;  // only the version file is tried again
    }
    SharedTakeFirstIP(m_strIPs, m_strFtpIP);
    LOG(2, "FTP During rotating IP : %s, IPs = %s", SharedTextPointer(m_strFtpIP),
        SharedTextPointer(m_strIPs));
    LOG(2, "Thread add version download");
    m_listThreadPro.push_back(CORPDIR_E_THREADPRO_VERSION);
}
