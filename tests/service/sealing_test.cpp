// Sealing of the password: sizes, failures, and the length that is found from the padded block.
#include <cstring>

#include "service_test.h"

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

namespace
{

class SealingTest : public ServiceTest
{
protected:
    unsigned int Seal(const std::string& strPlain, unsigned int ulCapacity)
    {
        ulLength = ulCapacity;
        std::string strCopy = strPlain;
        return CommonEncrypt(reinterpret_cast<unsigned char*>(&strCopy[0]),
                             static_cast<unsigned int>(strCopy.size()), aucKey, 32, aucIV, 16,
                             aucBlock, &ulLength);
    }

    unsigned int Unseal(unsigned int ulSealedLen = 0)
    {
        ulPlainLength = sizeof(aucPlain);
        return CommonDecrypt(aucBlock, ulSealedLen, aucKey, 32, aucIV, 16, aucPlain,
                             &ulPlainLength);
    }

    std::string Plain() const
    {
        return std::string(reinterpret_cast<const char*>(aucPlain), ulPlainLength);
    }

    unsigned char aucKey[32] = {};
    unsigned char aucIV[16] = {};
    unsigned char aucBlock[256] = {};
    unsigned int ulLength = 0;
    unsigned char aucPlain[256] = {};
    unsigned int ulPlainLength = 0;
};

}  // namespace

TEST_F(SealingTest, DrawsKeyThenIVThenAsksForTheBlockSizeThenEncrypts)
{
    EXPECT_EQ(Seal("secret", 256), 0U);
    EXPECT_EQ(ulLength, 16U);
    EXPECT_THAT(Trace(),
                ElementsAre("ZEP_CPYPT_RealRandom(32)", "ZEP_CPYPT_RealRandom(16)",
                            "ZEP_CRYPT_GetblockSize(0)", "ZEP_CPYPT_Encrypt(0, 32, 16, 6, 256)"));
    EXPECT_THAT(aucKey, Not(Each(0)));
    EXPECT_THAT(aucIV, Not(Each(0)));
}

TEST_F(SealingTest, KeyAndIVHaveTheLengthsThatTheCallerGave)
{
    fakes::FailCall("ZEP_CPYPT_Encrypt", 1, 4);
    fakes::FailCall("ZEP_CPYPT_Decrypt", 1, 4);
    unsigned char aucShort[1] = {'x'};
    ulLength = 16;
    EXPECT_EQ(CommonEncrypt(aucShort, 1, aucKey, 24, aucIV, 12, aucBlock, &ulLength), 4U);
    EXPECT_EQ(CommonDecrypt(aucBlock, 0, aucKey, 24, aucIV, 12, aucPlain, &ulPlainLength), 4U);
    EXPECT_THAT(Only(Trace(), {"ZEP"}),
                ElementsAre("ZEP_CPYPT_RealRandom(24)", "ZEP_CPYPT_RealRandom(12)",
                            "ZEP_CRYPT_GetblockSize(0)", "ZEP_CPYPT_Encrypt(0, 24, 12, 1, 16) = 4",
                            "ZEP_CPYPT_Decrypt(0, 24, 12, 0, 0) = 4"));
}

// For 2^32 - 1 bytes the size wraps to 0, for which any capacity is enough.
TEST_F(SealingTest, TheRequiredSizeIsAnUnsigned32BitNumber)
{
    fakes::FailCall("ZEP_CPYPT_Encrypt", 1, 4);
    ulLength = 0;
    EXPECT_EQ(CommonEncrypt(aucPlain, 0xFFFFFFFF, aucKey, 32, aucIV, 16, aucBlock, &ulLength), 4U);
    EXPECT_EQ(fakes::Calls("ZEP_CPYPT_Encrypt"), 1U);
}

TEST_F(SealingTest, APlainTextNeedsItsBlocksAndAlwaysSomePadding)
{
    for (const unsigned int ulPlain : {0U, 16U, 255U})
    {
        const unsigned int ulNeeded = (ulPlain / 16 + 1) * 16;
        EXPECT_EQ(Seal(std::string(ulPlain, 'x'), ulNeeded), 0U);
        EXPECT_EQ(ulLength, ulNeeded);
        Trace();
        Logged();
        EXPECT_EQ(Seal(std::string(ulPlain, 'x'), ulNeeded - 1), 1U);
        EXPECT_EQ(ulLength, 0U);
        EXPECT_THAT(Logged(), ElementsAre("0 CommonEncrypt: out buffer is not enough."));
        EXPECT_THAT(Only(Trace(), {"ZEP_CPYPT_Encrypt"}), IsEmpty());
    }
}

