// Data parameters: four fixed options, and two ways to fail.
#include <cstring>

#include "service_test.h"

using testing::ElementsAre;

namespace
{

class DataParamTest : public ServiceTest
{
};

}  // namespace

TEST_F(DataParamTest, TheFourOptionsAreFixedAndTheRestIsZero)
{
    members.m_hFtpHandle = TRAVEX_FTP_CreateHandle();
    Trace();
    EXPECT_EQ(inside::SetFtpDataParam(service), 0U);
    const tagTRAVEX_FTP_S_DATA_PARAM stRecord = fakes::LastDataParameters();
    unsigned int aulWords[6];
    static_assert(sizeof(aulWords) == sizeof(stRecord));
    std::memcpy(aulWords, &stRecord, sizeof(aulWords));
    EXPECT_THAT(aulWords, ElementsAre(0, 1, 0, 1, 0, 0));
    EXPECT_THAT(Trace(),
                ElementsAre("zep_memset_s(local, 24, 0, 24)", "TRAVEX_FTP_SetDataParam(ftp 1)"));
}

TEST_F(DataParamTest, WithoutAHandleTheLibraryIsNotCalled)
{
    EXPECT_EQ(inside::SetFtpDataParam(service), 1U);
    EXPECT_THAT(Trace(), ElementsAre("log 0 SetFtpDataParam: FTPS Handle is NULL!"));
}

TEST_F(DataParamTest, TheLibrarysRefusalIsLoggedAsUnsignedAndBecomesOne)
{
    members.m_hFtpHandle = TRAVEX_FTP_CreateHandle();
    fakes::FailCall("TRAVEX_FTP_SetDataParam", 1, 0xFFFFFFFF);
    EXPECT_EQ(inside::SetFtpDataParam(service), 1U);
    EXPECT_THAT(Logged(), ElementsAre("0 SetFtpDataParam: TRAVEX_FTP_SetDataParam Failed! Ret = "
                                      "4294967295"));
}
