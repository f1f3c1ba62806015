// The one service object: how clients reach it, its virtual table, construction and destruction.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <typeinfo>

#include "service_test.h"

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

namespace
{

class ObjectTest : public ServiceTest
{
};

// Storage for a second object, filled with ones so that what a constructor leaves out shows.
struct RawService
{
    RawService()
    {
        std::memset(aucStorage, 0xFF, sizeof(aucStorage));
        pService = new (aucStorage) CFTPCorpDirImpl;
    }

    alignas(CFTPCorpDirImpl) unsigned char aucStorage[sizeof(CFTPCorpDirImpl)];
    CFTPCorpDirImpl* pService;
};

void FillTexts(inside::Members& members)
{
    for (std::string* pstrMember :
         {&members.m_strFtpCtrlInfo, &members.m_strUserName, &members.m_strFtpIP, &members.m_strIPs,
          &members.m_strAllIPs, &members.m_strLocalIP, &members.m_strOldVersion,
          &members.m_strVersionServerPath, &members.m_strCorpDirServerPath,
          &members.m_strVersionLocalPath, &members.m_strVersionFileName,
          &members.m_strCorpDirLocalPath, &members.m_strCorpDirFileName})
    {
        *pstrMember = "filled";
    }
}

}  // namespace

TEST_F(ObjectTest, EveryCallerGetsTheSameObjectBeforeAnyStart)
{
    EXPECT_EQ(GetCorpDirInstance(), GetCorpDirInstance());
    EXPECT_EQ(GetCorpDirInstance(), CFTPCorpDirImpl::GetInstance());
    EXPECT_EQ(CFTPCorpDirImpl::GetInstance(), &inside::TheService());
    EXPECT_THAT(Trace(), IsEmpty());
}

TEST_F(ObjectTest, TheInterfaceIsTheBeginningOfTheObjectAndCarriesRunTimeTypeInformation)
{
    EXPECT_EQ(static_cast<void*>(&client), static_cast<void*>(&service));
    EXPECT_TRUE(typeid(client) == typeid(CFTPCorpDirImpl));
    EXPECT_EQ(dynamic_cast<CFTPCorpDirImpl*>(&client), &service);
}

TEST_F(ObjectTest, TheInterfaceHasNoVirtualDestructor)
{
    EXPECT_FALSE(std::has_virtual_destructor_v<IFtpCorpDir>);
    EXPECT_FALSE(std::is_destructible_v<IFtpCorpDir>) << "a client could delete the service";
    EXPECT_TRUE(std::has_virtual_destructor_v<CFTPCorpDirImpl>);
}

TEST_F(ObjectTest, TheSixOperationsAreInTheFirstSixSlots)
{
    using Init = unsigned int (*)(void*, tag_CORPDIR_LOGINFO*);
    using Uninit = void (*)(void*);
    using Request = unsigned int (*)(void*, tag_CORPDIR_DOWNLOADINFO*, CORPDIR_DOWNLOAD_CB);
    using List = unsigned int (*)(void*, const int*, unsigned int);
    using One = unsigned int (*)(void*, int);
    const int aiList[] = {7};
    EXPECT_EQ(Slot<Init>(&client, 0)(&client, &stLogInfo), 0U);
    EXPECT_EQ(Slot<Request>(&client, 2)(&client, nullptr, nullptr), 1U);
    EXPECT_EQ(Slot<List>(&client, 3)(&client, aiList, 1), 0U);
    EXPECT_EQ(Slot<One>(&client, 4)(&client, 8), 0U);
    EXPECT_EQ(Slot<List>(&client, 5)(&client, nullptr, 0), 0U);
    Slot<Uninit>(&client, 1)(&client);
    EXPECT_THAT(Only(Trace(), {"enter "}),
                ElementsAre("enter CorpDirInit", "enter CorpDirDownloadNetaddr",
                            "enter CorpDirSetFtpCipherListToDirImpl",
                            "enter CorpDirAddFtpCipherListToDirImplByOne",
                            "enter CorpDirAddFtpCipherListToDirImpl", "enter CorpDirUninit"));
}

TEST_F(ObjectTest, TheDestructorsAndTheReleaseOfTheCipherListFollow)
{
    RawService raw;
    Slot<void (*)(void*)>(raw.pService, 6)(raw.pService);
    EXPECT_THAT(Trace(),
                ElementsAre("zep_memset_s(local, 32, 0, 32)", "zep_memset_s(local, 16, 0, 16)",
                            "zep_memset_s(local, 32, 0, 32)", "zep_memset_s(local, 16, 0, 16)"));

    ASSERT_EQ(client.CorpDirAddFtpCipherListToDirImplByOne(1), 0U);
    Slot<void (*)(void*)>(&client, 8)(&client);
    EXPECT_EQ(g_stFtpCiperList.piCipherList, nullptr);
}

