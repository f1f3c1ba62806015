// The block cipher against published vectors, at every length, and with everything wrong.
#include "zep.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string>
#include <vector>

namespace
{
using Bytes = std::vector<unsigned char>;

constexpr unsigned int kBlock = 16;
constexpr unsigned char kCanary = 0xA5;

Bytes FromHex(const std::string& hex)
{
    Bytes bytes;
    for (std::size_t index = 0; index < hex.size(); index += 2)
    {
        bytes.push_back(static_cast<unsigned char>(std::stoi(hex.substr(index, 2), nullptr, 16)));
    }
    return bytes;
}

// NIST SP 800-38A (2001 edition), sections F.2.5 and F.2.6: CBC-AES256. The vectors are not padded,
// so an encryption of ours begins with the published blocks and adds one.
const Bytes kKey = FromHex("603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4");
const Bytes kIv = FromHex("000102030405060708090a0b0c0d0e0f");
const Bytes kNistPlain = FromHex(
    "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
    "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710");
const Bytes kNistCipher = FromHex(
    "f58c4c04d6e5f1ba779eabfb5f7bfbd69cfc4e967edb808d679f777bc6702c7d"
    "39f23369a9d9bacfa530e26304231461b2eb05e2c39be9fcda6c19078c6a9d1b");

struct Outcome
{
    unsigned int code;
    unsigned int size;
    Bytes buffer;  // the whole one, a canary of a block behind the capacity included
};

using Operation = decltype(&ZEP_CPYPT_Encrypt);

Outcome Call(Operation operation, const Bytes& in, unsigned int capacity, const Bytes& iv = kIv,
             const Bytes& key = kKey, unsigned int alg = 0)
{
    Outcome outcome{0, capacity, Bytes(capacity + kBlock, kCanary)};
    outcome.code =
        operation(alg, key.data(), static_cast<unsigned int>(key.size()), iv.data(),
                  static_cast<unsigned int>(iv.size()), in.data(),
                  static_cast<unsigned int>(in.size()), outcome.buffer.data(), &outcome.size);
    return outcome;
}

Bytes Result(const Outcome& outcome)
{
    return {outcome.buffer.begin(), outcome.buffer.begin() + outcome.size};
}

bool IsUntouchedFrom(const Outcome& outcome, std::size_t offset)
{
    return std::all_of(outcome.buffer.begin() + static_cast<std::ptrdiff_t>(offset),
                       outcome.buffer.end(), [](unsigned char byte) { return byte == kCanary; });
}

void ExpectRefused(const Outcome& outcome, unsigned int code)
{
    EXPECT_EQ(outcome.code, code);
    EXPECT_EQ(outcome.size, 0U);
    EXPECT_TRUE(IsUntouchedFrom(outcome, 0));
}

Bytes Plain(std::size_t size)
{
    Bytes bytes(size);
    for (std::size_t index = 0; index < size; ++index)
    {
        bytes[index] = static_cast<unsigned char>(index * 7 + size);
    }
    return bytes;
}

Bytes Encrypted(const Bytes& plain)
{
    const Outcome outcome =
        Call(ZEP_CPYPT_Encrypt, plain, static_cast<unsigned int>(plain.size()) + kBlock);
    EXPECT_EQ(outcome.code, 0U);
    return Result(outcome);
}

TEST(ZepCipher, EncryptsTheNistVectors)
{
    const Bytes cipher = Encrypted(kNistPlain);
    ASSERT_EQ(cipher.size(), kNistCipher.size() + kBlock);
    EXPECT_TRUE(std::equal(kNistCipher.begin(), kNistCipher.end(), cipher.begin()));
}

TEST(ZepCipher, DecryptsTheNistVectors)
{
    // The published blocks, and behind them a padding block made with the published last block as
    // its IV, which is what CBC would have continued with.
    Bytes cipher = kNistCipher;
    const Outcome padding =
        Call(ZEP_CPYPT_Encrypt, {}, kBlock, Bytes(kNistCipher.end() - kBlock, kNistCipher.end()));
    const Bytes last = Result(padding);
    cipher.insert(cipher.end(), last.begin(), last.end());
    const Outcome outcome =
        Call(ZEP_CPYPT_Decrypt, cipher, static_cast<unsigned int>(kNistPlain.size()));
    EXPECT_EQ(outcome.code, 0U);
    EXPECT_EQ(Result(outcome), kNistPlain);
}

TEST(ZepCipher, RoundTripOfEveryLengthInBuffersOfExactlyTheRightSize)
{
    for (unsigned int size = 0; size <= 300; ++size)
    {
        SCOPED_TRACE(size);
        const Bytes plain = Plain(size);
        const unsigned int cipherSize = (size / kBlock + 1) * kBlock;
        const Outcome sealed = Call(ZEP_CPYPT_Encrypt, plain, cipherSize);
        ASSERT_EQ(sealed.code, 0U);
        ASSERT_EQ(sealed.size, cipherSize);
        EXPECT_TRUE(IsUntouchedFrom(sealed, cipherSize));
        const Outcome opened = Call(ZEP_CPYPT_Decrypt, Result(sealed), size);
        ASSERT_EQ(opened.code, 0U);
        EXPECT_EQ(Result(opened), plain);
        EXPECT_TRUE(IsUntouchedFrom(opened, size));
    }
}

TEST(ZepCipher, RoundTripInPlaceOfEveryLength)
{
    for (unsigned int size = 0; size <= 300; ++size)
    {
        SCOPED_TRACE(size);
        const Bytes plain = Plain(size);
        Bytes buffer = plain;
        buffer.resize(size + kBlock, kCanary);
        auto length = static_cast<unsigned int>(buffer.size());
        ASSERT_EQ(ZEP_CPYPT_Encrypt(0, kKey.data(), 32, kIv.data(), 16, buffer.data(), size,
                                    buffer.data(), &length),
                  0U);
        ASSERT_EQ(Bytes(buffer.begin(), buffer.begin() + length), Encrypted(plain));
        unsigned int opened = length;
        ASSERT_EQ(ZEP_CPYPT_Decrypt(0, kKey.data(), 32, kIv.data(), 16, buffer.data(), length,
                                    buffer.data(), &opened),
                  0U);
        EXPECT_EQ(Bytes(buffer.begin(), buffer.begin() + opened), plain);
    }
}

TEST(ZepCipher, OneByteShortIsRefusedAndNothingIsWritten)
{
    for (unsigned int size = 0; size <= 64; ++size)
    {
        SCOPED_TRACE(size);
        const Bytes plain = Plain(size);
        const Bytes cipher = Encrypted(plain);
        const auto cipherSize = static_cast<unsigned int>(cipher.size());
        ExpectRefused(Call(ZEP_CPYPT_Encrypt, plain, cipherSize - 1), ZEP_ERR_CAPACITY);
        if (size != 0)
        {
            ExpectRefused(Call(ZEP_CPYPT_Decrypt, cipher, size - 1), ZEP_ERR_CAPACITY);
        }
    }
}

// Changing a byte of a cipher block changes the same byte of the next plain block, and nothing else
// of it: so each padding byte can be made wrong alone.
TEST(ZepCipher, WrongPaddingAtEveryPositionLeavesNoPlainByteBehind)
{
    for (unsigned int size = kBlock; size < 2 * kBlock; ++size)
    {
        const Bytes cipher = Encrypted(Plain(size));
        ASSERT_EQ(cipher.size(), 2 * kBlock);
        for (unsigned int position = size - kBlock; position < kBlock; ++position)
        {
            SCOPED_TRACE(testing::Message() << "size " << size << ", position " << position);
            Bytes changed = cipher;
            changed[position] ^= 0x40;
            ExpectRefused(Call(ZEP_CPYPT_Decrypt, changed, 2 * kBlock), ZEP_ERR_CIPHER);
        }
    }
}

TEST(ZepCipher, WrongPaddingInASingleBlockLeavesNoPlainByteBehind)
{
    for (unsigned int size = 0; size < kBlock; ++size)
    {
        const Bytes cipher = Encrypted(Plain(size));
        for (unsigned int position = size; position < kBlock; ++position)
        {
            SCOPED_TRACE(testing::Message() << "size " << size << ", position " << position);
            Bytes iv = kIv;
            iv[position] ^= 0x40;
            ExpectRefused(Call(ZEP_CPYPT_Decrypt, cipher, kBlock, iv), ZEP_ERR_CIPHER);
        }
    }
}

TEST(ZepCipher, PaddingOfNoneAndOfMoreThanABlockIsRefused)
{
    const Bytes cipher = Encrypted(Plain(15));  // its one padding byte is 1
    for (const unsigned int padding : {0U, 17U, 0xFFU})
    {
        SCOPED_TRACE(padding);
        Bytes iv = kIv;
        iv[15] ^= static_cast<unsigned char>(padding ^ 1U);
        ExpectRefused(Call(ZEP_CPYPT_Decrypt, cipher, kBlock, iv), ZEP_ERR_CIPHER);
    }
}

TEST(ZepCipher, WrongPaddingInPlaceLeavesTheCipherTextAsItWas)
{
    Bytes cipher = Encrypted(Plain(100));
    cipher[cipher.size() - kBlock - 1] ^= 0x40;
    Bytes buffer = cipher;
    auto size = static_cast<unsigned int>(buffer.size());
    EXPECT_EQ(ZEP_CPYPT_Decrypt(0, kKey.data(), 32, kIv.data(), 16, buffer.data(), size,
                                buffer.data(), &size),
              ZEP_ERR_CIPHER);
    EXPECT_EQ(size, 0U);
    EXPECT_EQ(buffer, cipher);
}

TEST(ZepCipher, WrongKeyIsRefused)
{
    Bytes key = kKey;
    key[0] ^= 1;
    ExpectRefused(Call(ZEP_CPYPT_Decrypt, Encrypted(Plain(20)), 64, kIv, key), ZEP_ERR_CIPHER);
}

TEST(ZepCipher, WrongLengthsAreRefused)
{
    const Bytes cipher = Encrypted(Plain(20));
    for (const std::size_t length : {0U, 1U, 15U, 16U, 24U, 31U, 33U, 64U})
    {
        SCOPED_TRACE(length);
        const Bytes key(length, 1);
        ExpectRefused(Call(ZEP_CPYPT_Encrypt, Plain(20), 64, kIv, key), ZEP_ERR_PARAM);
        ExpectRefused(Call(ZEP_CPYPT_Decrypt, cipher, 64, kIv, key), ZEP_ERR_PARAM);
    }
    for (const std::size_t length : {0U, 1U, 8U, 15U, 17U, 32U})
    {
        SCOPED_TRACE(length);
        const Bytes iv(length, 1);
        ExpectRefused(Call(ZEP_CPYPT_Encrypt, Plain(20), 64, iv), ZEP_ERR_PARAM);
        ExpectRefused(Call(ZEP_CPYPT_Decrypt, cipher, 64, iv), ZEP_ERR_PARAM);
    }
    for (const std::size_t length : {0U, 1U, 15U, 17U, 31U})
    {
        SCOPED_TRACE(length);
        ExpectRefused(
            Call(ZEP_CPYPT_Decrypt,
                 Bytes(cipher.begin(), cipher.begin() + static_cast<std::ptrdiff_t>(length)), 64),
            ZEP_ERR_PARAM);
    }
}

TEST(ZepCipher, UnknownAlgorithmsAreRefused)
{
    for (const unsigned int alg : {1U, 2U, 16U, 0x80000000U, 0xFFFFFFFFU})
    {
        SCOPED_TRACE(alg);
        EXPECT_EQ(ZEP_CRYPT_GetblockSize(alg), 0U);
        ExpectRefused(Call(ZEP_CPYPT_Encrypt, Plain(20), 64, kIv, kKey, alg), ZEP_ERR_ALGORITHM);
        ExpectRefused(Call(ZEP_CPYPT_Decrypt, Plain(32), 64, kIv, kKey, alg), ZEP_ERR_ALGORITHM);
    }
    EXPECT_EQ(ZEP_CRYPT_GetblockSize(0), kBlock);
}

TEST(ZepCipher, NullArgumentsAreRefused)
{
    for (const Operation operation : {&ZEP_CPYPT_Encrypt, &ZEP_CPYPT_Decrypt})
    {
        const Bytes in = Encrypted(Plain(16));
        Bytes out(64, kCanary);
        unsigned int size = 64;
        EXPECT_EQ(operation(0, nullptr, 32, kIv.data(), 16, in.data(), 32, out.data(), &size),
                  ZEP_ERR_PARAM);
        EXPECT_EQ(size, 0U);
        size = 64;
        EXPECT_EQ(operation(0, kKey.data(), 32, nullptr, 16, in.data(), 32, out.data(), &size),
                  ZEP_ERR_PARAM);
        size = 64;
        EXPECT_EQ(operation(0, kKey.data(), 32, kIv.data(), 16, nullptr, 32, out.data(), &size),
                  ZEP_ERR_PARAM);
        size = 64;
        EXPECT_EQ(operation(0, kKey.data(), 32, kIv.data(), 16, in.data(), 32, nullptr, &size),
                  ZEP_ERR_PARAM);
        EXPECT_EQ(operation(0, kKey.data(), 32, kIv.data(), 16, in.data(), 32, out.data(), nullptr),
                  ZEP_ERR_PARAM);
        EXPECT_EQ(out, Bytes(64, kCanary));
    }
}

TEST(ZepCipher, NullTextOfNoBytesIsAnEmptyText)
{
    Bytes out(kBlock);
    unsigned int size = kBlock;
    EXPECT_EQ(ZEP_CPYPT_Encrypt(0, kKey.data(), 32, kIv.data(), 16, nullptr, 0, out.data(), &size),
              0U);
    EXPECT_EQ(out, Encrypted({}));
}

TEST(ZepCipher, OverlapsAreRefusedAtEveryDistance)
{
    const Bytes cipher = Encrypted(Plain(40));  // 48 bytes
    for (const Operation operation : {&ZEP_CPYPT_Encrypt, &ZEP_CPYPT_Decrypt})
    {
        Bytes arena(256, kCanary);
        std::copy(cipher.begin(), cipher.end(), arena.begin() + 100);
        const Bytes before = arena;
        for (int distance = -47; distance <= 47; ++distance)
        {
            if (distance == 0)
            {
                continue;
            }
            SCOPED_TRACE(distance);
            unsigned int size = 64;
            EXPECT_EQ(operation(0, kKey.data(), 32, kIv.data(), 16, arena.data() + 100, 48,
                                arena.data() + 100 + distance, &size),
                      ZEP_ERR_OVERLAP);
            EXPECT_EQ(size, 0U);
            EXPECT_EQ(arena, before);
        }
    }
}

TEST(ZepCipher, NeighbouringBuffersAreNoOverlap)
{
    const Bytes plain = Plain(40);
    Bytes arena(256);
    std::copy(plain.begin(), plain.end(), arena.begin());
    unsigned int size = 48;
    EXPECT_EQ(ZEP_CPYPT_Encrypt(0, kKey.data(), 32, kIv.data(), 16, arena.data(), 40,
                                arena.data() + 40, &size),
              0U);
    EXPECT_EQ(Bytes(arena.begin() + 40, arena.begin() + 88), Encrypted(plain));
    unsigned int opened = 48;
    EXPECT_EQ(ZEP_CPYPT_Decrypt(0, kKey.data(), 32, kIv.data(), 16, arena.data() + 40, 48,
                                arena.data() + 88, &opened),
              0U);
    EXPECT_EQ(Bytes(arena.begin() + 88, arena.begin() + 128), plain);
}

TEST(ZepCipher, LengthsNearTheLargestNumberDoNotWrapAround)
{
    Bytes in(16);
    Bytes out(16, kCanary);
    unsigned int size = 16;
    EXPECT_EQ(ZEP_CPYPT_Encrypt(0, kKey.data(), 32, kIv.data(), 16, in.data(), 0xFFFFFFFFU,
                                out.data(), &size),
              ZEP_ERR_CAPACITY);
    EXPECT_EQ(out, Bytes(16, kCanary));
}

TEST(Zep, NamesTheIpv6Family)
{
    EXPECT_EQ(ZEP_Socket_Get_AF_INET6(), 10);  // AF_INET6 of Linux
}

}  // namespace
