// The version check: the timer and the version file.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "files.h"
#include "service_test.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

class TimerTest : public ServiceTest
{
};

// File descriptors of this process.
size_t OpenFiles()
{
    const std::filesystem::directory_iterator begin("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin, std::filesystem::directory_iterator()));
}

// A request is under way, and the tests report that its version file has arrived.
class VersionFileTest : public ServiceTest
{
protected:
    void SetUp() override
    {
        StartWithRequest("192.0.2.1;192.0.2.2");
        members.m_strVersionLocalPath = directory.Path();
        strFile = directory.File("version.local");
    }

    // The file with these bytes has arrived.
    void Arrive(const std::string& strBytes)
    {
        support::WriteFile(strFile, strBytes);
        inside::VersionDownloadOver(service);
    }

    void ExpectAccepted(const std::string& strBytes, const std::string& strVersion)
    {
        members.m_strOldVersion = "0.0.0.0";
        members.m_listThreadPro.clear();
        Arrive(strBytes);
        EXPECT_EQ(members.m_strOldVersion, strVersion);
        EXPECT_THAT(Tasks(), ElementsAre(2)) << strBytes;
    }

    void ExpectInvalid(const std::string& strBytes)
    {
        members.m_strOldVersion = strOldVersion;
        members.m_strIPs = "192.0.2.2";
        members.m_listThreadPro.clear();
        Logged();
        Arrive(strBytes);
        EXPECT_THAT(Only(Logged(), {"0"}),
                    ElementsAre("0 VersionDownloadOver: version is Invalid!"));
        ExpectUntouched();
    }

    void ExpectUntouched()
    {
        EXPECT_EQ(members.m_strOldVersion, strOldVersion);
        EXPECT_EQ(members.m_strIPs, "192.0.2.2");
        EXPECT_EQ(members.m_strFtpIP, "192.0.2.1");
        EXPECT_THAT(Tasks(), IsEmpty());
    }

    support::TemporaryDirectory directory;
    std::string strFile;
    const std::string strOldVersion = "0.0.0.0";
};

}  // namespace

// --- Timer --------------------------------------------------------------------------------------

TEST_F(TimerTest, IsRestartedWhenItExists)
{
    ASSERT_EQ(inside::StartTimerForVersion(service), 0U);
    Trace();
    EXPECT_EQ(inside::StartTimerForVersion(service), 0U);
    const std::string strCallback =
        testing::PrintToString(reinterpret_cast<void*>(inside::TimerCallback()));
    EXPECT_THAT(Trace(),
                ElementsAre("log 2 StartTimerForVersion: StartRelTimer UploadTimer = 0x7101, "
                            "timerproc : " +
                                strCallback,
                            "OSAK_StartRelTimer(timer 1, 600000, service)"));
    EXPECT_EQ(fakes::LiveTimers(), 1U);
}

TEST_F(TimerTest, ThatCannotBeCreatedIsNoFailure)
{
    fakes::FailCall("OSAK_CreateRelTimerM", 1, 1);
    EXPECT_EQ(inside::StartTimerForVersion(service), 0U);
    EXPECT_EQ(members.m_pDownVersionTimer, nullptr);
    EXPECT_THAT(Trace(),
                ElementsAre("OSAK_CreateRelTimerM(timer callback, 0) = 1",
                            "log 0 StartTimerForVersion: CreateRelTimer uploadtimer Fail!"));
}

TEST_F(TimerTest, ThatDoesNotRestartIsFreed)
{
    ASSERT_EQ(inside::StartTimerForVersion(service), 0U);
    Trace();
    fakes::FailCall("OSAK_StartRelTimer", 1, 0xFFFFFFFF);
    EXPECT_EQ(inside::StartTimerForVersion(service), 1U);
    EXPECT_EQ(members.m_pDownVersionTimer, nullptr);
    EXPECT_EQ(fakes::LiveTimers(), 0U);
    EXPECT_THAT(TraceFrom(1),
                ElementsAre("OSAK_StartRelTimer(timer 1, 600000, service) = -1",
                            "log 0 StartTimerForVersion: StartRelTimer UploadTimer Fail: ffffffff",
                            "OSAK_FreeRelTimer(timer 1)"));
    EXPECT_EQ(inside::StartTimerForVersion(service), 0U) << "the next request makes a new one";
}

TEST_F(TimerTest, AnExpiryQueuesAVersionTaskWithoutTheMutexAndWithoutStartingTheTimer)
{
    StartWithRequest();
    inside::TimerCallback()(nullptr);
    inside::TimerCallback()(reinterpret_cast<void*>(0x1));
    EXPECT_THAT(Tasks(), ElementsAre(1, 1));
    EXPECT_THAT(Trace(), ElementsAre("log 2 DownloadVersionTimerPro: Thread Add versiondown. ",
                                     "log 2 DownloadVersionTimerPro: Thread Add versiondown. "));
}

