// Control and data parameters: the records that the FTP library gets, to the byte, and each way to
// fail.
#include <cstring>

#include "fake_state.h"
#include "service_test.h"

using testing::ElementsAre;
using testing::IsEmpty;
using namespace std::string_literals;

namespace
{

// The request is taken in and a handle is there, but no download has been started.
class ControlParamTest : public ServiceTest
{
protected:
    void SetUp() override
    {
        Take(ARequest());
        members.m_hFtpHandle = TRAVEX_FTP_CreateHandle();
        Trace();
        Logged();
    }

    void Take(tag_CORPDIR_DOWNLOADINFO stInfo)
    {
        ASSERT_EQ(inside::SetFtpInfo(service, &stInfo), 0U);
        Logged();
    }

    unsigned int Set(const std::string& strLocalDir = "/local/dir")
    {
        return inside::SetFtpCtrlParam(service, strLocalDir);
    }

    const tagTRAVEX_FTP_S_CTRL_PARAM& Record()
    {
        control = fakes::LastControlParameters();
        return control.stRecord;
    }

    std::string ServerAddress()
    {
        return std::string(reinterpret_cast<const char*>(Record().aucServerIp), 16);
    }

    std::string LocalAddress()
    {
        return std::string(reinterpret_cast<const char*>(Record().aucLocalIp), 16);
    }

    // The record was handed over, whatever address it holds.
    void ExpectHandedOver()
    {
        EXPECT_EQ(fakes::Calls("TRAVEX_FTP_SetCtrlParam"), 1U);
        EXPECT_STREQ(Record().acUserName, "alice");
    }

    fakes::ControlParameters control;
};

std::string Bytes(std::initializer_list<int> bytes)
{
    std::string strBytes;
    for (const int iByte : bytes)
    {
        strBytes += static_cast<char>(iByte);
    }
    return strBytes;
}

std::string Padded(std::string strBytes)
{
    strBytes.resize(16, '\0');
    return strBytes;
}

const std::string ZERO_ADDRESS(16, '\0');

// A record written field by field, at the offsets of the library's record.
class ExpectedRecord
{
public:
    template <class T>
    ExpectedRecord& At(size_t ulOffset, const T& value)
    {
        std::memcpy(m_aucBytes + ulOffset, &value, sizeof(value));
        return *this;
    }

    ExpectedRecord& Text(size_t ulOffset, const std::string& strText)
    {
        std::memcpy(m_aucBytes + ulOffset, strText.data(), strText.size());
        return *this;
    }

    std::string AsBytes() const
    {
        return std::string(reinterpret_cast<const char*>(m_aucBytes), sizeof(m_aucBytes));
    }

private:
    unsigned char m_aucBytes[648] = {};
};

}  // namespace

// --- The record ---------------------------------------------------------------------------------

// The two modes differ in the server type; certificates are verified as the request asked.
TEST_F(ControlParamTest, TheWholeRecordIsAsTheLibraryExpectsIt)
{
    tag_CORPDIR_DOWNLOADINFO stInfo = ARequest();
    stInfo.ulPort = 2121;
    stInfo.pszLocalIP = "192.0.2.99";
    Take(stInfo);
    ExpectedRecord expected;
    expected.Text(16, Bytes({192, 0, 2, 1})).At(32, 2121U).At(36, 1U);
    expected.Text(40, "alice").Text(168, "secret").At(424, 2U).At(428, 10U);
    expected.Text(432, "/local/dir/").At(568, members.m_strFtpCtrlInfo.c_str());
    expected.At(576, 1U).At(580, static_cast<unsigned short>(28)).At(584, 1U);
    expected.At(592, inside::VerifyCallback()).At(600, inside::DefaultCipherList()).At(608, 3U);
    expected.Text(624, Bytes({192, 0, 2, 99}));
    for (const unsigned int ulMode : {0U, 1U})
    {
        members.m_ulFtpMode = ulMode;
        members.m_ulCertVerify = 1 - ulMode;
        g_stFtpCiperList.ulCipherNum = 0;
        ASSERT_EQ(Set(), 0U);
        expected.At(0, 1 - ulMode).At(640, 1 - ulMode);
        const tagTRAVEX_FTP_S_CTRL_PARAM& stRecord = Record();
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(&stRecord), sizeof(stRecord)),
                  expected.AsBytes());
        EXPECT_EQ(control.hFtp, members.m_hFtpHandle);
        EXPECT_EQ(control.strTrustText, "ca=/etc/ca.pem");
    }
}