TEST_F(SealingTest, MakesBothDrawsAndJoinsTheirCodes)
{
    struct Draws
    {
        unsigned int ulKey;
        unsigned int ulIV;
        const char* pszJoined;
    };
    for (const Draws& draws :
         {Draws{5, 10, "15"}, Draws{0, 0x80000000, "2147483648"}, Draws{3, 0, "3"}})
    {
        fakes::FailCall("ZEP_CPYPT_RealRandom", 1, draws.ulKey);
        fakes::FailCall("ZEP_CPYPT_RealRandom", 2, draws.ulIV);
        EXPECT_EQ(Seal("secret", 256), draws.ulKey | draws.ulIV);
        EXPECT_EQ(ulLength, 0U);
        EXPECT_THAT(Logged(), ElementsAre("0 CommonEncrypt: Get RealRandom failed, errno is " +
                                          std::string(draws.pszJoined) + " ."));
        EXPECT_THAT(Only(Trace(), {"ZEP_CPYPT_RealRandom(32)", "ZEP_CPYPT_RealRandom(16)",
                                   "ZEP_CRYPT", "ZEP_CPYPT_Encrypt"}),
                    testing::SizeIs(2))
            << "both draws are made, and nothing else";
    }
}

TEST_F(SealingTest, PassesTheCiphersCodeAndLeavesTheLengthToIt)
{
    fakes::FailCall("ZEP_CPYPT_Encrypt", 1, 0xFFFFFFFF);
    EXPECT_EQ(Seal("secret", 256), 0xFFFFFFFFU);
    EXPECT_EQ(ulLength, 256U) << "as the cipher left it";
    EXPECT_THAT(Logged(), ElementsAre("0 CommonEncrypt: ZEP_CPYPT_Encrypt error : 4294967295"));
}

TEST_F(SealingTest, ACipherWithoutABlockSizeFailsInsteadOfDividingByZero)
{
    fakes::FailCall("ZEP_CRYPT_GetblockSize", 1, 0);
    EXPECT_NE(Seal("secret", 256), 0U);
    EXPECT_EQ(ulLength, 0U);
    EXPECT_EQ(fakes::Calls("ZEP_CPYPT_Encrypt"), 0U);
}

TEST_F(SealingTest, TheBlockSizeIsTheCryptoLayersInTheCapacityRule)
{
    fakes::FailCall("ZEP_CRYPT_GetblockSize", 1, 64);
    EXPECT_EQ(Seal("secret", 63), 1U);
    fakes::FailCall("ZEP_CRYPT_GetblockSize", 1, 64);
    EXPECT_EQ(Seal("secret", 64), 0U);
}

// --- The length of a sealed password ------------------------------------------------------------

// A sealed text that ends in sixteen zero bytes, one in 2^128, is therefore taken for a shorter
// one.
TEST_F(SealingTest, TheLengthEndsWithTheSixteenBytesThatHoldTheLastNonZeroByte)
{
    EXPECT_EQ(CommonPasswordLength(aucBlock), 0U);
    for (unsigned int ulIndex = 0; ulIndex < 256; ++ulIndex)
    {
        std::memset(aucBlock, 0, sizeof(aucBlock));
        aucBlock[ulIndex] = 1;
        EXPECT_EQ(CommonPasswordLength(aucBlock), (ulIndex / 16 + 1) * 16) << ulIndex;
    }
    std::memset(aucBlock, 0, sizeof(aucBlock));
    aucBlock[0] = 1;
    EXPECT_EQ(CommonPasswordLength(aucBlock), 16U);
    aucBlock[16] = 1;
    EXPECT_EQ(CommonPasswordLength(aucBlock), 32U);
    aucBlock[255] = 1;
    EXPECT_EQ(CommonPasswordLength(aucBlock), 256U);
    EXPECT_THAT(Trace(), IsEmpty()) << "the block size is fixed: the crypto layer is not asked";
}

// --- Unsealing ----------------------------------------------------------------------------------

TEST_F(SealingTest, UnsealingIgnoresTheLengthItIsGiven)
{
    ASSERT_EQ(Seal("secret", 256), 0U);
    for (const unsigned int ulWrong : {0U, 1U, 15U, 255U, 0xFFFFFFFFU})
    {
        Trace();
        EXPECT_EQ(Unseal(ulWrong), 0U);
        EXPECT_EQ(Plain(), "secret");
        EXPECT_THAT(Trace(), ElementsAre("ZEP_CPYPT_Decrypt(0, 32, 16, 16, 256)"));
    }
}

TEST_F(SealingTest, UnsealingPassesTheCiphersCode)
{
    ASSERT_EQ(Seal("secret", 256), 0U);
    fakes::FailCall("ZEP_CPYPT_Decrypt", 1, 0xFFFFFFFE);
    EXPECT_EQ(Unseal(), 0xFFFFFFFEU);
    EXPECT_THAT(Logged(), ElementsAre("0 CommonDecrypt: ZEP_CPYPT_Decrypt error : 4294967294"));
}

TEST_F(SealingTest, AnEmptyBlockDoesNotUnseal)
{
    EXPECT_NE(Unseal(), 0U);
    EXPECT_THAT(Trace(), ElementsAre("ZEP_CPYPT_Decrypt(0, 32, 16, 0, 256)",
                                     "log 0 CommonDecrypt: ZEP_CPYPT_Decrypt error : 1"));
}
