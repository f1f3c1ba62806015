// The bounded helpers, a table of edges for each.
#include "zep.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <string>

namespace
{
constexpr std::size_t kHuge = SIZE_MAX;
constexpr std::size_t kLargest = PTRDIFF_MAX;  // that any object can have

// Sixteen bytes "abcdefghijklmnop" of which the cases use offsets.
class ZepBounded : public testing::Test
{
protected:
    std::string Arena() const
    {
        return {m_arena.begin(), m_arena.end()};
    }
    char* At(std::size_t offset)
    {
        return m_arena.data() + offset;
    }
    void Fill()
    {
        memcpy(m_arena.data(), "abcdefghijklmnop", m_arena.size());
    }
    void SetUp() override
    {
        Fill();
    }

private:
    std::array<char, 16> m_arena;
};

TEST_F(ZepBounded, CopyTable)
{
    constexpr int kNull = -1;
    struct Case
    {
        const char* name;
        int dest;
        std::size_t destMax;
        int src;
        std::size_t count;
        int code;
        const char* after;
    };
    const Case kCases[] = {
        {"null destination", kNull, 4, 8, 4, ZEP_ERR_PARAM, "abcdefghijklmnop"},
        {"null destination, no bytes", kNull, 0, 8, 0, ZEP_ERR_PARAM, "abcdefghijklmnop"},
        {"null source", 0, 4, kNull, 4, ZEP_ERR_PARAM, "abcdefghijklmnop"},
        {"null source, no bytes", 0, 4, kNull, 0, ZEP_ERR_PARAM, "abcdefghijklmnop"},
        {"no bytes", 0, 4, 8, 0, ZEP_OK, "abcdefghijklmnop"},
        {"no bytes, no room", 0, 0, 8, 0, ZEP_OK, "abcdefghijklmnop"},
        {"no bytes, the same place", 0, 4, 0, 0, ZEP_OK, "abcdefghijklmnop"},
        {"no room", 0, 0, 8, 1, ZEP_ERR_CAPACITY, "abcdefghijklmnop"},
        {"one byte", 0, 1, 8, 1, ZEP_OK, "ibcdefghijklmnop"},
        {"exact fit", 0, 4, 8, 4, ZEP_OK, "ijklefghijklmnop"},
        {"room to spare", 0, 8, 8, 4, ZEP_OK, "ijklefghijklmnop"},
        {"one over", 0, 4, 8, 5, ZEP_ERR_CAPACITY, "abcdefghijklmnop"},
        {"huge count", 0, 4, 8, kHuge, ZEP_ERR_CAPACITY, "abcdefghijklmnop"},
        {"huge count minus one", 0, kHuge - 1, 8, kHuge, ZEP_ERR_CAPACITY, "abcdefghijklmnop"},
        {"huge both", 0, kHuge, 8, kHuge, ZEP_ERR_CAPACITY, "abcdefghijklmnop"},
        {"more than an object can have", 0, kHuge, 8, kLargest + 1, ZEP_ERR_CAPACITY,
         "abcdefghijklmnop"},
        {"as much as an object can have", 0, kHuge, 8, kLargest, ZEP_ERR_OVERLAP,
         "abcdefghijklmnop"},
        {"huge room", 0, kHuge, 8, 4, ZEP_OK, "ijklefghijklmnop"},
        {"neighbours, destination first", 0, 8, 8, 8, ZEP_OK, "ijklmnopijklmnop"},
        {"neighbours, source first", 8, 8, 0, 8, ZEP_OK, "abcdefghabcdefgh"},
        {"overlap by one, destination first", 0, 9, 8, 9, ZEP_ERR_OVERLAP, "abcdefghijklmnop"},
        {"overlap by one, source first", 7, 9, 0, 8, ZEP_ERR_OVERLAP, "abcdefghijklmnop"},
        {"the same place", 4, 4, 4, 4, ZEP_ERR_OVERLAP, "abcdefghijklmnop"},
    };
    for (const Case& c : kCases)
    {
        SCOPED_TRACE(c.name);
        Fill();
        char* const dest = c.dest == kNull ? nullptr : At(static_cast<std::size_t>(c.dest));
        const char* const src = c.src == kNull ? nullptr : At(static_cast<std::size_t>(c.src));
        EXPECT_EQ(zep_memcpy_s(dest, c.destMax, src, c.count), c.code);
        EXPECT_EQ(Arena(), c.after);
    }
}

TEST_F(ZepBounded, SetTable)
{
    struct Case
    {
        const char* name;
        bool isNull;
        std::size_t destMax;
        int value;
        std::size_t count;
        int code;
        const char* after;
    };
    const Case kCases[] = {
        {"null", true, 4, '#', 4, ZEP_ERR_PARAM, "abcdefghijklmnop"},
        {"null, no bytes", true, 0, '#', 0, ZEP_ERR_PARAM, "abcdefghijklmnop"},
        {"no bytes", false, 4, '#', 0, ZEP_OK, "abcdefghijklmnop"},
        {"no bytes, no room", false, 0, '#', 0, ZEP_OK, "abcdefghijklmnop"},
        {"no room", false, 0, '#', 1, ZEP_ERR_CAPACITY, "abcdefghijklmnop"},
        {"one byte", false, 1, '#', 1, ZEP_OK, "#bcdefghijklmnop"},
        {"exact fit", false, 4, '#', 4, ZEP_OK, "####efghijklmnop"},
        {"room to spare", false, 8, '#', 4, ZEP_OK, "####efghijklmnop"},
        {"one over", false, 4, '#', 5, ZEP_ERR_CAPACITY, "abcdefghijklmnop"},
        {"huge count", false, 4, '#', kHuge, ZEP_ERR_CAPACITY, "abcdefghijklmnop"},
        {"huge both", false, kHuge, '#', kHuge, ZEP_ERR_CAPACITY, "abcdefghijklmnop"},
        {"more than an object can have", false, kHuge, '#', kLargest + 1, ZEP_ERR_CAPACITY,
         "abcdefghijklmnop"},
        {"huge room", false, kHuge, '#', 4, ZEP_OK, "####efghijklmnop"},
        {"the value's low byte", false, 2, 0x12340000 + '#', 2, ZEP_OK, "##cdefghijklmnop"},
    };
    for (const Case& c : kCases)
    {
        SCOPED_TRACE(c.name);
        Fill();
        EXPECT_EQ(zep_memset_s(c.isNull ? nullptr : At(0), c.destMax, c.value, c.count), c.code);
        EXPECT_EQ(Arena(), c.after);
    }
}

TEST_F(ZepBounded, TextTable)
{
    struct Case
    {
        const char* name;
        std::size_t destMax;
        const char* src;
        std::size_t count;
        int code;
        std::string after;
    };
    const std::string kRefused = std::string(1, '\0') + "bcdefghijklmnop";
    const std::string kWhole = "abcdefghijklmnop";
    const std::string kTwo = std::string("xy") + '\0' + "defghijklmnop";
    const Case kCases[] = {
        {"null source", 4, nullptr, 2, ZEP_ERR_PARAM, kRefused},
        {"null source, no bytes", 4, nullptr, 0, ZEP_ERR_PARAM, kRefused},
        {"null source, no room", 0, nullptr, 2, ZEP_ERR_PARAM, kWhole},
        {"no room", 0, "xy", 2, ZEP_ERR_CAPACITY, kWhole},
        {"no room, no bytes", 0, "xy", 0, ZEP_ERR_CAPACITY, kWhole},
        {"no bytes", 4, "xy", 0, ZEP_OK, kRefused},
        {"empty text", 4, "", 4, ZEP_OK, kRefused},
        {"room for the terminator alone, empty text", 1, "", 4, ZEP_OK, kRefused},
        {"room for the terminator alone", 1, "x", 1, ZEP_ERR_CAPACITY, kRefused},
        {"exact fit with its terminator", 3, "xy", 2, ZEP_OK, kTwo},
        {"one short of the terminator", 2, "xy", 2, ZEP_ERR_CAPACITY, kRefused},
        {"text ends before the count", 3, "xy", 9, ZEP_OK, kTwo},
        {"count ends before the text", 3, "xyz", 2, ZEP_OK, kTwo},
        {"huge count", 3, "xy", kHuge, ZEP_ERR_CAPACITY, kRefused},
        {"huge both", kHuge, "xy", kHuge, ZEP_ERR_CAPACITY, kRefused},
        {"more than an object can have", 3, "xy", kLargest + 1, ZEP_ERR_CAPACITY, kRefused},
        {"as much as an object can have", 3, "xy", kLargest, ZEP_OK, kTwo},
        {"as much as an object can have, text too long", 3, "xyz", kLargest, ZEP_ERR_CAPACITY,
         kRefused},
        {"huge room", kHuge, "xy", 2, ZEP_OK, kTwo},
    };
    for (const Case& c : kCases)
    {
        SCOPED_TRACE(c.name);
        Fill();
        EXPECT_EQ(zep_strncpy_s(At(0), c.destMax, c.src, c.count), c.code);
        EXPECT_EQ(Arena(), c.after);
    }
    EXPECT_EQ(zep_strncpy_s(nullptr, 4, "xy", 2), ZEP_ERR_PARAM);
}

TEST_F(ZepBounded, TextsThatOverlapAreRefused)
{
    memcpy(At(0), "0123456", 8);  // and its terminator
    EXPECT_EQ(zep_strncpy_s(At(4), 12, At(0), 7), ZEP_ERR_OVERLAP);
    EXPECT_EQ(Arena().substr(0, 5), std::string("0123") + '\0');
    memcpy(At(4), "0123456", 8);
    EXPECT_EQ(zep_strncpy_s(At(0), 8, At(4), 7), ZEP_ERR_OVERLAP);
    EXPECT_EQ(*At(0), '\0');
}

// The terminator counts as written: it must not fall onto the source.
TEST_F(ZepBounded, ATerminatorOnTheSourceIsAnOverlap)
{
    memcpy(At(4), "wxyz", 5);
    EXPECT_EQ(zep_strncpy_s(At(0), 5, At(4), 4), ZEP_ERR_OVERLAP);
    memcpy(At(5), "wxyz", 5);
    EXPECT_EQ(zep_strncpy_s(At(0), 5, At(5), 4), ZEP_OK);
    EXPECT_STREQ(At(0), "wxyz");
}

// Exactly sized blocks, so that the address sanitizer sees a read of one byte too many.
TEST(ZepBoundedReads, NoMoreOfATextIsReadThanCanFitOrIsAsked)
{
    const std::unique_ptr<char[]> unterminated(new char[4]{'w', 'x', 'y', 'z'});
    char dest[8];
    EXPECT_EQ(zep_strncpy_s(dest, sizeof dest, unterminated.get(), 4), ZEP_OK);
    EXPECT_STREQ(dest, "wxyz");
    EXPECT_EQ(zep_strncpy_s(dest, 4, unterminated.get(), kLargest), ZEP_ERR_CAPACITY);
    EXPECT_STREQ(dest, "");
}

}  // namespace