TEST_F(ControlParamTest, LogsItsProgressInThisOrder)
{
    tag_CORPDIR_DOWNLOADINFO stInfo = ARequest();
    stInfo.ulPort = 2121;
    stInfo.pszLocalIP = "192.0.2.99";
    Take(stInfo);
    ASSERT_EQ(Set(), 0U);
    EXPECT_THAT(
        Logged(),
        ElementsAre("1 SetFtpCtrlParam: Ftp cipher list not set, use default value!",
                    "2 SetFtpCtrlParam: Set ServerType:1(0:ftp, 1:ftps), FTP IP : 192.0.2.1",
                    "2 SetFtpCtrlParam: after OSAK_Inet_Pton, FTP Server IPv4 : 16908480 ",
                    "2 SetFtpCtrlParam: after OSAK_Inet_Pton, FTP Local IPv4 : 1661075648 ",
                    "2 SetFtpCtrlParam: WordDir : /local/dir/",
                    "2 SetFtpCtrlParam: use new port:2121"));
}

TEST_F(ControlParamTest, ModeZeroAsksForFtpsAndAnyOtherForPlainFtp)
{
    for (const unsigned int ulMode : {0U, 1U, 2U, 0xFFFFFFFFU})
    {
        members.m_ulFtpMode = ulMode;
        ASSERT_EQ(Set(), 0U);
        EXPECT_EQ(Record().ulServerType, ulMode == 0 ? 1U : 0U) << ulMode;
    }
    EXPECT_THAT(Only(Logged(), {"2 SetFtpCtrlParam: Set ServerType:0"}), testing::SizeIs(3));
}

TEST_F(ControlParamTest, TheWorkDirectoryAlwaysEndsInASlash)
{
    for (const char* const pszGiven : {"/local/dir", "/local/dir/"})
    {
        ASSERT_EQ(Set(pszGiven), 0U);
        EXPECT_STREQ(Record().acWorkDir, "/local/dir/");
    }
    ASSERT_EQ(Set("/"), 0U);
    EXPECT_STREQ(Record().acWorkDir, "/");
    EXPECT_THAT(
        Only(Logged(), {"2 SetFtpCtrlParam: WordDir"}),
        ElementsAre("2 SetFtpCtrlParam: WordDir : /local/dir/",
                    "2 SetFtpCtrlParam: WordDir : /local/dir/", "2 SetFtpCtrlParam: WordDir : /"));
}

TEST_F(ControlParamTest, TextsOf127BytesFitTheirFieldsAndLongerOnesLeaveThemEmpty)
{
    for (const size_t ulLength : {127U, 128U, 255U})
    {
        const std::string strText(ulLength, 't');
        tag_CORPDIR_DOWNLOADINFO stInfo = ARequest();
        SetField(stInfo.szUserName, strText);
        SetField(stInfo.szPassword, strText);
        Take(stInfo);
        ASSERT_EQ(Set(std::string(ulLength - 1, 'd')), 0U) << "the copies are not checked";
        EXPECT_STREQ(Record().acUserName, ulLength == 127 ? strText.c_str() : "");
        EXPECT_STREQ(Record().acPassword, ulLength == 127 ? strText.c_str() : "");
        const std::string strDir = std::string(ulLength - 1, 'd') + "/";
        EXPECT_STREQ(Record().acWorkDir, ulLength == 127 ? strDir.c_str() : "");
    }
}

TEST_F(ControlParamTest, APasswordThatFillsItsBufferIsReadNoFurther)
{
    fakes::SetUnsealed(std::string(256, 'p'));
    ASSERT_EQ(Set(), 0U);
    EXPECT_STREQ(Record().acPassword, "");
    EXPECT_THAT(Only(Trace(), {"zep_strncpy_s(local, 128, p"}),
                ElementsAre("zep_strncpy_s(local, 128, " + std::string(256, 'p') + ", 256)"));
}

TEST_F(ControlParamTest, APasswordEndsAtItsFirstZeroByte)
{
    fakes::SetUnsealed(std::string("ab\0cd", 5));
    ASSERT_EQ(Set(), 0U);
    EXPECT_STREQ(Record().acPassword, "ab");
    EXPECT_EQ(Record().acPassword[3], '\0');
}

