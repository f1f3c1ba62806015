// A request: the copied fields, their order, and the members after each failure.
#include <algorithm>
#include <cstring>

#include "service_test.h"

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

namespace
{

void OtherCallback(unsigned int, unsigned int, const char*, void*) {}

class RequestTest : public ServiceTest
{
protected:
    unsigned int Make(tag_CORPDIR_DOWNLOADINFO stInfo)
    {
        return client.CorpDirDownloadNetaddr(&stInfo, ClientCallback);
    }

    unsigned int Take(tag_CORPDIR_DOWNLOADINFO stInfo)
    {
        return inside::SetFtpInfo(service, &stInfo);
    }

    std::string SealedBlock() const
    {
        return std::string(reinterpret_cast<char*>(members.m_pucPassword), 256);
    }

    std::string Key() const
    {
        return std::string(reinterpret_cast<char*>(members.m_aucKey), 32);
    }

    std::string IV() const
    {
        return std::string(reinterpret_cast<char*>(members.m_aucIV), 16);
    }

    Lines Sealed() const
    {
        return {SealedBlock(), Key(), IV()};
    }

    // A request after a first one is refused: the first one's servers and callback are kept.
    void ExpectRefused(tag_CORPDIR_DOWNLOADINFO stInfo, const Lines& vecErrors)
    {
        stInfo.pszFtpIPs = "x;y";
        EXPECT_EQ(client.CorpDirDownloadNetaddr(&stInfo, OtherCallback), 1U);
        EXPECT_EQ(members.m_strFtpIP, "192.0.2.1");
        EXPECT_EQ(members.m_strIPs, "192.0.2.1");
        EXPECT_EQ(members.m_strAllIPs, "192.0.2.1");
        EXPECT_EQ(members.m_pfnDownloadCb, ClientCallback);
        EXPECT_EQ(fakes::Calls("TRAVEX_FTP_AsynDownloadFile"), 1U) << "the first request's";
        EXPECT_EQ(Logged(), Joined({{"2 SetFtpInfo: before setftpinfo, username : " +
                                     std::string(stInfo.szUserName) + ", FTPIPs : x;y "},
                                    vecErrors}));
    }
};

struct ServerList
{
    const char* pszGiven;
    const char* pszCurrent;
    const char* pszWorking;
};

}  // namespace

TEST_F(RequestTest, StartsTheVersionDownloadAndTheTimer)
{
    Start();
    fakes::OnCall("TRAVEX_FTP_AsynDownloadFile", 1,
                  [&] { EXPECT_EQ(members.m_pfnDownloadCb, ClientCallback); });
    EXPECT_EQ(Make(ARequest()), 0U);
    const fakes::Download download = fakes::LastDownload();
    EXPECT_EQ(download.strServerFile, "pub/version.txt");
    EXPECT_EQ(download.strLocalFile, "version.local");
    EXPECT_EQ(members.m_ulVersionTaskID, download.ulTaskID);
    EXPECT_EQ(fakes::LiveTimer().ulLengthMs, 600000U);
    EXPECT_THAT(Only(Trace(), {"client"}), IsEmpty());
}

TEST_F(RequestTest, CopiesEveryFieldIntoItsMember)
{
    tag_CORPDIR_DOWNLOADINFO stInfo = ARequest("one;two");
    stInfo.pszLocalIP = "192.0.2.99";
    stInfo.ulPort = 2121;
    stInfo.ulFtpMode = 7;
    stInfo.ulCertVerify = 1;
    members.m_strOldVersion = "1.2.3";
    EXPECT_EQ(Take(stInfo), 0U);
    EXPECT_EQ(members.m_strFtpCtrlInfo, "ca=/etc/ca.pem");
    EXPECT_EQ(members.m_strUserName, "alice");
    EXPECT_EQ(members.m_strVersionServerPath, "pub/version.txt");
    EXPECT_EQ(members.m_strCorpDirServerPath, "pub/directory.xml");
    EXPECT_EQ(members.m_strVersionLocalPath, "/nowhere/v");
    EXPECT_EQ(members.m_strVersionFileName, "version.local");
    EXPECT_EQ(members.m_strCorpDirLocalPath, "/nowhere/d");
    EXPECT_EQ(members.m_strCorpDirFileName, "directory.local");
    EXPECT_EQ(members.m_strFtpIP, "one");
    EXPECT_EQ(members.m_strIPs, "two");
    EXPECT_EQ(members.m_strAllIPs, "one;two");
    EXPECT_EQ(members.m_strLocalIP, "192.0.2.99");
    EXPECT_EQ(members.m_ulPort, 2121U);
    EXPECT_EQ(members.m_ulFtpMode, 7U);
    EXPECT_EQ(members.m_ulCertVerify, 1U);
    EXPECT_EQ(members.m_strOldVersion, "") << "a request forces a fresh comparison";
    EXPECT_THAT(
        Logged(),
        ElementsAre("2 SetFtpInfo: before setftpinfo, username : alice, FTPIPs : one;two ",
                    "2 SetFtpInfo: after setftpinfo, username : alice, IPs : two, FtpIP : one , "
                    "LocalIP : 192.0.2.99"));
}