TEST_F(ObjectTest, TheMembersAreInTheOrderOfTheirDeclaration)
{
    const std::vector<const void*> vecMembers = {&service,
                                                 &members.m_strFtpCtrlInfo,
                                                 &members.m_strUserName,
                                                 &members.m_pucPassword,
                                                 &members.m_aucKey,
                                                 &members.m_aucIV,
                                                 &members.m_strFtpIP,
                                                 &members.m_strIPs,
                                                 &members.m_strAllIPs,
                                                 &members.m_ulPort,
                                                 &members.m_ulFtpMode,
                                                 &members.m_strLocalIP,
                                                 &members.m_ulCertVerify,
                                                 &members.m_strOldVersion,
                                                 &members.m_strVersionServerPath,
                                                 &members.m_strCorpDirServerPath,
                                                 &members.m_strVersionLocalPath,
                                                 &members.m_strVersionFileName,
                                                 &members.m_strCorpDirLocalPath,
                                                 &members.m_strCorpDirFileName,
                                                 &members.m_pDownVersionTimer,
                                                 &members.m_hFtpHandle,
                                                 &members.m_pfnDownloadCb,
                                                 &members.m_ulVersionTaskID,
                                                 &members.m_ulCorpDirTaskID,
                                                 &members.m_listThreadPro,
                                                 &members.m_hMutex,
                                                 &service + 1};
    EXPECT_TRUE(std::is_sorted(vecMembers.begin(), vecMembers.end(), std::less<>()));
}

TEST_F(ObjectTest, IsBuiltAtLoad)
{
    EXPECT_EQ(inside::WipesAtLoad(), 2U);
    EXPECT_EQ(inside::WorkerThreadAtLoad(), nullptr);
    EXPECT_EQ(inside::WorkerRunFlagAtLoad(), 0U);
}

TEST_F(ObjectTest, AFreshObjectIsEmpty)
{
    inside::WorkerThread() = reinterpret_cast<OSAK_THREAD>(0x7001);
    inside::WorkerRunFlag() = 1;
    fakes::OnCall("zep_memset_s", 2,
                  []
                  {
                      EXPECT_NE(inside::WorkerThread(), nullptr) << "reset after the wipes";
                      EXPECT_EQ(inside::WorkerRunFlag(), 1U) << "reset after the wipes";
                  });
    RawService raw;
    const inside::Members fresh(*raw.pService);
    EXPECT_THAT(RequestTexts(fresh), Each(""));
    EXPECT_EQ(fresh.m_strFtpCtrlInfo, "");
    EXPECT_EQ(fresh.m_pucPassword, nullptr);
    EXPECT_THAT(fresh.m_aucKey, Each(0));
    EXPECT_THAT(fresh.m_aucIV, Each(0));
    EXPECT_EQ(fresh.m_ulPort, 0U);
    EXPECT_EQ(fresh.m_ulFtpMode, 0U);
    EXPECT_EQ(fresh.m_ulCertVerify, 0U);
    EXPECT_EQ(fresh.m_pDownVersionTimer, nullptr);
    EXPECT_EQ(fresh.m_hFtpHandle, nullptr);
    EXPECT_EQ(fresh.m_pfnDownloadCb, nullptr);
    EXPECT_EQ(fresh.m_ulVersionTaskID, 0U);
    EXPECT_EQ(fresh.m_ulCorpDirTaskID, 0U);
    EXPECT_TRUE(fresh.m_listThreadPro.empty());
    EXPECT_EQ(fresh.m_hMutex, nullptr);
    EXPECT_EQ(inside::WorkerThread(), nullptr);
    EXPECT_EQ(inside::WorkerRunFlag(), 0U);
    raw.pService->~CFTPCorpDirImpl();
}

TEST_F(ObjectTest, DestructionLeavesZeroKeyBytesEvenWithoutAPassword)
{
    RawService raw;
    inside::Members members2(*raw.pService);
    std::memset(members2.m_aucKey, 0xAA, sizeof(members2.m_aucKey));
    std::memset(members2.m_aucIV, 0xAA, sizeof(members2.m_aucIV));
    bool bKeyZero = false;
    bool bIVZero = false;
    // The mutex goes after both wipes.
    members2.m_hMutex =
        static_cast<OSAK_MUTEX*>(OSAK_MemMallocD(sizeof(OSAK_MUTEX), 1, "ftpcorpdirimpl.cpp"));
    (void)OSAK_MutexInitRecursive(members2.m_hMutex, nullptr);
    fakes::OnCall("OSAK_MutexDestroy", 1,
                  [&]
                  {
                      bKeyZero = std::count(members2.m_aucKey, members2.m_aucKey + 32, 0) == 32;
                      bIVZero = std::count(members2.m_aucIV, members2.m_aucIV + 16, 0) == 16;
                  });
    raw.pService->~CFTPCorpDirImpl();
    EXPECT_TRUE(bKeyZero);
    EXPECT_TRUE(bIVZero);
}