TEST_F(ControlParamTest, ASealedBlockWithoutAnyZeroByteIsMeasuredWithinItsStorage)
{
    std::memset(members.m_pucPassword, 0x5A, 256);
    fakes::SetUnsealed("secret");
    EXPECT_EQ(Set(), 0U);
    EXPECT_THAT(Only(Trace(), {"OSAK_StrLen", "ZEP_CPYPT_Decrypt"}),
                ElementsAre("OSAK_StrLen(local, 256)", "ZEP_CPYPT_Decrypt(0, 32, 16, 256, 256)"));
}

// The second buffer is zeroed before it is filled; then come, wiped whole, both buffers, the sealed
// block with key and IV, the record, and the password's text.
TEST_F(ControlParamTest, WipesItsCopiesOfPasswordBlockKeyAndIVWhole)
{
    ASSERT_EQ(Set(), 0U);
    EXPECT_THAT(Only(Trace(), {"zep_memset_s(local"}),
                ElementsAre("zep_memset_s(local, 256, 0, 256)", "zep_memset_s(local, 256, 0, 256)",
                            "zep_memset_s(local, 256, 0, 256)", "zep_memset_s(local, 305, 0, 305)",
                            "zep_memset_s(local, 648, 0, 648)", "zep_memset_s(local, 648, 0, 648)",
                            "zep_memset_s(local, 6, 0, 6)"));
}

// Two buffers and the text; a record that is handed over holds one more.
TEST_F(ControlParamTest, WipesEveryPlainCopyOfThePasswordOnEveryPath)
{
    for (const char* const pszFailing : {"", "OSAK_GetAddrInfo", "TRAVEX_FTP_SetCtrlParam"})
    {
        members.m_strFtpIP = "ftp.example.test";
        if (*pszFailing != '\0')
        {
            fakes::FailCall(pszFailing, 1, 5);
        }
        fakes::WatchSecret("secret");
        EXPECT_EQ(Set(), *pszFailing != '\0' ? 1U : 0U) << pszFailing;
        const bool bHandedOver = std::strcmp(pszFailing, "OSAK_GetAddrInfo") != 0;
        EXPECT_GE(fakes::SecretCopiesSeen(), bHandedOver ? 4U : 3U) << pszFailing;
        EXPECT_EQ(fakes::SecretCopiesNotWiped(), 0U) << pszFailing;
    }
}

// --- Inputs -------------------------------------------------------------------------------------

TEST_F(ControlParamTest, EveryInputHasToBeThere)
{
    const auto ExpectRefused = [&](const char* pszWhat, const std::string& strDir)
    {
        EXPECT_EQ(Set(strDir), 1U) << pszWhat;
        EXPECT_THAT(Logged(), ElementsAre("0 SetFtpCtrlParam: Input param is empty.")) << pszWhat;
        EXPECT_THAT(Trace(), ElementsAre("log 0 SetFtpCtrlParam: Input param is empty."));
    };
    members.m_hFtpHandle = nullptr;  // would be found after the inputs
    ExpectRefused("directory", "");
    for (std::string* const pstrMember :
         {&members.m_strFtpCtrlInfo, &members.m_strUserName, &members.m_strFtpIP})
    {
        const std::string strKept = *pstrMember;
        pstrMember->clear();
        ExpectRefused(strKept.c_str(), "/local/dir");
        *pstrMember = strKept;
    }
    unsigned char* const pucKept = members.m_pucPassword;
    members.m_pucPassword = nullptr;
    ExpectRefused("password", "/local/dir");
    members.m_pucPassword = pucKept;
}

TEST_F(ControlParamTest, FailsWithoutAHandle)
{
    members.m_hFtpHandle = nullptr;
    EXPECT_EQ(Set(), 1U);
    EXPECT_THAT(Trace(), ElementsAre("log 0 SetFtpCtrlParam: FTPS Handle is NULL!"));
}

TEST_F(ControlParamTest, FailsWhenThePasswordDoesNotUnseal)
{
    fakes::FailCall("ZEP_CPYPT_Decrypt", 1, 4);
    EXPECT_EQ(Set(), 1U);
    EXPECT_THAT(Logged(), ElementsAre("0 CommonDecrypt: ZEP_CPYPT_Decrypt error : 4",
                                      "0 SetFtpCtrlParam: CommonDecrypt failed."));
    EXPECT_EQ(fakes::Calls("TRAVEX_FTP_SetCtrlParam"), 0U);
}

