// The TLS cipher list: replacing, adding, releasing, and running out of memory.
#include <cstddef>

#include "service_test.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

constexpr int DEFAULT_1 = 0x03000035;
constexpr int DEFAULT_2 = 0x0300003C;
constexpr int DEFAULT_3 = 0x0300003D;
constexpr int OTHER = 0x0300C030;
constexpr int ANOTHER = 0x0300C02F;

class CipherListTest : public ServiceTest
{
protected:
    unsigned int Replace(const std::vector<int>& vecList)
    {
        return client.CorpDirSetFtpCipherListToDirImpl(vecList.data(),
                                                       static_cast<unsigned int>(vecList.size()));
    }

    unsigned int AddAll(const std::vector<int>& vecList)
    {
        return client.CorpDirAddFtpCipherListToDirImpl(vecList.data(),
                                                       static_cast<unsigned int>(vecList.size()));
    }

    std::vector<int> List() const
    {
        const int* const piList = g_stFtpCiperList.piCipherList;
        return piList == nullptr ? std::vector<int>{}
                                 : std::vector<int>(piList, piList + g_stFtpCiperList.ulCipherNum);
    }
};

}  // namespace

TEST_F(CipherListTest, TheDefaultIsThreeSuites)
{
    ASSERT_EQ(inside::DefaultCipherListSize(), 3);
    EXPECT_THAT(std::vector<int>(inside::DefaultCipherList(), inside::DefaultCipherList() + 3),
                ElementsAre(DEFAULT_1, DEFAULT_2, DEFAULT_3));
}

TEST_F(CipherListTest, ThereIsNoListAtLoad)
{
    EXPECT_EQ(inside::CipherListAtLoad().ulCipherNum, 0U);
    EXPECT_EQ(inside::CipherListAtLoad().piCipherList, nullptr);
}

TEST_F(CipherListTest, TheRecordIsACountAndAPointer)
{
    EXPECT_EQ(offsetof(tagCORPDIR_CIPHER_LIST, ulCipherNum), 0U);
    EXPECT_EQ(offsetof(tagCORPDIR_CIPHER_LIST, piCipherList), 8U);
    EXPECT_EQ(sizeof(tagCORPDIR_CIPHER_LIST), 16U);
}

// --- Replacing ----------------------------------------------------------------------------------

TEST_F(CipherListTest, ReplacingCopiesTheListInItsOrder)
{
    std::vector<int> vecGiven = {OTHER, ANOTHER, OTHER};
    EXPECT_EQ(Replace(vecGiven), 0U);
    vecGiven.assign(3, 0);
    EXPECT_THAT(List(), ElementsAre(OTHER, ANOTHER, OTHER));
    EXPECT_EQ(fakes::LiveMemory(), 12U);
    EXPECT_THAT(Trace(),
                ElementsAre("enter CorpDirSetFtpCipherListToDirImpl", "OSAK_MemMallocS(12, 0)",
                            "zep_memcpy_s(block 1, 12, local, 12)",
                            "leave CorpDirSetFtpCipherListToDirImpl"));
}

TEST_F(CipherListTest, ReplacingWithNothingFailsAndKeepsTheList)
{
    ASSERT_EQ(Replace({OTHER}), 0U);
    Logged();
    EXPECT_EQ(client.CorpDirSetFtpCipherListToDirImpl(inside::DefaultCipherList(), 0), 1U);
    EXPECT_EQ(client.CorpDirSetFtpCipherListToDirImpl(nullptr, 0), 1U);
    EXPECT_THAT(List(), ElementsAre(OTHER));
    EXPECT_THAT(Logged(),
                ElementsAre("0 CorpDirSetFtpCipherListToDirImpl: input cipher list is empty !",
                            "0 CorpDirSetFtpCipherListToDirImpl: input cipher list is empty !"));
    EXPECT_EQ(client.CorpDirSetFtpCipherListToDirImpl(nullptr, 2), 1U);
    EXPECT_THAT(List(), ElementsAre(OTHER));
}

TEST_F(CipherListTest, TheCountIsSetBeforeAnythingIsAllocatedOrReleased)
{
    unsigned int ulAtFirst = 0;
    fakes::OnCall("OSAK_MemMallocS", 1, [&] { ulAtFirst = g_stFtpCiperList.ulCipherNum; });
    ASSERT_EQ(Replace({OTHER}), 0U);
    EXPECT_EQ(ulAtFirst, 1U);

    unsigned int ulAtFree = 0;
    tagCORPDIR_CIPHER_LIST stAtMalloc = {};
    fakes::OnCall("OSAK_MemFreeD", 1, [&] { ulAtFree = g_stFtpCiperList.ulCipherNum; });
    fakes::OnCall("OSAK_MemMallocS", 1, [&] { stAtMalloc = g_stFtpCiperList; });
    const int* const piOld = g_stFtpCiperList.piCipherList;
    ASSERT_EQ(Replace({1, 2, 3, 4}), 0U);
    EXPECT_EQ(ulAtFree, 4U);
    EXPECT_EQ(stAtMalloc.ulCipherNum, 4U);
    EXPECT_EQ(stAtMalloc.piCipherList, piOld) << "overwritten, not cleared first";
}

