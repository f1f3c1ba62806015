// The directory service: the one object, its worker's task list, and its free functions.
#ifndef FTPCORPDIRIMPL_H
#define FTPCORPDIRIMPL_H

#include <atomic>
#include <list>
#include <mutex>
#include <string>

#include "corpdir_log.h"
#include "ftpcorpdir.h"
#include "osak.h"
#include "travex_ftp.h"
#include "zep.h"

// What the worker thread can be asked to do. Other values are consumed and ignored.
enum tagCORPDIR_E_THREADPRO_TYPE : unsigned int
{
    CORPDIR_E_THREADPRO_VERSION = 1,  // start the version file's download
    CORPDIR_E_THREADPRO_CORPDIR = 2   // start the directory file's download
};

// The TLS cipher suites that FTPS may offer, one list of the process. Not locked: see ftpcorpdir.h.
// Never set: count 0. Released by a stop: the count is kept, the storage is gone.
struct tagCORPDIR_CIPHER_LIST
{
    unsigned int ulCipherNum;
    int* piCipherList;  // from OSAK_MemMallocS, owned by the list
};

extern tagCORPDIR_CIPHER_LIST g_stFtpCiperList;

// The worker's tasks, first in, first out. Thread-safe: each operation holds the list's own mutex.
class CThreadProList
{
public:
    using value_type = tagCORPDIR_E_THREADPRO_TYPE;

    void push_back(value_type eType);  // throws std::bad_alloc, the list is unchanged then
    bool empty() const;
    size_t size() const;
    value_type front() const;            // a copy; 0 when empty
    bool take_front(value_type& eType);  // tests, reads and removes in one step; false when empty
    void clear();

private:
    mutable std::mutex m_Mutex;
    std::list<value_type> m_listTask;
};

// The service object. Not thread-safe in general: the client's thread, the worker, the timer thread
// and the notification thread share the members without a lock; ftpcorpdirimpl.cpp, "Shared
// members", says how. The client keeps the rules of ftpcorpdir.h.
class CFTPCorpDirImpl : public IFtpCorpDir
{
public:
    static CFTPCorpDirImpl* GetInstance();
    static unsigned int ThreadProcess();  // the worker thread's entry

    CFTPCorpDirImpl();

    // The client's operations, in the order of the interface.
    unsigned int CorpDirInit(tag_CORPDIR_LOGINFO* pstLogInfo) override;
    void CorpDirUninit() override;
    unsigned int CorpDirDownloadNetaddr(tag_CORPDIR_DOWNLOADINFO* pstDownloadInfo,
                                        CORPDIR_DOWNLOAD_CB pfnDownloadCb) override;
    unsigned int CorpDirSetFtpCipherListToDirImpl(const int* piCipherList,
                                                  unsigned int ulCipherNum) override;
    unsigned int CorpDirAddFtpCipherListToDirImplByOne(int iCipher) override;
    unsigned int CorpDirAddFtpCipherListToDirImpl(const int* piCipherList,
                                                  unsigned int ulCipherNum) override;

    // Releases what a stop would have released, for a process that ends without one.
    virtual ~CFTPCorpDirImpl();

    virtual void freeFtpCipherList();

private:
    // Forgets the request, the sealed password and its key first. Keeps the numbers, szFtpCtrlInfo
    // and the callback.
    void ClearRequest() noexcept;

    // On the client's thread. Results are 0 or 1. A record gives the reason for a 1, except when
    // memory ran out.

    // Copies the request into the members, the password sealed.
    unsigned int SetFtpInfo(tag_CORPDIR_DOWNLOADINFO* pstDownloadInfo);
    // Starts the timer of the version checks, or restarts it with its full length. 0 also when no
    // timer could be created: the request then has no periodic checks.
    unsigned int StartTimerForVersion();

    // On the thread that starts a download: the client's for a request's first, else the worker.
    // Results are 0, 1, or the code of the layer below. A record gives the reason for a failure,
    // except when memory ran out.