TEST_F(ControlParamTest, TheLibrarysRefusalIsLoggedAsSignedAndBecomesOne)
{
    fakes::FailCall("TRAVEX_FTP_SetCtrlParam", 1, 0xFFFFFFFF);
    EXPECT_EQ(Set(), 1U);
    EXPECT_THAT(Only(Logged(), {"0"}),
                ElementsAre("0 SetFtpCtrlParam: TRAVEX_FTP_SetCtrlParam Failed! Ret = -1"));
}

// --- Cipher list in the record ------------------------------------------------------------------

TEST_F(ControlParamTest, AListThatTheClientSetIsHandedOverUnchanged)
{
    const int aiList[] = {9, 8};
    ASSERT_EQ(client.CorpDirSetFtpCipherListToDirImpl(aiList, 2), 0U);
    Logged();
    ASSERT_EQ(Set(), 0U);
    EXPECT_EQ(Record().piCipherList, g_stFtpCiperList.piCipherList);
    EXPECT_EQ(Record().ulCipherNum, 2U);
    EXPECT_THAT(control.vecCiphers, ElementsAre(9, 8));
    EXPECT_THAT(Only(Logged(), {"1"}), IsEmpty());
}

TEST_F(ControlParamTest, AListNeverSetGivesTheStaticDefaultAndInstallsACopyOfIt)
{
    ASSERT_EQ(Set(), 0U);
    EXPECT_EQ(Record().piCipherList, inside::DefaultCipherList());
    EXPECT_EQ(Record().ulCipherNum, 3U);
    EXPECT_THAT(control.vecCiphers, ElementsAre(0x03000035, 0x0300003C, 0x0300003D));
    EXPECT_EQ(g_stFtpCiperList.ulCipherNum, 3U);
    EXPECT_NE(g_stFtpCiperList.piCipherList, inside::DefaultCipherList());
    EXPECT_THAT(std::vector<int>(g_stFtpCiperList.piCipherList, g_stFtpCiperList.piCipherList + 3),
                ElementsAre(0x03000035, 0x0300003C, 0x0300003D));
    Logged();
    ASSERT_EQ(Set(), 0U);
    EXPECT_EQ(Record().piCipherList, g_stFtpCiperList.piCipherList);
    EXPECT_THAT(Only(Logged(), {"1"}), IsEmpty()) << "the warning comes once";
}

TEST_F(ControlParamTest, AReleasedListGetsTheDefaultWithoutARecord)
{
    const int aiList[] = {9, 8};
    ASSERT_EQ(client.CorpDirSetFtpCipherListToDirImpl(aiList, 2), 0U);
    service.freeFtpCipherList();
    Logged();
    ASSERT_EQ(Set(), 0U);
    EXPECT_EQ(Record().piCipherList, inside::DefaultCipherList());
    EXPECT_EQ(Record().ulCipherNum, 3U);
    EXPECT_EQ(g_stFtpCiperList.ulCipherNum, 3U);
    EXPECT_THAT(Only(Logged(), {"1"}), IsEmpty());
}

TEST_F(ControlParamTest, AListWithoutACountIsReplacedByTheDefault)
{
    const int aiList[] = {9, 8};
    ASSERT_EQ(client.CorpDirSetFtpCipherListToDirImpl(aiList, 2), 0U);
    g_stFtpCiperList.ulCipherNum = 0;
    Logged();
    ASSERT_EQ(Set(), 0U);
    EXPECT_EQ(Record().piCipherList, inside::DefaultCipherList());
    EXPECT_EQ(g_stFtpCiperList.ulCipherNum, 3U);
    EXPECT_EQ(fakes::LiveMemory(), 12U) << "the old storage is released";
    EXPECT_THAT(Only(Logged(), {"1"}),
                ElementsAre("1 SetFtpCtrlParam: Ftp cipher list not set, use default value!"));
}

TEST_F(ControlParamTest, TheDefaultServesEvenWhenItCannotBeInstalled)
{
    fakes::FailCall("OSAK_MemMallocS", 1, 1);
    EXPECT_EQ(Set(), 0U);
    EXPECT_EQ(Record().piCipherList, inside::DefaultCipherList());
    EXPECT_EQ(Record().ulCipherNum, 3U);
    EXPECT_EQ(g_stFtpCiperList.ulCipherNum, 3U);
    EXPECT_EQ(g_stFtpCiperList.piCipherList, nullptr);
    Logged();
    ASSERT_EQ(Set(), 0U) << "the next download installs it";
    EXPECT_THAT(Only(Logged(), {"1"}), IsEmpty());
    EXPECT_NE(g_stFtpCiperList.piCipherList, nullptr);
}