TEST_F(RequestTest, DoesNotKeepTheRecord)
{
    tag_CORPDIR_DOWNLOADINFO stInfo = ARequest();
    std::string strServers = "one;two";
    stInfo.pszFtpIPs = strServers.c_str();
    EXPECT_EQ(inside::SetFtpInfo(service, &stInfo), 0U);
    std::memset(&stInfo, 'x', sizeof(stInfo));
    strServers.assign(strServers.size(), 'x');
    EXPECT_EQ(members.m_strUserName, "alice");
    EXPECT_EQ(members.m_strAllIPs, "one;two");
}

TEST_F(RequestTest, SplitsTheServerListAtTheFirstSeparator)
{
    for (const ServerList& list :
         {ServerList{"a;b;c", "a", "b;c"}, ServerList{"a", "a", "a"}, ServerList{"a;", "a", ""},
          ServerList{";b", "", "b"}, ServerList{";", "", ""}, ServerList{" a ; b ", " a ", " b "},
          ServerList{"a;;c", "a", ";c"}})
    {
        tag_CORPDIR_DOWNLOADINFO stInfo = ARequest(list.pszGiven);
        EXPECT_EQ(Take(stInfo), 0U) << list.pszGiven;
        EXPECT_EQ(members.m_strFtpIP, list.pszCurrent) << list.pszGiven;
        EXPECT_EQ(members.m_strIPs, list.pszWorking) << list.pszGiven;
        EXPECT_EQ(members.m_strAllIPs, list.pszGiven);
    }
}

TEST_F(RequestTest, AnEmptyServerListLeavesTheCurrentServerOfAnEarlierRequest)
{
    tag_CORPDIR_DOWNLOADINFO stInfo = ARequest("earlier;other");
    ASSERT_EQ(Take(stInfo), 0U);
    stInfo.pszFtpIPs = "";
    EXPECT_EQ(Take(stInfo), 0U);
    EXPECT_EQ(members.m_strFtpIP, "earlier");
    EXPECT_EQ(members.m_strIPs, "");
    EXPECT_EQ(members.m_strAllIPs, "");
}

TEST_F(RequestTest, ANullLocalAddressLeavesTheEarlierOneAndAnEmptyOneClearsIt)
{
    tag_CORPDIR_DOWNLOADINFO stInfo = ARequest();
    stInfo.pszLocalIP = "192.0.2.99";
    ASSERT_EQ(Take(stInfo), 0U);
    stInfo.pszLocalIP = nullptr;
    ASSERT_EQ(Take(stInfo), 0U);
    EXPECT_EQ(members.m_strLocalIP, "192.0.2.99");
    stInfo.pszLocalIP = "";
    ASSERT_EQ(Take(stInfo), 0U);
    EXPECT_EQ(members.m_strLocalIP, "");
}

TEST_F(RequestTest, VerifiesCertificatesOnlyForExactlyOne)
{
    for (const unsigned int ulGiven : {0U, 1U, 2U, 0xFFFFFFFFU})
    {
        tag_CORPDIR_DOWNLOADINFO stInfo = ARequest();
        stInfo.ulCertVerify = ulGiven;
        ASSERT_EQ(Take(stInfo), 0U);
        EXPECT_EQ(members.m_ulCertVerify, ulGiven == 1 ? 1U : 0U) << ulGiven;
    }
}