    // Starts the transfer of one of the two files.
    unsigned int VersionDownload();
    unsigned int CorpDirDownload();
    // The part that both share. The texts and the task id are members; the function's name is for
    // the records.
    unsigned int StartDownload(const char* pszFunction, const std::string& strServerPath,
                               const std::string& strLocalPath, const std::string& strFileName,
                               unsigned int& ulTaskID);
    // Starts a transfer: parameters, then the download. ulTaskID is the member that is to hold the
    // task's id; it is 0 until the library has accepted the transfer.
    unsigned int AsynFtpDownload(std::string strServerFile, std::string strLocalDir,
                                 std::string strLocalFileName, unsigned int& ulTaskID);
    // Hand the parameters of the next transfer to the library.
    unsigned int SetFtpCtrlParam(std::string strLocalDir);
    unsigned int SetFtpDataParam();

    // On the timer thread: queues a version check.
    static void DownloadVersionTimerPro(void* pParam);

    // On the FTP library's transfer thread: accepts every certificate that the library accepted.
    static int VerifyCallback(void* pServer, void* pSubject);

    // On the FTP library's notification thread.

    // Sends each notification to the function below that it is for.
    static void DownloadCallback(void* pUserData, tagTRAVEX_FTP_S_NOTIFY_DATA* pstNotify);
    // Reads the version file and queues the directory file when the version changed.
    void VersionDownloadOver();
    // Reports to the client that the directory file has arrived.
    void CorpDirDownloadOver();
    // Reports a failure to the client, and moves on to the next server when the version file
    // failed.
    void VersionCorpDownloadErr(tagTRAVEX_FTP_S_NOTIFY_DATA* pstNotify);

    // The request.
    std::string m_strFtpCtrlInfo;
    std::string m_strUserName;
    unsigned char* m_pucPassword;  // sealed, 256 bytes of malloc, or null
    unsigned char m_aucKey[32];    // what it is sealed with
    unsigned char m_aucIV[16];
    std::string m_strFtpIP;   // the current server
    std::string m_strIPs;     // the servers not yet tried in this pass
    std::string m_strAllIPs;  // all servers of the request
    unsigned int m_ulPort;
    unsigned int m_ulFtpMode;
    std::string m_strLocalIP;
    unsigned int m_ulCertVerify;
    std::string m_strOldVersion;  // the version accepted last
    std::string m_strVersionServerPath;
    std::string m_strCorpDirServerPath;
    std::string m_strVersionLocalPath;
    std::string m_strVersionFileName;
    std::string m_strCorpDirLocalPath;
    std::string m_strCorpDirFileName;

    // Its timer, handle, callback, tasks and lock.
    OSAK_TIMER m_pDownVersionTimer;
    TRAVEX_FTP_HANDLE m_hFtpHandle;
    CORPDIR_DOWNLOAD_CB m_pfnDownloadCb;
    unsigned int m_ulVersionTaskID;  // task of the version file's download, 0: none
    unsigned int m_ulCorpDirTaskID;  // task of the directory file's download, 0: none
    CThreadProList m_listThreadPro;
    OSAK_MUTEX* m_hMutex;  // held by the worker while it takes a task
};

// --- Sealing of the password ---
// These functions keep no state and are safe on any thread. Results are 0 or a non-zero code.

// Draws a fresh key and IV into pucKey and pucIV, and seals ulPlainLen bytes with them. *pulOutLen
// is the capacity of pucOut on entry and the sealed length on return, 0 when no key could be drawn
// or the capacity is too small.
unsigned int CommonEncrypt(unsigned char* pucPlain, unsigned int ulPlainLen, unsigned char* pucKey,
                           unsigned int ulKeyLen, unsigned char* pucIV, unsigned int ulIVLen,
                           unsigned char* pucOut, unsigned int* pulOutLen);

// Unseals a 256-byte block that is zero behind the sealed bytes; their length is found from the
// block, ulSealedLen is not used. *pulOutLen: capacity of pucOut on entry, plain length on return.
unsigned int CommonDecrypt(unsigned char* pucSealed, unsigned int ulSealedLen,
                           unsigned char* pucKey, unsigned int ulKeyLen, unsigned char* pucIV,
                           unsigned int ulIVLen, unsigned char* pucOut, unsigned int* pulOutLen);

// Length of the sealed bytes in a zero-padded 256-byte block: up to the end of the last 16 bytes
// that are not all zero.
unsigned int CommonPasswordLength(unsigned char* pucSealed);

// --- Addresses ---

// 1 when the text is to be resolved as a host name, 0 when it is a literal address.
int CommonIsHostName(const char* pcAddr);

#endif