TEST_F(ObjectTest, DestructionReleasesTimerPasswordKeyTextsTasksAndMutexInThisOrder)
{
    StartWithRequest();
    AddTask(1);
    FillTexts(members);
    members.m_ulCorpDirTaskID = 5;
    fakes::OnCall("OSAK_FreeRelTimer", 1,
                  [&]
                  {
                      EXPECT_EQ(members.m_strUserName, "filled");
                      EXPECT_NE(members.m_pucPassword, nullptr);
                  });
    fakes::OnCall("free", 1,
                  [&]
                  {
                      EXPECT_EQ(members.m_pDownVersionTimer, nullptr);
                      EXPECT_EQ(members.m_strUserName, "");
                      EXPECT_THAT(members.m_aucKey, Not(Each(0)));
                  });
    fakes::OnCall("zep_memset_s", 1, [&] { EXPECT_EQ(members.m_pucPassword, nullptr); });
    fakes::OnCall("zep_memset_s", 2,
                  [&]
                  {
                      EXPECT_THAT(members.m_aucKey, Each(0));
                      EXPECT_THAT(members.m_aucIV, Not(Each(0)));
                      EXPECT_EQ(members.m_strFtpIP, "filled");
                      EXPECT_EQ(members.m_strCorpDirFileName, "filled");
                      EXPECT_EQ(members.m_ulVersionTaskID, 1U);
                      EXPECT_EQ(members.m_ulCorpDirTaskID, 5U);
                      EXPECT_FALSE(members.m_listThreadPro.empty());
                  });
    fakes::OnCall("OSAK_MutexDestroy", 1,
                  [&]
                  {
                      EXPECT_THAT(RequestTexts(members), Each(""));
                      EXPECT_EQ(members.m_strFtpCtrlInfo, "filled");
                      EXPECT_EQ(members.m_ulVersionTaskID, 0U);
                      EXPECT_EQ(members.m_ulCorpDirTaskID, 0U);
                      EXPECT_TRUE(members.m_listThreadPro.empty());
                      EXPECT_NE(members.m_hMutex, nullptr);
                  });
    service.~CFTPCorpDirImpl();
    EXPECT_THAT(Trace(),
                ElementsAre("OSAK_FreeRelTimer(timer 1)", "free(malloced)",
                            "zep_memset_s(m_aucKey, 32, 0, 32)", "zep_memset_s(m_aucIV, 16, 0, 16)",
                            "OSAK_MutexDestroy(block 1)", "OSAK_MemFreeD(block 1)"));
    EXPECT_EQ(fakes::LiveFtpHandles(), 1U) << "the destructor leaves the handle";
    EXPECT_EQ(inside::WorkerRunFlag(), 1U) << "and the worker";
    new (&service) CFTPCorpDirImpl;
}

TEST_F(ObjectTest, DestructionGoesOnWhenALayerFails)
{
    StartWithRequest();
    AddTask(1);
    FillTexts(members);
    fakes::FailCall("OSAK_FreeRelTimer", 1, 5);
    fakes::FailCall("zep_memset_s", 1, 6);
    fakes::FailCall("zep_memset_s", 2, 7);
    fakes::FailCall("OSAK_MutexDestroy", 1, 8);
    fakes::OnCall("OSAK_MemFreeD", 1,
                  [&]
                  {
                      EXPECT_THAT(RequestTexts(members), Each(""));
                      EXPECT_EQ(members.m_pDownVersionTimer, nullptr);
                      EXPECT_EQ(members.m_ulVersionTaskID, 0U);
                      EXPECT_TRUE(members.m_listThreadPro.empty());
                  });
    service.~CFTPCorpDirImpl();
    EXPECT_THAT(Trace(), ElementsAre("OSAK_FreeRelTimer(timer 1) = 5", "free(malloced)",
                                     "zep_memset_s(m_aucKey, 32, 0, 32) = 6",
                                     "zep_memset_s(m_aucIV, 16, 0, 16) = 7",
                                     "OSAK_MutexDestroy(block 1) = 8", "OSAK_MemFreeD(block 1)"));
    new (&service) CFTPCorpDirImpl;
}

// In a process of its own: an exit handler that was registered later runs before the destructor.
TEST_F(ObjectTest, TheObjectIsDestroyedAtProcessExitAfterLaterExitHandlers)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            StartWithRequest();
            fakes::OnCall("OSAK_FreeRelTimer", 1, [] { std::fputs("timer freed\n", stderr); });
            (void)std::atexit(
                []
                {
                    const auto* const pService = GetCorpDirInstance();
                    std::fputs(pService != nullptr ? "handler ran\n" : "", stderr);
                });
            std::exit(0);
        },
        testing::ExitedWithCode(0), "handler ran\ntimer freed");
}
