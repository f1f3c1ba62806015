// The directory download: its start, and the client's success.
#include "service_test.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

class DirectoryTest : public ServiceTest
{
protected:
    void SetUp() override
    {
        tag_CORPDIR_DOWNLOADINFO stInfo = ARequest();
        ASSERT_EQ(inside::SetFtpInfo(service, &stInfo), 0U);
        Trace();
        Logged();
    }
};

}  // namespace

TEST_F(DirectoryTest, FetchesTheDirectoryFileIntoItsPlace)
{
    EXPECT_EQ(inside::CorpDirDownload(service), 0U);
    const fakes::Download download = fakes::LastDownload();
    EXPECT_EQ(download.strServerFile, "pub/directory.xml");
    EXPECT_EQ(download.strLocalFile, "directory.local");
    EXPECT_EQ(download.pulTaskID, &members.m_ulCorpDirTaskID);
    EXPECT_STREQ(fakes::LastControlParameters().stRecord.acWorkDir, "/nowhere/d/");
    EXPECT_EQ(members.m_ulCorpDirTaskID, 1U);
    EXPECT_EQ(members.m_ulVersionTaskID, 0U);
    const Lines vecTrace = Trace();
    EXPECT_EQ(vecTrace.front(), "enter CorpDirDownload");
    EXPECT_EQ(vecTrace.back(), "leave CorpDirDownload");
}

TEST_F(DirectoryTest, EveryPathHasToBeThere)
{
    members.m_ulCorpDirTaskID = 7;
    for (std::string* const pstrMember :
         {&members.m_strCorpDirServerPath, &members.m_strCorpDirLocalPath,
          &members.m_strCorpDirFileName})
    {
        const std::string strKept = *pstrMember;
        pstrMember->clear();
        EXPECT_EQ(inside::CorpDirDownload(service), 1U);
        EXPECT_THAT(Trace(), ElementsAre("enter CorpDirDownload",
                                         "log 0 CorpDirDownload: Input param is empty.",
                                         "leave CorpDirDownload"));
        *pstrMember = strKept;
    }
    EXPECT_EQ(members.m_ulCorpDirTaskID, 7U);
}

TEST_F(DirectoryTest, AStartThatFailedIsLoggedAndNotToldToTheClient)
{
    members.m_pfnDownloadCb = ClientCallback;
    members.m_ulCorpDirTaskID = 7;
    fakes::FailCall("TRAVEX_FTP_AsynDownloadFile", 1, 20);
    EXPECT_EQ(inside::CorpDirDownload(service), 20U);
    EXPECT_EQ(members.m_ulCorpDirTaskID, 0U);
    EXPECT_EQ(Logged().back(),
              "0 CorpDirDownload: AsynFtpDownload failed, filename : directory.local");
    EXPECT_THAT(Only(Trace(), {"client"}), IsEmpty());
    EXPECT_THAT(Tasks(), IsEmpty()) << "nothing is tried again";
}

TEST_F(DirectoryTest, TheFinishedDownloadIsToldToTheClient)
{
    members.m_pfnDownloadCb = ClientCallback;
    ASSERT_EQ(inside::CorpDirDownload(service), 0U);
    Trace();
    Notification(OVER, 1, "pub/directory.xml").Deliver();
    const Lines vecTrace = Trace();
    EXPECT_THAT(Lines(vecTrace.begin() + 2, vecTrace.end()),
                ElementsAre("enter CorpDirDownloadOver",
                            "log 2 CorpDirDownloadOver: CorpDir Path : /nowhere/d/",
                            "log 2 CorpDirDownloadOver: CorpDir Name : directory.local",
                            "log 2 CorpDirDownloadOver: CorpDir File : /nowhere/d/directory.local",
                            "client(1, 0, null, null)", "leave CorpDirDownloadOver"));
    EXPECT_EQ(members.m_ulCorpDirTaskID, 1U) << "a finished task's id stays";
    EXPECT_THAT(Tasks(), IsEmpty());
}

TEST_F(DirectoryTest, WithoutACallbackTheSuccessIsOnlyLogged)
{
    inside::CorpDirDownloadOver(service);
    EXPECT_EQ(Logged().back(), "0 CorpDirDownloadOver: corpdir_downloadCb is NULL");
    EXPECT_THAT(Only(Trace(), {"client"}), IsEmpty());
}

TEST_F(DirectoryTest, ATrailingSlashOfTheLocalDirectoryIsNotDoubled)
{
    members.m_strCorpDirLocalPath = "/nowhere/d/";
    inside::CorpDirDownloadOver(service);
    EXPECT_THAT(Only(Logged(), {"2"}),
                ElementsAre("2 CorpDirDownloadOver: CorpDir Path : /nowhere/d/",
                            "2 CorpDirDownloadOver: CorpDir Name : directory.local",
                            "2 CorpDirDownloadOver: CorpDir File : /nowhere/d/directory.local"));
}

TEST_F(DirectoryTest, TheSuccessOfATransferIsNotItsEnd)
{
    members.m_pfnDownloadCb = ClientCallback;
    ASSERT_EQ(inside::CorpDirDownload(service), 0U);
    Notification(SUCCESS, 1, "pub/directory.xml").Deliver();
    EXPECT_THAT(Only(Trace(), {"client"}), IsEmpty());
}
