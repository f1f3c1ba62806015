// Random bytes: all of them are drawn, and a source that fails is an error. The crypto library's
// function is replaced at link time by one that can be told to fail.
#include "zep.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <set>
#include <vector>

namespace
{
int g_failingCall = 0;  // 1: the next one; 0: none

}  // namespace

extern "C" __attribute__((visibility("default"))) int RAND_priv_bytes(unsigned char* buffer,
                                                                      int size)
{
    using Function = int (*)(unsigned char*, int);
    static const auto s_real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "RAND_priv_bytes"));
    if (g_failingCall != 0 && --g_failingCall == 0)
    {
        std::fill_n(buffer, size / 2, static_cast<unsigned char>(0x77));  // half a key
        return 0;
    }
    return s_real(buffer, size);
}

namespace
{
using Key = std::array<unsigned char, 32>;

TEST(ZepRandom, FillsEveryByte)
{
    for (unsigned int size = 1; size <= 64; ++size)
    {
        std::vector<unsigned char> seen(size, 0);  // all bits that ever were set
        std::vector<unsigned char> buffer(size + 1, 0);
        for (int round = 0; round < 64; ++round)
        {
            ASSERT_EQ(ZEP_CPYPT_RealRandom(buffer.data(), size), 0U);
            for (unsigned int index = 0; index < size; ++index)
            {
                seen[index] = static_cast<unsigned char>(seen[index] | buffer[index]);
            }
        }
        EXPECT_EQ(seen, std::vector<unsigned char>(size, 0xFF)) << size;
        EXPECT_EQ(buffer[size], 0) << "written past the end";
    }
}

TEST(ZepRandom, NeverRepeats)
{
    std::set<Key> keys;
    for (int round = 0; round < 10000; ++round)
    {
        Key key;
        ASSERT_EQ(ZEP_CPYPT_RealRandom(key.data(), key.size()), 0U);
        EXPECT_TRUE(keys.insert(key).second);
    }
}

TEST(ZepRandom, ASourceThatFailsIsAnErrorAndLeavesNoHalfKey)
{
    Key key;
    key.fill(0x11);
    g_failingCall = 1;
    EXPECT_EQ(ZEP_CPYPT_RealRandom(key.data(), key.size()), ZEP_ERR_RANDOM);
    EXPECT_EQ(key, Key{});
    EXPECT_EQ(ZEP_CPYPT_RealRandom(key.data(), key.size()), 0U);
    EXPECT_NE(key, Key{});
}

TEST(ZepRandom, Null)
{
    EXPECT_EQ(ZEP_CPYPT_RealRandom(nullptr, 1), ZEP_ERR_PARAM);
    EXPECT_EQ(ZEP_CPYPT_RealRandom(nullptr, 0), 0U);
}

}  // namespace
