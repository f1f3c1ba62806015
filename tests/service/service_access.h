// The private side of the service, for tests. The product has no hooks: the unit itself is compiled
// into service_access.cpp, and its private members are reached through explicit instantiation.
#ifndef TESTS_SERVICE_SERVICE_ACCESS_H
#define TESTS_SERVICE_SERVICE_ACCESS_H

#include "ftpcorpdirimpl.h"

namespace inside
{

// The members of one service object, under their own names.
struct Members
{
    explicit Members(CFTPCorpDirImpl& service);

    std::string& m_strFtpCtrlInfo;
    std::string& m_strUserName;
    unsigned char*& m_pucPassword;
    unsigned char (&m_aucKey)[32];
    unsigned char (&m_aucIV)[16];
    std::string& m_strFtpIP;
    std::string& m_strIPs;
    std::string& m_strAllIPs;
    unsigned int& m_ulPort;
    unsigned int& m_ulFtpMode;
    std::string& m_strLocalIP;
    unsigned int& m_ulCertVerify;
    std::string& m_strOldVersion;
    std::string& m_strVersionServerPath;
    std::string& m_strCorpDirServerPath;
    std::string& m_strVersionLocalPath;
    std::string& m_strVersionFileName;
    std::string& m_strCorpDirLocalPath;
    std::string& m_strCorpDirFileName;
    OSAK_TIMER& m_pDownVersionTimer;
    TRAVEX_FTP_HANDLE& m_hFtpHandle;
    CORPDIR_DOWNLOAD_CB& m_pfnDownloadCb;
    unsigned int& m_ulVersionTaskID;
    unsigned int& m_ulCorpDirTaskID;
    CThreadProList& m_listThreadPro;
    OSAK_MUTEX*& m_hMutex;
};

unsigned int SetFtpInfo(CFTPCorpDirImpl& service, tag_CORPDIR_DOWNLOADINFO* pstInfo);
unsigned int VersionDownload(CFTPCorpDirImpl& service);
unsigned int StartTimerForVersion(CFTPCorpDirImpl& service);
unsigned int SetFtpCtrlParam(CFTPCorpDirImpl& service, const std::string& strLocalDir);
unsigned int SetFtpDataParam(CFTPCorpDirImpl& service);
unsigned int AsynFtpDownload(CFTPCorpDirImpl& service, const std::string& strServerFile,
                             const std::string& strLocalDir, const std::string& strLocalFileName,
                             unsigned int& ulTaskID);
unsigned int CorpDirDownload(CFTPCorpDirImpl& service);
void VersionDownloadOver(CFTPCorpDirImpl& service);
void CorpDirDownloadOver(CFTPCorpDirImpl& service);
void VersionCorpDownloadErr(CFTPCorpDirImpl& service, tagTRAVEX_FTP_S_NOTIFY_DATA* pstNotify);

// Static members that the layers are given as callbacks.
OSAK_TIMER_PROC TimerCallback();
TRAVEX_FTP_VERIFY_CB VerifyCallback();
TRAVEX_FTP_NOTIFY_CB NotifyCallback();

// The unit's file-static globals.
CFTPCorpDirImpl& TheService();
OSAK_THREAD& WorkerThread();                       // g_stThread
unsigned int& WorkerRunFlag();                     // g_bThreadRuning
const tagCORPDIR_CIPHER_LIST& CipherListAtLoad();  // g_stFtpCiperList at the program's start
unsigned int WipesAtLoad();        // calls of zep_memset_s up to the program's start
OSAK_THREAD WorkerThreadAtLoad();  // g_stThread at the program's start
unsigned int WorkerRunFlagAtLoad();
const int* DefaultCipherList();  // g_aiDefaultFtpChiperList
int DefaultCipherListSize();     // g_iDefaultFtpChiperListSize

}  // namespace inside

#endif