TEST_F(RequestTest, TakesAtMost255BytesOfAFieldWithoutATerminator)
{
    tag_CORPDIR_DOWNLOADINFO stInfo = ARequest();
    for (auto* const pacField : {&stInfo.szFtpCtrlInfo, &stInfo.szUserName, &stInfo.szPassword,
                                 &stInfo.szVersionServerFile, &stInfo.szCorpDirServerFile,
                                 &stInfo.szVersionLocalDir, &stInfo.szVersionLocalFileName,
                                 &stInfo.szCorpDirLocalDir, &stInfo.szCorpDirLocalFileName})
    {
        SetField(*pacField, std::string(256, 'x'));
    }
    EXPECT_EQ(Take(stInfo), 0U);
    const std::string strTaken(255, 'x');
    EXPECT_EQ(members.m_strFtpCtrlInfo, strTaken);
    EXPECT_EQ(members.m_strUserName, strTaken);
    EXPECT_EQ(members.m_strVersionServerPath, strTaken);
    EXPECT_EQ(members.m_strCorpDirServerPath, strTaken);
    EXPECT_EQ(members.m_strVersionLocalPath, strTaken);
    EXPECT_EQ(members.m_strVersionFileName, strTaken);
    EXPECT_EQ(members.m_strCorpDirLocalPath, strTaken);
    EXPECT_EQ(members.m_strCorpDirFileName, strTaken);
    EXPECT_THAT(Only(Trace(), {"ZEP_CPYPT_Encrypt"}),
                ElementsAre("ZEP_CPYPT_Encrypt(0, 32, 16, 255, 256)"));
}

TEST_F(RequestTest, KeepsThePasswordOnlySealedInAZeroPaddedBlock)
{
    EXPECT_EQ(Take(ARequest()), 0U);
    EXPECT_EQ(SealedBlock().find("secret"), std::string::npos);
    EXPECT_EQ(CommonPasswordLength(members.m_pucPassword), 16U);
    EXPECT_EQ(SealedBlock().substr(16), std::string(240, '\0'));
    EXPECT_THAT(members.m_aucKey, Not(Each(0)));
    EXPECT_THAT(members.m_aucIV, Not(Each(0)));
}

TEST_F(RequestTest, MeasuresThePasswordBeforeItDrawsAKey)
{
    EXPECT_EQ(Take(ARequest()), 0U);
    EXPECT_THAT(Only(Trace(), {"OSAK_StrLen", "ZEP_CPYPT_RealRandom"}),
                ElementsAre("OSAK_StrLen(local, 6)", "ZEP_CPYPT_RealRandom(32)",
                            "ZEP_CPYPT_RealRandom(16)"));
}

TEST_F(RequestTest, DrawsAFreshKeyForEveryRequestAndReplacesTheSealedPassword)
{
    ASSERT_EQ(Take(ARequest()), 0U);
    const std::string strFirst = SealedBlock();
    const std::string strFirstKey = Key();
    const std::string strFirstIV = IV();
    Trace();
    std::string strKeyAtFree = strFirstKey;
    std::string strIVAtFree = strFirstIV;
    fakes::OnCall("free", 1,
                  [&]
                  {
                      strKeyAtFree = Key();
                      strIVAtFree = IV();
                  });
    ASSERT_EQ(Take(ARequest()), 0U);
    EXPECT_NE(SealedBlock(), strFirst);
    EXPECT_NE(Key(), strFirstKey);
    EXPECT_NE(IV(), strFirstIV);
    EXPECT_EQ(strKeyAtFree, Key()) << "replaced before the old block is released";
    EXPECT_EQ(strIVAtFree, IV()) << "replaced before the old block is released";
    EXPECT_THAT(Only(Trace(), {"free", "malloc"}), ElementsAre("free(malloced)", "malloc(256)"));
}