namespace
{

// Refuses to take a cipher list.
class UnwillingService : public CFTPCorpDirImpl
{
public:
    unsigned int CorpDirSetFtpCipherListToDirImpl(const int*, unsigned int ulCipherNum) override
    {
        fakes::Note("refused " + std::to_string(ulCipherNum));
        return 42;
    }
};

}  // namespace

TEST_F(ControlParamTest, TheDefaultIsInstalledThroughTheVirtualTableWithoutRegardToTheResult)
{
    UnwillingService unwilling;
    tag_CORPDIR_DOWNLOADINFO stInfo = ARequest();
    ASSERT_EQ(inside::SetFtpInfo(unwilling, &stInfo), 0U);
    inside::Members(unwilling).m_hFtpHandle = members.m_hFtpHandle;
    EXPECT_EQ(inside::SetFtpCtrlParam(unwilling, "/local/dir"), 0U);
    EXPECT_THAT(Only(Trace(), {"refused"}), ElementsAre("refused 3"));
    EXPECT_EQ(Record().piCipherList, inside::DefaultCipherList());
}

// --- Host name or literal -----------------------------------------------------------------------

TEST_F(ControlParamTest, NamesAreHostNamesAndLiteralsAreNot)
{
    EXPECT_EQ(CommonIsHostName("192.0.2.1"), 0);
    EXPECT_EQ(CommonIsHostName("::1"), 0);
    EXPECT_EQ(CommonIsHostName("2001:db8::1"), 0);
    EXPECT_EQ(CommonIsHostName("ftp.example.test"), 1);
    EXPECT_EQ(CommonIsHostName("localhost"), 1);
    EXPECT_EQ(CommonIsHostName(""), 1);
    EXPECT_EQ(CommonIsHostName("10.1"), 0) << "numbers and dots";
    EXPECT_EQ(CommonIsHostName("0x0a000001"), 0) << "a hexadecimal form";
}

TEST_F(ControlParamTest, IPv6IsAskedFirstThenIPv4ThenTheClassicParserThenTheLength)
{
    CommonIsHostName("10.1");
    EXPECT_THAT(Only(Trace(), {"OSAK"}),
                ElementsAre("OSAK_Inet_Pton(IPv6, 10.1)", "OSAK_Inet_Pton(IPv4, 10.1)",
                            "OSAK_InetAddr(10.1)", "OSAK_StrLen(local, 4)"));
    CommonIsHostName("::1");
    EXPECT_THAT(Only(Trace(), {"OSAK"}), ElementsAre("OSAK_Inet_Pton(IPv6, ::1)"));
    CommonIsHostName("192.0.2.1");
    EXPECT_THAT(Only(Trace(), {"OSAK"}),
                ElementsAre("OSAK_Inet_Pton(IPv6, 192.0.2.1)", "OSAK_Inet_Pton(IPv4, 192.0.2.1)"));
}

TEST_F(ControlParamTest, NumbersAndDotsOfMoreThan16CharactersAreAHostName)
{
    EXPECT_EQ(CommonIsHostName("0300.0000.02.001"), 0) << "16 characters";
    EXPECT_EQ(CommonIsHostName("0300.0000.02.0001"), 1) << "17 characters";
}

TEST_F(ControlParamTest, OnlyAPositiveParseMakesALiteral)
{
    fakes::FailCall("OSAK_Inet_Pton", 1, 0xFFFFFFFF);
    fakes::FailCall("OSAK_Inet_Pton", 2, 0xFFFFFFFF);
    EXPECT_EQ(CommonIsHostName("ftp.example.test"), 1);
    fakes::FailCall("OSAK_Inet_Pton", 1, 2);
    EXPECT_EQ(CommonIsHostName("ftp.example.test"), 0);
    fakes::FailCall("OSAK_Inet_Pton", 1, 0);
    fakes::FailCall("OSAK_Inet_Pton", 2, 2);
    EXPECT_EQ(CommonIsHostName("ftp.example.test"), 0);
}

// --- Server address -----------------------------------------------------------------------------