TEST_F(TimerTest, TheTaskIsQueuedAfterItsRecord)
{
    fakes::SetLogSink(
        [](unsigned int, const char*, const char*)
        {
            inside::Members now(inside::TheService());
            fakes::Note(now.m_listThreadPro.empty() ? "queue empty" : "queue filled");
        });
    inside::TimerCallback()(nullptr);
    EXPECT_THAT(Only(Trace(), {"queue"}), ElementsAre("queue empty"));
}

// --- Version file -------------------------------------------------------------------------------

TEST_F(VersionFileTest, ANewVersionIsStoredAndQueuesTheDirectory)
{
    Arrive("2.0.0 of today\nsecond line\n");
    EXPECT_EQ(members.m_strOldVersion, "2.0.0 of today");
    EXPECT_THAT(Tasks(), ElementsAre(2));
    EXPECT_EQ(members.m_strIPs, "192.0.2.1;192.0.2.2");
    EXPECT_EQ(members.m_strFtpIP, "192.0.2.1") << "the server that answered stays";
}

TEST_F(VersionFileTest, TheSameVersionQueuesNothingButRefillsTheServers)
{
    Arrive("2.0.0\n");
    members.m_listThreadPro.clear();
    members.m_strIPs = "192.0.2.2";
    Trace();
    Arrive("2.0.0\n");
    EXPECT_THAT(Tasks(), IsEmpty());
    EXPECT_EQ(members.m_strIPs, "192.0.2.1;192.0.2.2");
    EXPECT_THAT(Only(Trace(), {"log 2 VersionDownloadOver: Version Prepared",
                               "log 2 "
                               "VersionDownloadOver: OldVersion",
                               "log 2 VersionDownloadOver: "
                               "Thread",
                               "log 2 VersionDownloadOver: FTP", "OSAK_StrCmp"}),
                ElementsAre("log 2 VersionDownloadOver: Version Prepared Update! Version : [2.0.0]",
                            "OSAK_StrCmp(2.0.0, 2.0.0)",
                            "log 2 VersionDownloadOver: FTP After rotating, IPs copy ftps = "
                            "192.0.2.1;192.0.2.2"));
}

TEST_F(VersionFileTest, TheVersionIsStoredBeforeItsTaskIsQueuedAndTheServersComeLast)
{
    fakes::SetLogSink(
        [](unsigned int, const char*, const char* pszText)
        {
            const inside::Members now(inside::TheService());
            fakes::Note("at " + std::string(pszText).substr(0, 9) + ": " + now.m_strOldVersion +
                        (now.m_listThreadPro.empty() ? ", none, " : ", queued, ") + now.m_strIPs);
        });
    Arrive("2.0.0\n");
    fakes::SetLogSink(nullptr);
    EXPECT_THAT(
        Only(Trace(), {"at OldVersio", "at Thread ad", "at FTP After"}),
        ElementsAre("at OldVersio: , none, 192.0.2.2", "at Thread ad: 2.0.0, none, 192.0.2.2",
                    "at FTP After: 2.0.0, queued, 192.0.2.1;192.0.2.2"));
}

TEST_F(VersionFileTest, TheFileIsClosedBeforeItsVersionIsLookedAt)
{
    static size_t ulOpenFiles = 0;
    const size_t ulBefore = OpenFiles();
    fakes::SetLogSink(
        [](unsigned int, const char*, const char* pszText)
        {
            if (std::strstr(pszText, "Version Prepared") != nullptr)
            {
                ulOpenFiles = OpenFiles();
            }
        });
    Arrive("2.0.0\n");
    fakes::SetLogSink(nullptr);
    EXPECT_EQ(ulOpenFiles, ulBefore);
}

TEST_F(VersionFileTest, AnyDifferenceIsANewVersionAlsoALowerOne)
{
    Arrive("2.0.0\n");
    Arrive("1.9.9\n");
    EXPECT_EQ(members.m_strOldVersion, "1.9.9");
    EXPECT_THAT(Tasks(), ElementsAre(2, 2));
}

TEST_F(VersionFileTest, FiveBytesAreAVersionAndFourAreNot)
{
    ExpectInvalid("1.23");
    ExpectInvalid("1.23\nlonger second line\n");
    ExpectAccepted("1.2.3", "1.2.3");
    ExpectAccepted("1.2.3\n", "1.2.3");
}