// The password as text; then the sealed block with one byte more, the key and the IV.
TEST_F(RequestTest, WipesEveryCopyOfPasswordBlockKeyAndIVWholeOnEveryPath)
{
    for (const char* pszFailing : {"", "ZEP_CPYPT_Encrypt", "malloc"})
    {
        if (*pszFailing != '\0')
        {
            fakes::FailCall(pszFailing, 1, 1);
        }
        fakes::WatchSecret("secret");
        Trace();
        EXPECT_EQ(Take(ARequest()), *pszFailing != '\0' ? 1U : 0U);
        EXPECT_GE(fakes::SecretCopiesSeen(), 1U);
        EXPECT_EQ(fakes::SecretCopiesNotWiped(), 0U) << pszFailing;
        EXPECT_THAT(
            Only(Trace(), {"zep_memset_s(local"}),
            ElementsAre("zep_memset_s(local, 256, 0, 256)", "zep_memset_s(local, 305, 0, 305)"))
            << pszFailing;
    }
}

// --- Failures -----------------------------------------------------------------------------------

TEST_F(RequestTest, RefusesANullRecord)
{
    EXPECT_EQ(client.CorpDirDownloadNetaddr(nullptr, ClientCallback), 1U);
    EXPECT_THAT(Trace(), ElementsAre("enter CorpDirDownloadNetaddr",
                                     "log 0 CorpDirDownloadNetaddr: downloadinfo is null",
                                     "leave CorpDirDownloadNetaddr"));
    EXPECT_EQ(members.m_pfnDownloadCb, nullptr);
}

TEST_F(RequestTest, RefusesARecordWithoutServers)
{
    tag_CORPDIR_DOWNLOADINFO stInfo = ARequest(nullptr);
    EXPECT_EQ(Make(stInfo), 1U);
    EXPECT_THAT(Logged(), ElementsAre("0 SetFtpInfo: Input downloadinfo is null",
                                      "0 CorpDirDownloadNetaddr: SetFtpInfo failed : 1"));
    EXPECT_EQ(members.m_strUserName, "");
    EXPECT_EQ(members.m_pfnDownloadCb, nullptr);
    EXPECT_EQ(inside::SetFtpInfo(service, nullptr), 1U);
    EXPECT_THAT(Logged(), ElementsAre("0 SetFtpInfo: Input downloadinfo is null"));
}

TEST_F(RequestTest, RefusesAnEmptyPasswordAfterUserNameAndTrustTextAreCopied)
{
    StartWithRequest();
    const Lines vecSealed = Sealed();
    tag_CORPDIR_DOWNLOADINFO stInfo = ARequest();
    SetField(stInfo.szFtpCtrlInfo, "system");
    SetField(stInfo.szUserName, "bob");
    SetField(stInfo.szPassword, "");
    SetField(stInfo.szVersionServerFile, "other");
    ExpectRefused(stInfo, {"0 SetFtpInfo: param Length is zero.",
                           "0 CorpDirDownloadNetaddr: SetFtpInfo failed : 1"});
    EXPECT_EQ(members.m_strUserName, "bob");
    EXPECT_EQ(members.m_strFtpCtrlInfo, "system");
    EXPECT_EQ(Sealed(), vecSealed) << "the old password remains";
    EXPECT_EQ(members.m_strVersionServerPath, "pub/version.txt");
}

TEST_F(RequestTest, FailsWithOneWhenThePasswordCannotBeSealed)
{
    StartWithRequest();
    const Lines vecSealed = Sealed();
    fakes::FailCall("ZEP_CPYPT_Encrypt", 1, 77);
    ExpectRefused(ARequest(), {"0 CommonEncrypt: ZEP_CPYPT_Encrypt error : 77",
                               "0 SetFtpInfo: CommonEncrypt failed.",
                               "0 CorpDirDownloadNetaddr: SetFtpInfo failed : 1"});
    EXPECT_EQ(Sealed(), vecSealed);
    for (const unsigned int ulDraw : {1U, 2U})
    {
        fakes::FailCall("ZEP_CPYPT_RealRandom", ulDraw, 5);
        ExpectRefused(ARequest(), {"0 CommonEncrypt: Get RealRandom failed, errno is 5 .",
                                   "0 SetFtpInfo: CommonEncrypt failed.",
                                   "0 CorpDirDownloadNetaddr: SetFtpInfo failed : 1"});
        EXPECT_EQ(Sealed(), vecSealed);
    }
    EXPECT_EQ(fakes::Calls("ZEP_CPYPT_Encrypt"), 2U) << "not without a key";
}

