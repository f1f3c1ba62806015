// The directory download: its success, as the client sees it.
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
        TakeRequest();
    }
};

}  // namespace

TEST_F(DirectoryTest, TheFinishedDownloadIsReportedToTheClient)
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