// The log prints the bytes of the address up to its first zero byte, and at most sixteen.
TEST_F(ControlParamTest, AColonFormIsConvertedAsIPv6)
{
    for (const auto& [strText, strAddress] :
         {std::pair{"2001:db8::1"s, "\x20\x01\x0d\xb8\0\0\0\0\0\0\0\0\0\0\0\1"s},
          std::pair{"::1"s, std::string(15, '\0') + "\1"},
          std::pair{"4142:4344:4546:4748:494a:4b4c:4d4e:4f50"s, "ABCDEFGHIJKLMNOP"s}})
    {
        members.m_strFtpIP = members.m_strLocalIP = strText;
        ASSERT_EQ(Set(), 0U);
        EXPECT_EQ(Record().ulServerIpType, 1U);
        EXPECT_EQ(ServerAddress(), strAddress);
        EXPECT_EQ(Record().ulLocalIpType, 1U);
        EXPECT_EQ(LocalAddress(), strAddress);
        const std::string strPrinted = strAddress.c_str();
        EXPECT_THAT(
            Only(Logged(), {"2 SetFtpCtrlParam: after"}),
            ElementsAre(
                "2 SetFtpCtrlParam: after OSAK_Inet_Pton, FTP Server IPv6 : " + strPrinted + " ",
                "2 SetFtpCtrlParam: after OSAK_Inet_Pton, FTP Local IPv6 : " + strPrinted + " "));
    }
}

TEST_F(ControlParamTest, ANegativeParseCountsAsASuccessOfTheConversion)
{
    // The first two parses are CommonIsHostName's, the third is the conversion's.
    fakes::FailCall("OSAK_Inet_Pton", 3, 0xFFFFFFFF);
    ASSERT_EQ(Set(), 0U);
    EXPECT_EQ(Record().ulServerIpType, 1U);
    fakes::FailCall("OSAK_Inet_Pton", 4, 0xFFFFFFFF);
    ASSERT_EQ(Set(), 0U);
    EXPECT_EQ(Record().ulServerIpType, 0U);
    EXPECT_EQ(ServerAddress(), ZERO_ADDRESS);
    EXPECT_THAT(Only(Logged(), {"0", "2 SetFtpCtrlParam: after"}),
                ElementsAre("2 SetFtpCtrlParam: after OSAK_Inet_Pton, FTP Server IPv6 :  ",
                            "2 SetFtpCtrlParam: after OSAK_Inet_Pton, FTP Server IPv4 : 0 "));
}

TEST_F(ControlParamTest, AShortFormOfNumbersAndDotsIsHandedOverWithoutAnAddress)
{
    members.m_strFtpIP = "10.1";
    ASSERT_EQ(Set(), 0U);
    EXPECT_EQ(Record().ulServerIpType, 0U);
    EXPECT_EQ(ServerAddress(), ZERO_ADDRESS);
    EXPECT_EQ(fakes::Calls("OSAK_GetAddrInfo"), 0U);
    EXPECT_THAT(Only(Logged(), {"0"}),
                ElementsAre("0 SetFtpCtrlParam: FTP Server IP convert error : 10.1"));
    ExpectHandedOver();
}

TEST_F(ControlParamTest, ANameIsResolvedWithService0AndNoHints)
{
    members.m_strFtpIP = "ftp.example.test";
    fakes::SetResolved(AF_INET, Bytes({198, 51, 100, 4}));
    ASSERT_EQ(Set(), 0U);
    EXPECT_EQ(Record().ulServerIpType, 0U);
    EXPECT_EQ(ServerAddress(), Padded(Bytes({198, 51, 100, 4})));
    EXPECT_EQ(fakes::ResolverResultsNotFreed(), 0U);
    EXPECT_THAT(Only(Trace(), {"OSAK_GetAddrInfo", "OSAK_FreeAddrInfo", "zep_memcpy_s(local, 4",
                               "log 2 "
                               "SetFtpCtrlParam: after"}),
                ElementsAre("OSAK_GetAddrInfo(ftp.example.test, 0, null)",
                            "zep_memcpy_s(local, 4, local, 4)",
                            "log 2 SetFtpCtrlParam: after zep_memcpy_s, IPv4 : 73675718",
                            "OSAK_FreeAddrInfo()"));
    EXPECT_EQ(fakes::Calls("ZEP_Socket_Get_AF_INET6"), 0U);
}

TEST_F(ControlParamTest, ANameMayResolveToIPv6WithoutARecord)
{
    members.m_strFtpIP = "ftp.example.test";
    const std::string strAddress =
        Bytes({0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 9});
    fakes::SetResolved(AF_INET6, strAddress);
    ASSERT_EQ(Set(), 0U);
    EXPECT_EQ(Record().ulServerIpType, 1U);
    EXPECT_EQ(ServerAddress(), strAddress);
    EXPECT_EQ(fakes::ResolverResultsNotFreed(), 0U);
    EXPECT_THAT(Only(Trace(), {"zep_memcpy_s(local, 1", "OSAK_FreeAddrInfo",
                               "log 2 SetFtpCtrlParam: after", "log 0"}),
                ElementsAre("zep_memcpy_s(local, 16, local, 16)", "OSAK_FreeAddrInfo()"));
}