TEST_F(CipherListTest, AFailedAllocationShowsAsTheFailingCopysCode)
{
    ASSERT_EQ(Replace({OTHER}), 0U);
    fakes::FailCall("OSAK_MemMallocS", 1, 1);
    EXPECT_EQ(Replace({1, 2}), static_cast<unsigned int>(ZEP_ERR_PARAM));
    EXPECT_EQ(g_stFtpCiperList.ulCipherNum, 2U);
    EXPECT_EQ(g_stFtpCiperList.piCipherList, nullptr);
    EXPECT_EQ(fakes::LiveMemory(), 0U);
    EXPECT_EQ(Replace({1, 2}), 0U);
    EXPECT_THAT(List(), ElementsAre(1, 2));
}

TEST_F(CipherListTest, ReplacingPassesTheCodeOfTheCopyAsItCame)
{
    fakes::FailCall("zep_memcpy_s", 1, 77);
    EXPECT_EQ(Replace({OTHER}), 77U);
    EXPECT_THAT(Logged(), IsEmpty());
    EXPECT_EQ(g_stFtpCiperList.ulCipherNum, 1U);
    EXPECT_TRUE(fakes::IsLiveBlock(g_stFtpCiperList.piCipherList)) << "the new storage is the list";
    EXPECT_EQ(fakes::LiveMemory(), 4U);
}

TEST_F(CipherListTest, ACountWhoseBytesDoNotFit32BitsGivesOneAndKeepsTheList)
{
    ASSERT_EQ(Replace({OTHER}), 0U);
    const int aiList[] = {1};
    for (const unsigned int ulCount : {0x40000000U, 0xFFFFFFFFU})
    {
        EXPECT_EQ(client.CorpDirSetFtpCipherListToDirImpl(aiList, ulCount), 1U);
        EXPECT_EQ(client.CorpDirAddFtpCipherListToDirImpl(aiList, ulCount), 1U);
    }
    EXPECT_THAT(List(), ElementsAre(OTHER));
}

// The fake has no memory for so many: the test only shows that it is requested.
TEST_F(CipherListTest, TheLargestCountWhoseBytesFit32BitsIsTried)
{
    const int aiList[] = {1};
    fakes::FailCall("OSAK_MemMallocS", 1, 1);
    EXPECT_NE(client.CorpDirSetFtpCipherListToDirImpl(aiList, 0x3FFFFFFFU), 0U);
    EXPECT_THAT(Only(Trace(), {"OSAK_MemMallocS"}),
                ElementsAre("OSAK_MemMallocS(4294967292, 0) = 1"));
    fakes::FailCall("OSAK_MemMallocS", 1, 1);
    EXPECT_EQ(client.CorpDirAddFtpCipherListToDirImpl(aiList, 0x3FFFFFFFU), 1U);
    EXPECT_THAT(Only(Trace(), {"OSAK_MemMallocS"}), ElementsAre("OSAK_MemMallocS(12, 0) = 1"));
}

// --- Adding one ---------------------------------------------------------------------------------

TEST_F(CipherListTest, ADuplicateIsNoErrorAndChangesNothing)
{
    ASSERT_EQ(Replace({OTHER, ANOTHER}), 0U);
    Trace();
    for (const int iCipher : {OTHER, ANOTHER})
    {
        EXPECT_EQ(client.CorpDirAddFtpCipherListToDirImplByOne(iCipher), 0U);
    }
    EXPECT_THAT(List(), ElementsAre(OTHER, ANOTHER));
    EXPECT_EQ(fakes::Calls("OSAK_MemMallocS"), 1U);
}

TEST_F(CipherListTest, AddingGrowsByExactlyOneEntry)
{
    ASSERT_EQ(Replace({1}), 0U);
    for (int i = 2; i <= 40; ++i)
    {
        ASSERT_EQ(client.CorpDirAddFtpCipherListToDirImplByOne(i), 0U);
        ASSERT_EQ(List().size(), static_cast<size_t>(i));
        ASSERT_EQ(List().back(), i);
        ASSERT_EQ(fakes::LiveMemory(), static_cast<size_t>(i) * 4);
    }
}

TEST_F(CipherListTest, ASeedThatCannotBeCopiedFailsWithOneAndLogsItsCode)
{
    fakes::FailCall("zep_memcpy_s", 1, 77);
    EXPECT_EQ(client.CorpDirAddFtpCipherListToDirImplByOne(OTHER), 1U);
    EXPECT_THAT(Logged(), ElementsAre("0 CorpDirAddFtpCipherListToDirImplByOne: add ftp cipher "
                                      "list zep_memcpy_s error! 77"));
    EXPECT_EQ(g_stFtpCiperList.ulCipherNum, 3U);
    EXPECT_EQ(fakes::LiveMemory(), 12U);
}

