// The service's sealing on the real security layer: fixed vectors, a wrong key, every length.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <set>
#include <string>

#include "ftpcorpdirimpl.h"
#include "zep.h"

namespace
{

std::string FromHex(const std::string& hex)
{
    std::string bytes;
    for (std::size_t index = 0; index < hex.size(); index += 2)
    {
        bytes += static_cast<char>(std::stoi(hex.substr(index, 2), nullptr, 16));
    }
    return bytes;
}

const std::string kKey =
    FromHex("603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4");

class Sealing : public testing::Test
{
protected:
    void Put(const std::string& keyBytes, const std::string& ivBytes, const std::string& sealed)
    {
        std::copy(keyBytes.begin(), keyBytes.end(), key.begin());
        std::copy(ivBytes.begin(), ivBytes.end(), iv.begin());
        block.fill(0);
        std::copy(sealed.begin(), sealed.end(), block.begin());
    }

    unsigned int Seal(std::string text)
    {
        block.fill(0);
        sealedLength = sizeof(block);
        return CommonEncrypt(reinterpret_cast<unsigned char*>(&text[0]),
                             static_cast<unsigned int>(text.size()), key.data(), 32, iv.data(), 16,
                             block.data(), &sealedLength);
    }

    unsigned int Unseal()
    {
        plain.fill(0);
        plainLength = sizeof(plain);
        return CommonDecrypt(block.data(), 0, key.data(), 32, iv.data(), 16, plain.data(),
                             &plainLength);
    }

    std::string Plain() const
    {
        return std::string(plain.begin(), plain.begin() + plainLength);
    }

    std::array<unsigned char, 32> key{};
    std::array<unsigned char, 16> iv{};
    std::array<unsigned char, 256> block{};
    std::array<unsigned char, 256> plain{};
    unsigned int sealedLength = 0;
    unsigned int plainLength = 0;
};

// NIST SP 800-38A (2001 edition), section F.2.5, CBC-AES256; the last block is the padding.
const std::string kNistIv = FromHex("000102030405060708090a0b0c0d0e0f");
const std::string kNistPlain = FromHex(
    "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
    "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710");
const std::string kNistSealed = FromHex(
    "f58c4c04d6e5f1ba779eabfb5f7bfbd69cfc4e967edb808d679f777bc6702c7d"
    "39f23369a9d9bacfa530e26304231461b2eb05e2c39be9fcda6c19078c6a9d1b"
    "3f461796d6b0d6b2e0c2a72b4d80e644");

}  // namespace

TEST_F(Sealing, PublishedVectorsUnseal)
{
    Put(kKey, kNistIv, kNistSealed);
    EXPECT_EQ(CommonPasswordLength(block.data()), 80U);
    ASSERT_EQ(Unseal(), 0U);
    EXPECT_EQ(Plain(), kNistPlain);
}

// "secret" under the same key, made with another program: its last three bytes are zero.
TEST_F(Sealing, ABlockWhoseLastBytesAreZeroUnseals)
{
    Put(kKey, FromHex("0000000000000000000000000000cf28"),
        FromHex("d1a4301cdefe8a36f987cdc7a5000000"));
    EXPECT_EQ(CommonPasswordLength(block.data()), 16U);
    ASSERT_EQ(Unseal(), 0U);
    EXPECT_EQ(Plain(), "secret");
}

TEST_F(Sealing, AWrongKeyDoesNotUnsealThePublishedVectors)
{
    for (std::size_t wrong = 0; wrong < 32; ++wrong)
    {
        Put(kKey, kNistIv, kNistSealed);
        key[wrong] ^= 1;
        EXPECT_EQ(Unseal(), unsigned{ZEP_ERR_CIPHER}) << "byte " << wrong;
        EXPECT_EQ(std::string(plain.begin(), plain.end()).find(kNistPlain.substr(0, 16)),
                  std::string::npos);
    }
}

TEST_F(Sealing, EveryLengthRoundTripsUnderAFreshKeyAndIvEachTime)
{
    std::set<std::array<unsigned char, 32>> keys;
    std::set<std::array<unsigned char, 16>> ivs;
    for (unsigned int length = 1; length <= 255; ++length)
    {
        std::string text;
        for (unsigned int index = 0; index < length; ++index)
        {
            text += static_cast<char>('!' + (index * 7 + length) % 90);
        }
        ASSERT_EQ(Seal(text), 0U) << length;
        ASSERT_EQ(sealedLength, (length / 16 + 1) * 16) << length;
        ASSERT_EQ(CommonPasswordLength(block.data()), sealedLength) << length;
        if (length >= 16)  // a shorter text may occur in random bytes by chance
        {
            ASSERT_EQ(std::search(block.begin(), block.end(), text.begin(), text.end()),
                      block.end());
        }
        ASSERT_EQ(Unseal(), 0U) << length;
        ASSERT_EQ(Plain(), text);
        keys.insert(key);
        ivs.insert(iv);
    }
    EXPECT_EQ(keys.size(), 255U);
    EXPECT_EQ(ivs.size(), 255U);
}