TEST_F(ControlParamTest, TheIPv6FamilyIsThePlatforms)
{
    members.m_strFtpIP = "ftp.example.test";
    fakes::SetResolved(77, std::string(16, 'x'));
    fakes::FailCall("ZEP_Socket_Get_AF_INET6", 1, 77);
    ASSERT_EQ(Set(), 0U);
    EXPECT_EQ(Record().ulServerIpType, 1U);
    EXPECT_EQ(ServerAddress(), std::string(16, 'x'));
}

TEST_F(ControlParamTest, ANameThatDoesNotResolveFails)
{
    members.m_strFtpIP = "ftp.example.test";
    fakes::FailCall("OSAK_GetAddrInfo", 1, static_cast<unsigned int>(-2));
    EXPECT_EQ(Set(), 1U);
    EXPECT_THAT(Only(Logged(), {"0"}),
                ElementsAre("0 SetFtpCtrlParam: OSAK_GetAddrInfo failed : -2 "));
    EXPECT_EQ(fakes::Calls("TRAVEX_FTP_SetCtrlParam"), 0U);
}

TEST_F(ControlParamTest, AnEntryWithoutAnAddressIsHandedOverAsZeroAndNotFreed)
{
    members.m_strFtpIP = "ftp.example.test";
    members.m_strLocalIP = "192.0.2.99";
    fakes::SetResolved(AF_INET6, "");
    EXPECT_EQ(Set(), 0U);
    ExpectHandedOver();
    EXPECT_EQ(LocalAddress(), Padded(Bytes({192, 0, 2, 99}))) << "the local address follows";
    EXPECT_EQ(Record().ulServerIpType, 0U);
    EXPECT_EQ(ServerAddress(), ZERO_ADDRESS);
    EXPECT_EQ(fakes::ResolverResultsNotFreed(), 1U) << "the result is not freed";
    EXPECT_THAT(Only(Logged(), {"0"}),
                ElementsAre("0 SetFtpCtrlParam: pstRemoteHost->ai_addr is NULL "));
}

TEST_F(ControlParamTest, AResolutionWithoutAnyEntryIsReadNoFurther)
{
    members.m_strFtpIP = "ftp.example.test";
    fakes::FailCall("OSAK_GetAddrInfo", 1, 0);  // a success that gives nothing
    EXPECT_EQ(Set(), 0U);
    ExpectHandedOver();
    EXPECT_EQ(ServerAddress(), ZERO_ADDRESS);
    EXPECT_EQ(fakes::Calls("OSAK_FreeAddrInfo"), 0U);
    EXPECT_THAT(Only(Logged(), {"0"}),
                ElementsAre("0 SetFtpCtrlParam: pstRemoteHost->ai_addr is NULL "));
}

TEST_F(ControlParamTest, OnlyTheFirstEntryOfAResolutionCounts)
{
    members.m_strFtpIP = "ftp.example.test";
    sockaddr_in stIPv4 = {};
    addrinfo stNext = {};
    stNext.ai_family = AF_INET;
    stNext.ai_addr = reinterpret_cast<sockaddr*>(&stIPv4);
    fakes::SetResolved(AF_UNIX, std::string(4, 'x'));
    fakes::TheState().stResolved.ai_next = &stNext;
    EXPECT_EQ(Set(), 1U);
    fakes::SetResolved(AF_INET6, "");
    fakes::TheState().stResolved.ai_next = &stNext;
    EXPECT_EQ(Set(), 0U);
    fakes::TheState().stResolved.ai_next = nullptr;
    EXPECT_THAT(Only(Logged(), {"0"}),
                ElementsAre("0 SetFtpCtrlParam: DNS Parse error!",
                            "0 SetFtpCtrlParam: pstRemoteHost->ai_addr is NULL "));
}