TEST_F(CipherListTest, AddingToAListWithoutACountReleasesItsOldStorage)
{
    ASSERT_EQ(Replace({1, 2}), 0U);
    g_stFtpCiperList.ulCipherNum = 0;
    Trace();
    EXPECT_EQ(client.CorpDirAddFtpCipherListToDirImplByOne(OTHER), 0U);
    EXPECT_THAT(List(), ElementsAre(DEFAULT_1, DEFAULT_2, DEFAULT_3, OTHER));
    EXPECT_EQ(fakes::LiveMemory(), 16U);
    EXPECT_THAT(Only(Trace(), {"OSAK_MemFreeD("}), ElementsAre("OSAK_MemFreeD(block 1)"));
}

TEST_F(CipherListTest, AGrowthThatCannotBeCopiedKeepsTheOldList)
{
    ASSERT_EQ(Replace({1, 2}), 0U);
    fakes::FailCall("zep_memcpy_s", 1, 77);
    EXPECT_EQ(client.CorpDirAddFtpCipherListToDirImplByOne(3), 1U);
    EXPECT_THAT(List(), ElementsAre(1, 2));
    EXPECT_THAT(Logged(), ElementsAre("0 CorpDirAddFtpCipherListToDirImplByOne: add ftp cipher "
                                      "list zep_memcpy_s error!"));
    EXPECT_EQ(fakes::LiveMemory(), 8U + 12U) << "the new block is not released";
}

// --- Adding several -----------------------------------------------------------------------------

TEST_F(CipherListTest, AddingSeveralAppendsOneByOne)
{
    EXPECT_EQ(AddAll({OTHER, OTHER, ANOTHER}), 0U);
    EXPECT_THAT(List(), ElementsAre(DEFAULT_1, DEFAULT_2, DEFAULT_3, OTHER, ANOTHER));
    EXPECT_THAT(Logged(), ElementsAre("0 CorpDirAddFtpCipherListToDirImplByOne: cipher 0x300c030 "
                                      "already exists!"));
}

TEST_F(CipherListTest, AddingNoneSucceedsAndAddingFromANullListFails)
{
    EXPECT_EQ(AddAll({}), 0U);
    EXPECT_EQ(client.CorpDirAddFtpCipherListToDirImpl(nullptr, 0), 0U);
    EXPECT_EQ(client.CorpDirAddFtpCipherListToDirImpl(nullptr, 2), 1U);
    EXPECT_EQ(g_stFtpCiperList.ulCipherNum, 0U);
    EXPECT_EQ(g_stFtpCiperList.piCipherList, nullptr);
}

TEST_F(CipherListTest, AddingSeveralStopsAtTheFirstFailureAndKeepsWhatWasAdded)
{
    ASSERT_EQ(Replace({1}), 0U);
    fakes::FailCall("OSAK_MemMallocS", 2, 1);
    EXPECT_EQ(AddAll({2, 3, 4}), 1U);
    EXPECT_THAT(List(), ElementsAre(1, 2));
}

namespace
{

// Gives a code for suite 3.
class PickyService : public CFTPCorpDirImpl
{
public:
    unsigned int CorpDirAddFtpCipherListToDirImplByOne(int iCipher) override
    {
        fakes::Note("add " + std::to_string(iCipher));
        return iCipher == 3 ? 42 : 0;
    }
};

}  // namespace

TEST_F(CipherListTest, AddingSeveralGoesThroughTheVirtualTableAndPassesTheCode)
{
    PickyService picky;
    Trace();
    const int aiList[] = {1, 3, 5};
    EXPECT_EQ(picky.CorpDirAddFtpCipherListToDirImpl(aiList, 3), 42U);
    EXPECT_THAT(Only(Trace(), {"add"}), ElementsAre("add 1", "add 3"));
}

// --- Releasing ----------------------------------------------------------------------------------

TEST_F(CipherListTest, ReleasingKeepsTheCount)
{
    ASSERT_EQ(Replace({1, 2}), 0U);
    Trace();
    service.freeFtpCipherList();
    EXPECT_EQ(g_stFtpCiperList.ulCipherNum, 2U);
    EXPECT_EQ(g_stFtpCiperList.piCipherList, nullptr);
    EXPECT_EQ(fakes::LiveMemory(), 0U);
    EXPECT_THAT(Trace(), ElementsAre("OSAK_MemFreeSetNullD(block 1)"));
}

TEST_F(CipherListTest, ReleasingNothingCallsNothing)
{
    service.freeFtpCipherList();
    EXPECT_THAT(Trace(), IsEmpty());
}

TEST_F(CipherListTest, AfterAReleaseAddingBehavesAsForAListNeverSet)
{
    ASSERT_EQ(Replace({1, 2}), 0U);
    service.freeFtpCipherList();
    EXPECT_EQ(client.CorpDirAddFtpCipherListToDirImplByOne(OTHER), 0U);
    EXPECT_THAT(List(), ElementsAre(DEFAULT_1, DEFAULT_2, DEFAULT_3, OTHER));
}
