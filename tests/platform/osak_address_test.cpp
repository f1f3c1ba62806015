// The strings and addresses of the operating-system layer.
#include "osak.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <vector>

namespace
{
TEST(OsakText, StrLenCountsBytes)
{
    EXPECT_EQ(0U, OSAK_StrLen(""));
    EXPECT_EQ(5U, OSAK_StrLen("a\xFF b\n"));
    EXPECT_EQ(100000U, OSAK_StrLen(std::string(100000, 'x').c_str()));
}

TEST(OsakText, NullCountsAsEmpty)
{
    EXPECT_EQ(0U, OSAK_StrLen(nullptr));
    EXPECT_EQ(0, OSAK_StrCmp(nullptr, nullptr));
    EXPECT_EQ(0, OSAK_StrCmp(nullptr, ""));
    EXPECT_EQ(0, OSAK_StrCmp("", nullptr));
    EXPECT_LT(OSAK_StrCmp(nullptr, "a"), 0);
    EXPECT_GT(OSAK_StrCmp("a", nullptr), 0);
}

TEST(OsakText, StrCmpOrdersByUnsignedBytes)
{
    EXPECT_EQ(0, OSAK_StrCmp("same", "same"));
    EXPECT_LT(OSAK_StrCmp("a", "b"), 0);
    EXPECT_LT(OSAK_StrCmp("a", "aa"), 0);
    EXPECT_GT(OSAK_StrCmp("\xFF", "a"), 0);
}

// The sanitizers' shadow of 4 GiB does not fit small machines.
#if !defined(__SANITIZE_THREAD__) && !defined(__SANITIZE_ADDRESS__)
TEST(OsakText, StrLenSaturatesBeyond32Bits)
{
    // One piece of memory, mapped again and again.
    constexpr size_t kPiece = size_t{1} << 21;
    constexpr size_t kSize = (size_t{1} << 32) + kPiece;
    const int piece = memfd_create("text", 0);
    ASSERT_GE(piece, 0);
    ASSERT_EQ(static_cast<ssize_t>(kPiece), write(piece, std::string(kPiece, 'x').data(), kPiece));
    auto* text = static_cast<char*>(
        mmap(nullptr, kSize + 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
    ASSERT_NE(MAP_FAILED, static_cast<void*>(text));
    for (size_t offset = 0; offset < kSize; offset += kPiece)
    {
        ASSERT_NE(MAP_FAILED,
                  mmap(text + offset, kPiece, PROT_READ, MAP_SHARED | MAP_FIXED, piece, 0));
    }
    EXPECT_EQ(UINT_MAX, OSAK_StrLen(text));
    EXPECT_EQ(UINT_MAX, OSAK_StrLen(text + kPiece));      // 2^32 bytes
    EXPECT_EQ(UINT_MAX, OSAK_StrLen(text + kPiece + 1));  // 2^32 - 1
    EXPECT_EQ(UINT_MAX - 1, OSAK_StrLen(text + kPiece + 2));
    EXPECT_EQ(0, munmap(text, kSize + 4096));
    EXPECT_EQ(0, close(piece));
}
#endif

TEST(OsakAddress, InetPtonConvertsBothFamilies)
{
    const std::vector<unsigned char> four = {192, 0, 2, 1};
    const std::vector<unsigned char> six = {0x20, 0x01, 0x0D, 0xB8, 0, 0, 0, 0,
                                            0,    0,    0,    0,    0, 0, 0, 1};
    unsigned char dest[16] = {};
    EXPECT_EQ(1, OSAK_Inet_Pton(AF_INET, "192.0.2.1", dest));
    EXPECT_EQ(four, std::vector<unsigned char>(dest, dest + 4));
    EXPECT_EQ(1, OSAK_Inet_Pton(AF_INET6, "2001:db8::1", dest));
    EXPECT_EQ(six, std::vector<unsigned char>(dest, dest + 16));
}

TEST(OsakAddress, InetPtonRefusesWhatIsNoAddress)
{
    unsigned char dest[16] = {};
    for (const char* text : {"", "host", "192.0.2", "192.0.2.256", "192.0.2.1 ", "::1"})
    {
        EXPECT_EQ(0, OSAK_Inet_Pton(AF_INET, text, dest)) << text;
    }
    for (const char* text : {"", "host", "192.0.2.1", ":::", "fe80::1%lo"})
    {
        EXPECT_EQ(0, OSAK_Inet_Pton(AF_INET6, text, dest)) << text;
    }
}

TEST(OsakAddress, InetPtonReportsAnUnknownFamily)
{
    unsigned char dest[16] = {};
    EXPECT_EQ(-1, OSAK_Inet_Pton(AF_UNIX, "192.0.2.1", dest));
    EXPECT_EQ(EAFNOSUPPORT, errno);
}

TEST(OsakAddress, InetPtonOfNullIsNoAddress)
{
    unsigned char dest[16] = {};
    EXPECT_EQ(0, OSAK_Inet_Pton(AF_INET, nullptr, dest));
    EXPECT_EQ(0, OSAK_Inet_Pton(AF_INET, "192.0.2.1", nullptr));
}

TEST(OsakAddress, InetAddrTakesNumbersAndDots)
{
    EXPECT_EQ(htonl(0xC0000201), OSAK_InetAddr("192.0.2.1"));
    EXPECT_EQ(htonl(0x7F000001), OSAK_InetAddr("127.1"));
    EXPECT_EQ(htonl(0x7F000001), OSAK_InetAddr("0x7f000001"));
    EXPECT_EQ(htonl(0x7F000001), OSAK_InetAddr("2130706433"));
}

TEST(OsakAddress, InetAddrOfAnythingElseIsAllOnes)
{
    for (const char* text : {"", "host", "192.0.2.256", "1.2.3.4.5", "::1"})
    {
        EXPECT_EQ(0xFFFFFFFFU, OSAK_InetAddr(text)) << text;
    }
    EXPECT_EQ(0xFFFFFFFFU, OSAK_InetAddr(nullptr));
}

TEST(OsakAddress, GetAddrInfoResolvesNumericNodes)
{
    struct addrinfo* result = nullptr;
    ASSERT_EQ(0, OSAK_GetAddrInfo("127.0.0.1", "0", nullptr, &result));
    ASSERT_NE(nullptr, result);
    EXPECT_EQ(AF_INET, result->ai_family);
    OSAK_FreeAddrInfo(result);
    ASSERT_EQ(0, OSAK_GetAddrInfo("::1", "0", nullptr, &result));
    ASSERT_NE(nullptr, result);
    EXPECT_EQ(AF_INET6, result->ai_family);
    OSAK_FreeAddrInfo(result);
}

TEST(OsakAddress, GetAddrInfoResolvesNames)
{
    struct addrinfo* result = nullptr;
    ASSERT_EQ(0, OSAK_GetAddrInfo("localhost", "0", nullptr, &result));
    ASSERT_NE(nullptr, result);
    ASSERT_NE(nullptr, result->ai_addr);
    OSAK_FreeAddrInfo(result);
}

TEST(OsakAddress, GetAddrInfoThatFailsLeavesNoResult)
{
    struct addrinfo hints = {};
    hints.ai_flags = AI_NUMERICHOST;
    struct addrinfo poison = {};
    struct addrinfo* result = &poison;
    EXPECT_EQ(EAI_NONAME, OSAK_GetAddrInfo("localhost", "0", &hints, &result));
    EXPECT_EQ(nullptr, result);
    result = &poison;
    EXPECT_EQ(EAI_NONAME, OSAK_GetAddrInfo(nullptr, nullptr, nullptr, &result));
    EXPECT_EQ(nullptr, result);
}

TEST(OsakAddress, GetAddrInfoNeedsAPlaceForTheResult)
{
    EXPECT_EQ(EAI_FAIL, OSAK_GetAddrInfo("127.0.0.1", "0", nullptr, nullptr));
}

TEST(OsakAddress, FreeAddrInfoOfNullDoesNothing)
{
    OSAK_FreeAddrInfo(nullptr);
}

}  // namespace