TEST_F(ControlParamTest, AnEntryOfAnotherFamilyFailsAfterItWasFreed)
{
    members.m_strFtpIP = "ftp.example.test";
    fakes::SetResolved(AF_UNIX, std::string(4, 'x'));
    EXPECT_EQ(Set(), 1U);
    EXPECT_EQ(fakes::ResolverResultsNotFreed(), 0U);
    EXPECT_THAT(Only(Trace(), {"OSAK_FreeAddrInfo", "log 0"}),
                ElementsAre("OSAK_FreeAddrInfo()", "log 0 SetFtpCtrlParam: DNS Parse error!"));
    EXPECT_EQ(fakes::Calls("TRAVEX_FTP_SetCtrlParam"), 0U);
}

// --- Local address ------------------------------------------------------------------------------

TEST_F(ControlParamTest, ALocalNameIsNeverResolvedAndLeavesTheAddressZero)
{
    members.m_strLocalIP = "terminal.example.test";
    EXPECT_EQ(Set(), 0U);
    ExpectHandedOver();
    EXPECT_EQ(ServerAddress(), Padded(Bytes({192, 0, 2, 1})));
    EXPECT_EQ(Record().ulLocalIpType, 0U);
    EXPECT_EQ(LocalAddress(), ZERO_ADDRESS);
    EXPECT_EQ(fakes::Calls("OSAK_GetAddrInfo"), 0U);
    EXPECT_THAT(Only(Logged(), {"0"}),
                ElementsAre("0 SetFtpCtrlParam: FTP Local IP convert error : "
                            "terminal.example.test"));
}

TEST_F(ControlParamTest, ANegativeParseCountsAsASuccessForTheLocalAddressToo)
{
    members.m_strLocalIP = "192.0.2.99";
    fakes::FailCall("OSAK_Inet_Pton", 5, 0xFFFFFFFF);
    ASSERT_EQ(Set(), 0U);
    EXPECT_EQ(Record().ulLocalIpType, 1U);
    fakes::FailCall("OSAK_Inet_Pton", 6, 0xFFFFFFFF);
    ASSERT_EQ(Set(), 0U);
    EXPECT_EQ(Record().ulLocalIpType, 0U);
    EXPECT_EQ(LocalAddress(), ZERO_ADDRESS);
}

// --- Verification callback ----------------------------------------------------------------------

TEST_F(ControlParamTest, TheVerificationCallbackOnlyLogsItsArgumentsAndAgrees)
{
    int iExamined = 5;
    EXPECT_EQ(inside::VerifyCallback()(nullptr, reinterpret_cast<void*>(0x1234)), 0);
    EXPECT_EQ(inside::VerifyCallback()(&iExamined, nullptr), 0);
    EXPECT_EQ(iExamined, 5);
    const Lines vecLogged = Logged();
    ASSERT_EQ(vecLogged.size(), 2U);
    EXPECT_EQ(vecLogged[0], "2 VerifyCallback: VerifyCallback Enter FnFtpsVerify, (nil), 0x1234");
}

// --- Data parameters ----------------------------------------------------------------------------

TEST_F(ControlParamTest, OfTheDataParametersFourAreFixedAndTheRestIsZero)
{
    EXPECT_EQ(inside::SetFtpDataParam(service), 0U);
    const tagTRAVEX_FTP_S_DATA_PARAM stRecord = fakes::LastDataParameters();
    unsigned int aulWords[6];
    static_assert(sizeof(aulWords) == sizeof(stRecord));
    std::memcpy(aulWords, &stRecord, sizeof(aulWords));
    EXPECT_THAT(aulWords, ElementsAre(0, 1, 0, 1, 0, 0));
    EXPECT_THAT(Trace(),
                ElementsAre("zep_memset_s(local, 24, 0, 24)", "TRAVEX_FTP_SetDataParam(ftp 1)"));
}

TEST_F(ControlParamTest, WithoutAHandleTheDataParametersAreNotSet)
{
    members.m_hFtpHandle = nullptr;
    EXPECT_EQ(inside::SetFtpDataParam(service), 1U);
    EXPECT_THAT(Trace(), ElementsAre("log 0 SetFtpDataParam: FTPS Handle is NULL!"));
}

TEST_F(ControlParamTest, TheLibrarysRefusalOfTheDataParametersIsLoggedAsUnsignedAndBecomesOne)
{
    fakes::FailCall("TRAVEX_FTP_SetDataParam", 1, 0xFFFFFFFF);
    EXPECT_EQ(inside::SetFtpDataParam(service), 1U);
    EXPECT_THAT(Logged(), ElementsAre("0 SetFtpDataParam: TRAVEX_FTP_SetDataParam Failed! Ret = "
                                      "4294967295"));
}
