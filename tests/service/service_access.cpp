// The unit under test is part of this file, so that its file-static globals can be named here.
#include "ftpcorpdirimpl.cpp"

#include "fakes.h"
#include "service_access.h"

// Initialised after the unit's own globals, before any use of the service.
static const tagCORPDIR_CIPHER_LIST g_stAtLoad = g_stFtpCiperList;
static const unsigned int g_ulWipesAtLoad = fakes::Calls("zep_memset_s");
static const OSAK_THREAD g_stThreadAtLoad = g_stThread;
static const unsigned int g_bThreadRuningAtLoad = g_bThreadRuning;

namespace
{

// An explicit instantiation may name private members; the friend that it defines hands them out.
template <auto pMember, class Tag>
struct Expose
{
    friend auto MemberOf(Tag)
    {
        return pMember;
    }
};

#define EXPOSE(name)                      \
    struct Tag_##name                     \
    {                                     \
        friend auto MemberOf(Tag_##name); \
    };                                    \
    template struct Expose<&CFTPCorpDirImpl::name, Tag_##name>

EXPOSE(m_strFtpCtrlInfo);
EXPOSE(m_strUserName);
EXPOSE(m_pucPassword);
EXPOSE(m_aucKey);
EXPOSE(m_aucIV);
EXPOSE(m_strFtpIP);
EXPOSE(m_strIPs);
EXPOSE(m_strAllIPs);
EXPOSE(m_ulPort);
EXPOSE(m_ulFtpMode);
EXPOSE(m_strLocalIP);
EXPOSE(m_ulCertVerify);
EXPOSE(m_strOldVersion);
EXPOSE(m_strVersionServerPath);
EXPOSE(m_strCorpDirServerPath);
EXPOSE(m_strVersionLocalPath);
EXPOSE(m_strVersionFileName);
EXPOSE(m_strCorpDirLocalPath);
EXPOSE(m_strCorpDirFileName);
EXPOSE(m_pDownVersionTimer);
EXPOSE(m_hFtpHandle);
EXPOSE(m_pfnDownloadCb);
EXPOSE(m_ulVersionTaskID);
EXPOSE(m_ulCorpDirTaskID);
EXPOSE(m_listThreadPro);
EXPOSE(m_hMutex);
EXPOSE(SetFtpInfo);
EXPOSE(VersionDownload);
EXPOSE(StartTimerForVersion);
EXPOSE(SetFtpCtrlParam);
EXPOSE(SetFtpDataParam);
EXPOSE(AsynFtpDownload);
EXPOSE(CorpDirDownload);
EXPOSE(VersionDownloadOver);
EXPOSE(CorpDirDownloadOver);
EXPOSE(VersionCorpDownloadErr);
EXPOSE(DownloadVersionTimerPro);
EXPOSE(VerifyCallback);
EXPOSE(DownloadCallback);

}  // namespace

namespace inside
{

#define MEMBER(name) name(service.*MemberOf(Tag_##name{}))

Members::Members(CFTPCorpDirImpl& service)
    : MEMBER(m_strFtpCtrlInfo),
      MEMBER(m_strUserName),
      MEMBER(m_pucPassword),
      MEMBER(m_aucKey),
      MEMBER(m_aucIV),
      MEMBER(m_strFtpIP),
      MEMBER(m_strIPs),
      MEMBER(m_strAllIPs),
      MEMBER(m_ulPort),
      MEMBER(m_ulFtpMode),
      MEMBER(m_strLocalIP),
      MEMBER(m_ulCertVerify),
      MEMBER(m_strOldVersion),
      MEMBER(m_strVersionServerPath),
      MEMBER(m_strCorpDirServerPath),
      MEMBER(m_strVersionLocalPath),
      MEMBER(m_strVersionFileName),
      MEMBER(m_strCorpDirLocalPath),
      MEMBER(m_strCorpDirFileName),
      MEMBER(m_pDownVersionTimer),
      MEMBER(m_hFtpHandle),
      MEMBER(m_pfnDownloadCb),
      MEMBER(m_ulVersionTaskID),
      MEMBER(m_ulCorpDirTaskID),
      MEMBER(m_listThreadPro),
      MEMBER(m_hMutex)
{
}

unsigned int SetFtpInfo(CFTPCorpDirImpl& service, tag_CORPDIR_DOWNLOADINFO* pstInfo)
{
    return (service.*MemberOf(Tag_SetFtpInfo{}))(pstInfo);
}

unsigned int VersionDownload(CFTPCorpDirImpl& service)
{
    return (service.*MemberOf(Tag_VersionDownload{}))();
}

unsigned int StartTimerForVersion(CFTPCorpDirImpl& service)
{
    return (service.*MemberOf(Tag_StartTimerForVersion{}))();
}

unsigned int SetFtpCtrlParam(CFTPCorpDirImpl& service, const std::string& strLocalDir)
{
    return (service.*MemberOf(Tag_SetFtpCtrlParam{}))(strLocalDir);
}

unsigned int SetFtpDataParam(CFTPCorpDirImpl& service)
{
    return (service.*MemberOf(Tag_SetFtpDataParam{}))();
}

unsigned int AsynFtpDownload(CFTPCorpDirImpl& service, const std::string& strServerFile,
                             const std::string& strLocalDir, const std::string& strLocalFileName,
                             unsigned int& ulTaskID)
{
    return (service.*MemberOf(Tag_AsynFtpDownload{}))(strServerFile, strLocalDir, strLocalFileName,
                                                      ulTaskID);
}

unsigned int CorpDirDownload(CFTPCorpDirImpl& service)
{
    return (service.*MemberOf(Tag_CorpDirDownload{}))();
}

void VersionDownloadOver(CFTPCorpDirImpl& service)
{
    (service.*MemberOf(Tag_VersionDownloadOver{}))();
}

void CorpDirDownloadOver(CFTPCorpDirImpl& service)
{
    (service.*MemberOf(Tag_CorpDirDownloadOver{}))();
}

void VersionCorpDownloadErr(CFTPCorpDirImpl& service, tagTRAVEX_FTP_S_NOTIFY_DATA* pstNotify)
{
    (service.*MemberOf(Tag_VersionCorpDownloadErr{}))(pstNotify);
}

OSAK_TIMER_PROC TimerCallback()
{
    return MemberOf(Tag_DownloadVersionTimerPro{});
}

TRAVEX_FTP_VERIFY_CB VerifyCallback()
{
    return MemberOf(Tag_VerifyCallback{});
}

TRAVEX_FTP_NOTIFY_CB NotifyCallback()
{
    return MemberOf(Tag_DownloadCallback{});
}

CFTPCorpDirImpl& TheService()
{
    return g_CorpDirInstance;
}

OSAK_THREAD& WorkerThread()
{
    return g_stThread;
}

unsigned int& WorkerRunFlag()
{
    return g_bThreadRuning;
}

const tagCORPDIR_CIPHER_LIST& CipherListAtLoad()
{
    return g_stAtLoad;
}

unsigned int WipesAtLoad()
{
    return g_ulWipesAtLoad;
}

OSAK_THREAD WorkerThreadAtLoad()
{
    return g_stThreadAtLoad;
}

unsigned int WorkerRunFlagAtLoad()
{
    return g_bThreadRuningAtLoad;
}

const int* DefaultCipherList()
{
    return g_aiDefaultFtpChiperList;
}

int DefaultCipherListSize()
{
    return g_iDefaultFtpChiperListSize;
}

}  // namespace inside
