// The memory of the operating-system layer.
#include "captured_log.h"
#include "failing_calloc.h"
#include "osak.h"
#include "osak/live_memory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#endif

using testing::ElementsAre;
using testing::IsEmpty;

namespace
{
constexpr unsigned int kLine = 7;
constexpr const char* kFile = "here.cpp";

std::string TextOf(const void* address)
{
    char text[32];
    (void)std::snprintf(text, sizeof(text), "%p", address);
    return text;
}

std::string NotLive(const void* address)
{
    return "Free of " + TextOf(address) + " at here.cpp:7: it is not a live block";
}

std::string ReleasedBefore(const void* address)
{
    return "Free of " + TextOf(address) + " at here.cpp:7: it was released at first.cpp:3";
}

void AllocateAndFree(size_t size)
{
    OSAK_MemFreeD(OSAK_MemMallocD(size, kLine, kFile), kLine, kFile);
}

class OsakMemory : public testing::Test
{
protected:
    void SetUp() override
    {
        captured_log::Clear();
    }
    void TearDown() override
    {
        const osak::LiveMemory live = osak::CountLiveMemory();
        EXPECT_EQ(0U, live.blocks);
        EXPECT_EQ(0U, live.bytes);
    }
};

TEST_F(OsakMemory, BlocksAreZeroedAndAligned)
{
    for (const size_t size : {size_t{1}, size_t{72}, size_t{4097}, size_t{1} << 20})
    {
        auto* block = static_cast<unsigned char*>(OSAK_MemMallocD(size, kLine, kFile));
        ASSERT_NE(nullptr, block);
        EXPECT_EQ(0U, reinterpret_cast<std::uintptr_t>(block) % alignof(std::max_align_t));
        EXPECT_EQ(std::vector<unsigned char>(size, 0),
                  std::vector<unsigned char>(block, block + size));
        std::memset(block, 0xFF, size);
        OSAK_MemFreeD(block, kLine, kFile);
    }
}

TEST_F(OsakMemory, BlocksAreZeroedWhateverTheArgumentSays)
{
    for (const unsigned int zero : {0U, 1U})
    {
        auto* block = static_cast<unsigned char*>(OSAK_MemMallocS(64, zero, kLine, kFile));
        ASSERT_NE(nullptr, block);
        EXPECT_EQ(std::vector<unsigned char>(64, 0), std::vector<unsigned char>(block, block + 64));
        OSAK_MemFreeD(block, kLine, kFile);
    }
}

TEST_F(OsakMemory, SizesThatCannotBeGiveNull)
{
    for (const size_t size : {size_t{0}, SIZE_MAX, SIZE_MAX - 15, size_t{PTRDIFF_MAX} + 1})
    {
        EXPECT_EQ(nullptr, OSAK_MemMallocD(size, kLine, kFile));
        EXPECT_EQ(nullptr, OSAK_MemMallocS(size, 0, kLine, kFile));
    }
}

TEST_F(OsakMemory, FreeOfNullDoesNothing)
{
    OSAK_MemFreeD(nullptr, kLine, kFile);
    OSAK_MemFreeSetNullD(nullptr, kLine, kFile);
    void* none = nullptr;
    OSAK_MemFreeSetNullD(&none, kLine, kFile);
    EXPECT_THAT(captured_log::Records(), IsEmpty());
}

TEST_F(OsakMemory, FreeSetNullClearsThePointer)
{
    void* block = OSAK_MemMallocD(8, kLine, kFile);
    ASSERT_NE(nullptr, block);
    OSAK_MemFreeSetNullD(&block, kLine, kFile);
    EXPECT_EQ(nullptr, block);
    EXPECT_THAT(captured_log::Records(), IsEmpty());
}

TEST_F(OsakMemory, FreeSetNullClearsAStalePointerToo)
{
    void* block = OSAK_MemMallocD(8, kLine, kFile);
    OSAK_MemFreeD(block, 3, "first.cpp");
    void* const stale = block;
    OSAK_MemFreeSetNullD(&block, kLine, kFile);
    EXPECT_EQ(nullptr, block);
    EXPECT_THAT(captured_log::Texts(CORPDIR_LOG_ERROR), ElementsAre(ReleasedBefore(stale)));
}

TEST_F(OsakMemory, SecondFreeIsLoggedWithBothPlaces)
{
    void* const block = OSAK_MemMallocD(8, kLine, kFile);
    OSAK_MemFreeD(block, 3, "first.cpp");
    OSAK_MemFreeD(block, kLine, kFile);
    const auto records = captured_log::Records();
    ASSERT_EQ(1U, records.size());
    EXPECT_EQ("osak", records[0].module);
    EXPECT_EQ(0U, records[0].level);
    EXPECT_EQ(ReleasedBefore(block), records[0].text);
}

TEST_F(OsakMemory, FreeOfAForeignPointerIsLoggedAndNeverReadsIt)
{
    void* const page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(MAP_FAILED, page);
    OSAK_MemFreeD(page, kLine, kFile);
    EXPECT_THAT(captured_log::Texts(CORPDIR_LOG_ERROR), ElementsAre(NotLive(page)));
    EXPECT_EQ(0, munmap(page, 4096));
}

TEST_F(OsakMemory, FreeInsideABlockLeavesTheBlockLive)
{
    auto* block = static_cast<unsigned char*>(OSAK_MemMallocD(64, kLine, kFile));
    ASSERT_NE(nullptr, block);
    OSAK_MemFreeD(block + 16, kLine, kFile);
    EXPECT_THAT(captured_log::Texts(CORPDIR_LOG_ERROR), ElementsAre(NotLive(block + 16)));
    block[16] = 1;
    OSAK_MemFreeD(block, kLine, kFile);
    EXPECT_EQ(1U, captured_log::Records().size());
}

TEST_F(OsakMemory, FilesThatAreNullAreNamedByAQuestionMark)
{
    int foreign = 0;
    OSAK_MemFreeD(&foreign, kLine, nullptr);
    EXPECT_THAT(captured_log::Texts(CORPDIR_LOG_ERROR),
                ElementsAre("Free of " + TextOf(&foreign) + " at ?:7: it is not a live block"));
}

TEST_F(OsakMemory, NothingIsLoggedWithoutALogOrInAnotherMode)
{
    int foreign = 0;
    CCorpDirLog* const log = g_LogOne;
    g_LogOne = nullptr;
    OSAK_MemFreeD(&foreign, kLine, kFile);
    g_LogOne = log;
    g_LogMode = 1;
    OSAK_MemFreeD(&foreign, kLine, kFile);
    g_LogMode = 0;
    EXPECT_THAT(captured_log::Records(), IsEmpty());
}

TEST_F(OsakMemory, ReleasedAddressesAreNotHandedOutAgain)
{
    void* const released = OSAK_MemMallocD(72, kLine, kFile);
    OSAK_MemFreeD(released, 3, "first.cpp");
    std::vector<void*> blocks;
    for (int i = 0; i < 5000; ++i)
    {
        blocks.push_back(OSAK_MemMallocD(72, kLine, kFile));
        ASSERT_NE(released, blocks.back());
    }
    for (void* block : blocks)
    {
        OSAK_MemFreeD(block, kLine, kFile);
    }
}

// Whether a released block is still kept shows in what the log says of a second free.
TEST_F(OsakMemory, TheLast1024ReleasedBlocksAreKept)
{
    void* const released = OSAK_MemMallocD(72, kLine, kFile);
    OSAK_MemFreeD(released, 3, "first.cpp");
    for (int i = 0; i < 1023; ++i)
    {
        void* const other = OSAK_MemMallocD(72, kLine, kFile);
        ASSERT_NE(released, other);
        OSAK_MemFreeD(other, kLine, kFile);
    }
    OSAK_MemFreeD(released, kLine, kFile);
    void* const oneMore = OSAK_MemMallocD(72, kLine, kFile);
    OSAK_MemFreeD(oneMore, kLine, kFile);
    OSAK_MemFreeD(released, kLine, kFile);
    EXPECT_THAT(captured_log::Texts(CORPDIR_LOG_ERROR),
                ElementsAre(ReleasedBefore(released), NotLive(released)));
}

TEST_F(OsakMemory, KeptBlocksAreBoundedInBytes)
{
    void* const released = OSAK_MemMallocD(72, kLine, kFile);
    OSAK_MemFreeD(released, 3, "first.cpp");
    for (int i = 0; i < 15; ++i)
    {
        AllocateAndFree(size_t{1} << 20);
    }
    OSAK_MemFreeD(released, kLine, kFile);
    AllocateAndFree(size_t{1} << 20);
    OSAK_MemFreeD(released, kLine, kFile);
    EXPECT_THAT(captured_log::Texts(CORPDIR_LOG_ERROR),
                ElementsAre(ReleasedBefore(released), NotLive(released)));
}

TEST_F(OsakMemory, OneHugeBlockDoesNotPushTheOthersOut)
{
    void* const released = OSAK_MemMallocD(72, kLine, kFile);
    OSAK_MemFreeD(released, 3, "first.cpp");
    AllocateAndFree((size_t{16} << 20) + 1);
    OSAK_MemFreeD(released, kLine, kFile);
    EXPECT_THAT(captured_log::Texts(CORPDIR_LOG_ERROR), ElementsAre(ReleasedBefore(released)));
}

#if defined(__SANITIZE_ADDRESS__)
TEST_F(OsakMemory, TheSanitizerSeesAUseOfAReleasedBlock)
{
    auto* block = static_cast<unsigned char*>(OSAK_MemMallocD(72, kLine, kFile));
    EXPECT_FALSE(__asan_address_is_poisoned(block));
    OSAK_MemFreeD(block, kLine, kFile);
    EXPECT_TRUE(__asan_address_is_poisoned(block));
    EXPECT_TRUE(__asan_address_is_poisoned(block + 71));
}
#else
TEST_F(OsakMemory, ReleasedBlocksAreCleared)
{
    auto* block = static_cast<volatile unsigned char*>(OSAK_MemMallocD(16, kLine, kFile));
    ASSERT_NE(nullptr, block);
    block[0] = 0x5A;
    block[15] = 0x5A;
    OSAK_MemFreeD(const_cast<unsigned char*>(block), kLine, kFile);
    EXPECT_EQ(0, block[0]);  // kept, hence still memory of the process
    EXPECT_EQ(0, block[15]);
}
#endif

TEST_F(OsakMemory, LiveBlocksAreCounted)
{
    void* const first = OSAK_MemMallocD(10, kLine, kFile);
    void* const second = OSAK_MemMallocS(20, 0, kLine, kFile);
    EXPECT_EQ(2U, osak::CountLiveMemory().blocks);
    EXPECT_EQ(30U, osak::CountLiveMemory().bytes);
    OSAK_MemFreeD(first, kLine, kFile);
    EXPECT_EQ(1U, osak::CountLiveMemory().blocks);
    EXPECT_EQ(20U, osak::CountLiveMemory().bytes);
    OSAK_MemFreeD(second, kLine, kFile);
}

TEST_F(OsakMemory, ARequestWithoutMemoryGivesNull)
{
    support::FailCalloc(2);
    void* const first = OSAK_MemMallocD(8, kLine, kFile);
    void* const second = OSAK_MemMallocS(8, 0, kLine, kFile);
    void* const third = OSAK_MemMallocD(8, kLine, kFile);
    EXPECT_NE(nullptr, first);
    EXPECT_EQ(nullptr, second);
    EXPECT_NE(nullptr, third);
    OSAK_MemFreeD(first, kLine, kFile);
    OSAK_MemFreeD(third, kLine, kFile);
}

TEST_F(OsakMemory, ThreadsMayAllocateAndFreeAtOnce)
{
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int t = 0; t < 4; ++t)
    {
        threads.emplace_back(
            []
            {
                for (size_t i = 0; i < 3000; ++i)
                {
                    AllocateAndFree(1 + i % 100);
                }
            });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_THAT(captured_log::Records(), IsEmpty());
}

TEST_F(OsakMemory, TwoThreadsThatFreeOneBlockReleaseItOnce)
{
    for (int i = 0; i < 500; ++i)
    {
        void* const block = OSAK_MemMallocD(8, kLine, kFile);
        std::thread other([block] { OSAK_MemFreeD(block, kLine, kFile); });
        OSAK_MemFreeD(block, kLine, kFile);
        other.join();
    }
    EXPECT_EQ(500U, captured_log::CountWith("Free of "));
}

}  // namespace