TEST_F(RequestTest, HasANewKeyAndNoPasswordWhenItsBlockCannotBeAllocated)
{
    StartWithRequest();
    const std::string strKey = Key();
    const std::string strIV = IV();
    fakes::FailCall("malloc", 1, 1);
    ExpectRefused(ARequest(), {"0 SetFtpInfo: param malloc failed.",
                               "0 CorpDirDownloadNetaddr: SetFtpInfo failed : 1"});
    EXPECT_EQ(members.m_pucPassword, nullptr);
    EXPECT_NE(Key(), strKey);
    EXPECT_NE(IV(), strIV);
}

TEST_F(RequestTest, RefusesANullCallbackAfterTheRequestWasTakenIn)
{
    Start();
    members.m_pfnDownloadCb = OtherCallback;
    tag_CORPDIR_DOWNLOADINFO stInfo = ARequest("x;y");
    EXPECT_EQ(client.CorpDirDownloadNetaddr(&stInfo, nullptr), 1U);
    EXPECT_EQ(members.m_pfnDownloadCb, OtherCallback);
    EXPECT_EQ(members.m_strAllIPs, "x;y");
    EXPECT_NE(members.m_pucPassword, nullptr);
    EXPECT_EQ(fakes::Calls("TRAVEX_FTP_AsynDownloadFile"), 0U);
    EXPECT_EQ(fakes::LiveTimers(), 0U);
    EXPECT_THAT(Only(Logged(), {"0"}),
                ElementsAre("0 CorpDirDownloadNetaddr: DownCallbackPtr is NULL."));
}

TEST_F(RequestTest, PassesTheCodeOfAVersionDownloadThatDidNotStartAndStartsNoTimer)
{
    Start();
    fakes::FailCall("TRAVEX_FTP_AsynDownloadFile", 1, 0xFFFFFFFF);
    EXPECT_EQ(Make(ARequest()), 0xFFFFFFFFU);
    EXPECT_EQ(members.m_pfnDownloadCb, ClientCallback) << "stored before the download";
    EXPECT_EQ(fakes::LiveTimers(), 0U);
    EXPECT_THAT(Only(Trace(), {"client"}), IsEmpty());
    EXPECT_THAT(Only(Logged(), {"0 CorpDirDownloadNetaddr"}),
                ElementsAre("0 CorpDirDownloadNetaddr: VersionDownload failed : -1"));
}

TEST_F(RequestTest, FailsWhenTheTimerDoesNotStart)
{
    Start();
    fakes::FailCall("OSAK_StartRelTimer", 1, 0xFFFFFFFF);
    EXPECT_EQ(Make(ARequest()), 1U);
    EXPECT_EQ(members.m_pDownVersionTimer, nullptr);
    EXPECT_EQ(fakes::LiveTimers(), 0U);
    EXPECT_THAT(Only(Logged(), {"0"}),
                ElementsAre("0 StartTimerForVersion: StartRelTimer UploadTimer Fail: ffffffff",
                            "0 CorpDirDownloadNetaddr: StartTimerForVersion failed : 1"));
}

TEST_F(RequestTest, ASecondRequestReplacesTheFirstInPlace)
{
    StartWithRequest("192.0.2.1;192.0.2.2;192.0.2.3");
    tag_CORPDIR_DOWNLOADINFO stInfo = ARequest();
    SetField(stInfo.szUserName, "bob");
    stInfo.pszFtpIPs = "four";
    EXPECT_EQ(Make(stInfo), 0U);
    EXPECT_EQ(members.m_strUserName, "bob");
    EXPECT_EQ(members.m_strFtpIP, "four");
    EXPECT_EQ(members.m_strIPs, "four");
    EXPECT_EQ(members.m_ulVersionTaskID, 2U);
    EXPECT_EQ(fakes::LiveTimers(), 1U) << "the timer is restarted, not created again";
    EXPECT_EQ(fakes::Calls("OSAK_StartRelTimer"), 2U);
}
