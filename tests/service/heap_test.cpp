// The service's use of the heap: it releases what it allocates. Needs operator_new.cpp.
#include <sys/mman.h>

#include "memory.h"
#include "service_test.h"

namespace
{

class HeapTest : public ServiceTest
{
protected:
    CThreadProList queue;
};

}  // namespace

TEST_F(HeapTest, TheDeletingDestructorReleasesTheStorage)
{
    memory::StartCounting(0, memory::Failing::One);
    const long lBefore = memory::LiveBlocks();
    auto* const pService = new CFTPCorpDirImpl;
    EXPECT_EQ(memory::LiveBlocks(), lBefore + 1) << "the constructor allocates nothing";
    Slot<void (*)(void*)>(pService, 7)(pService);
    EXPECT_EQ(memory::LiveBlocks(), lBefore);
    memory::StopCounting();
    EXPECT_THAT(Trace(), testing::ElementsAre(
                             "zep_memset_s(local, 32, 0, 32)", "zep_memset_s(local, 16, 0, 16)",
                             "zep_memset_s(local, 32, 0, 32)", "zep_memset_s(local, 16, 0, 16)"))
        << "the destructor runs first";
}

TEST_F(HeapTest, ATaskIsOneNodeOnTheHeap)
{
    memory::StartCounting(0, memory::Failing::One);
    const long lBefore = memory::LiveBlocks();
    queue.push_back(CORPDIR_E_THREADPRO_VERSION);
    queue.push_back(CORPDIR_E_THREADPRO_CORPDIR);
    EXPECT_EQ(memory::LiveBlocks(), lBefore + 2);
    CThreadProList::value_type eTask{};
    EXPECT_TRUE(queue.take_front(eTask));
    EXPECT_EQ(memory::LiveBlocks(), lBefore + 1);
    queue.clear();
    EXPECT_EQ(memory::LiveBlocks(), lBefore);
    memory::StopCounting();
}

TEST_F(HeapTest, ItsDestructionReleasesWhatIsLeft)
{
    memory::StartCounting(0, memory::Failing::One);
    const long lBefore = memory::LiveBlocks();
    {
        CThreadProList other;
        other.push_back(CORPDIR_E_THREADPRO_VERSION);
        EXPECT_FALSE(other.empty());
        other.push_back(CORPDIR_E_THREADPRO_CORPDIR);
    }
    EXPECT_EQ(memory::LiveBlocks(), lBefore);
    memory::StopCounting();
}

TEST_F(HeapTest, AnAppendWithoutMemoryThrowsAndLeavesTheListAsItWas)
{
    queue.push_back(CORPDIR_E_THREADPRO_VERSION);
    memory::StartCounting(1, memory::Failing::One);
    bool bThrown = false;
    try
    {
        queue.push_back(CORPDIR_E_THREADPRO_CORPDIR);
    }
    catch (const std::bad_alloc&)
    {
        bThrown = true;
    }
    memory::StopCounting();
    EXPECT_TRUE(bThrown);
    EXPECT_EQ(queue.front(), CORPDIR_E_THREADPRO_VERSION);
    CThreadProList::value_type eTask{};
    EXPECT_TRUE(queue.take_front(eTask));
    EXPECT_TRUE(queue.empty());
    queue.push_back(CORPDIR_E_THREADPRO_CORPDIR);
    EXPECT_EQ(queue.front(), CORPDIR_E_THREADPRO_CORPDIR);
}

// The largest list whose size in bytes fits 32 bits, of pages that are never written.
TEST_F(HeapTest, AListOfTheLargestSizeGrowsNoFurther)
{
    constexpr unsigned int LARGEST = 0x3FFFFFFF;
    void* const pPages = mmap(nullptr, size_t{LARGEST} * 4, PROT_READ,
                              MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(pPages, MAP_FAILED);
    g_stFtpCiperList = {LARGEST, static_cast<int*>(pPages)};
    EXPECT_EQ(client.CorpDirAddFtpCipherListToDirImplByOne(7), 1U);
    EXPECT_EQ(g_stFtpCiperList.ulCipherNum, LARGEST);
    EXPECT_EQ(g_stFtpCiperList.piCipherList, pPages);
    EXPECT_EQ(fakes::Calls("OSAK_MemMallocS"), 0U);
    g_stFtpCiperList = {0, nullptr};
    munmap(pPages, size_t{LARGEST} * 4);
}