TEST_F(VersionFileTest, AnEmptyFileOrFirstLineIsNoVersion)
{
    ExpectInvalid("");
    ExpectInvalid("\n");
    ExpectInvalid("\n1.2.3.4\n");
}

TEST_F(VersionFileTest, AtMostThirtyBytesOfTheFirstLineAreTaken)
{
    const std::string strDigits = "0123456789012345678901234567890123456789";
    for (const size_t ulLength : {5U, 29U, 30U})
    {
        ExpectAccepted(strDigits.substr(0, ulLength), strDigits.substr(0, ulLength));
        ExpectAccepted(strDigits.substr(0, ulLength) + "\nmore", strDigits.substr(0, ulLength));
    }
    for (const size_t ulLength : {31U, 32U, 40U})
    {
        ExpectAccepted(strDigits.substr(0, ulLength), strDigits.substr(0, 30));
        ExpectAccepted(strDigits.substr(0, ulLength) + "\nmore", strDigits.substr(0, 30));
    }
}

TEST_F(VersionFileTest, ACarriageReturnAndBlanksArePartOfTheVersion)
{
    ExpectAccepted("1.2.3\r\n", "1.2.3\r");
    ExpectAccepted("1.23\r\n", "1.23\r");
    ExpectAccepted("  1.2 \n", "  1.2 ");
    members.m_strOldVersion = "1.2.3";
    members.m_listThreadPro.clear();
    Arrive("1.2.3\r\n");
    EXPECT_THAT(Tasks(), ElementsAre(2)) << "it differs from the same text without it";
}

TEST_F(VersionFileTest, AVersionEndsAtAZeroByte)
{
    ExpectInvalid(std::string("1.2\0.3.4.5\n", 11));
    ExpectInvalid(std::string("\0001.2.3.4\n", 9));
    ExpectAccepted(std::string("1.2.3\0.4\n", 9), "1.2.3");
}

TEST_F(VersionFileTest, AFileThatDoesNotOpenChangesNothing)
{
    members.m_strOldVersion = strOldVersion;
    inside::VersionDownloadOver(service);
    EXPECT_THAT(
        Only(Trace(), {"log 0", "leave"}),
        ElementsAre("log 0 VersionDownloadOver: Open Version file Failed : " + strFile + "!",
                    "leave VersionDownloadOver"));
    ExpectUntouched();
}

TEST_F(VersionFileTest, ADirectoryInItsPlaceIsNoVersion)
{
    ASSERT_EQ(mkdir(strFile.c_str(), 0700), 0);
    members.m_strOldVersion = strOldVersion;
    inside::VersionDownloadOver(service);
    EXPECT_THAT(Only(Logged(), {"0"}), ElementsAre("0 VersionDownloadOver: version is Invalid!"));
    ExpectUntouched();
}

// Root may read anything, so that a child process gives up its user id first.
TEST_F(VersionFileTest, AnUnreadableFileChangesNothing)
{
    GTEST_FLAG_SET(death_test_style, "fast");
    support::WriteFile(strFile, "2.0.0\n");
    ASSERT_EQ(chmod(strFile.c_str(), 0), 0);
    ASSERT_EQ(chmod(directory.Path().c_str(), 0755), 0);
    EXPECT_EXIT(
        {
            if (geteuid() == 0 && setuid(65534) != 0)
            {
                _exit(2);
            }
            members.m_strOldVersion = strOldVersion;
            inside::VersionDownloadOver(service);
            EXPECT_THAT(
                Only(Logged(), {"0"}),
                ElementsAre("0 VersionDownloadOver: Open Version file Failed : " + strFile + "!"));
            ExpectUntouched();
            _exit(HasFailure() ? 1 : 0);
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(VersionFileTest, ATrailingSlashOfTheLocalDirectoryIsNotDoubled)
{
    members.m_strVersionLocalPath = directory.Path() + "/";
    Arrive("2.0.0\n");
    EXPECT_THAT(Only(Logged(), {"2 VersionDownloadOver: Version Path",
                                "2 VersionDownloadOver: "
                                "Version File"}),
                ElementsAre("2 VersionDownloadOver: Version Path : " + directory.Path() + "/",
                            "2 VersionDownloadOver: Version File : " + strFile));
    EXPECT_EQ(members.m_strOldVersion, "2.0.0");
}

TEST_F(VersionFileTest, AnEmptyFullListIsNotCopied)
{
    members.m_strAllIPs.clear();
    Arrive("2.0.0\n");
    EXPECT_EQ(members.m_strIPs, "192.0.2.2");
    EXPECT_THAT(Only(Logged(), {"2 VersionDownloadOver: FTP"}), IsEmpty());
    EXPECT_THAT(Tasks(), ElementsAre(2));
}
