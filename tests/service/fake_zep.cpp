// The security layer, faked: a random source that counts, and a cipher without secrecy that pads
// and sizes as the real one does.
#include <algorithm>
#include <cstring>

#include "fake_state.h"

using namespace fakes;

extern "C" unsigned int ZEP_CPYPT_RealRandom(unsigned char* buffer, unsigned int len)
{
    const Call call("ZEP_CPYPT_RealRandom", len);
    if (call.Fails())
    {
        return call.Code();
    }
    const LockedState state;
    for (unsigned int i = 0; i < len; ++i)
    {
        state->ulRandom = state->ulRandom * 1664525U + 1013904223U;
        buffer[i] = static_cast<unsigned char>(state->ulRandom >> 24U);
    }
    return 0;
}

extern "C" unsigned int ZEP_CRYPT_GetblockSize(unsigned int alg)
{
    const Call call("ZEP_CRYPT_GetblockSize", alg);
    return call.Fails() ? call.Code() : (alg == 0 ? 16 : 0);
}

static unsigned char Mask(const unsigned char* pucKey, const unsigned char* pucIV, size_t ulIndex)
{
    return static_cast<unsigned char>(pucKey[ulIndex % 32] ^ pucIV[ulIndex % 16]);
}

static unsigned int Give(const std::string& strBytes, unsigned char* out, unsigned int* outLen)
{
    if (strBytes.size() > *outLen)
    {
        *outLen = 0;
        return ZEP_ERR_CAPACITY;
    }
    std::copy(strBytes.begin(), strBytes.end(), reinterpret_cast<char*>(out));
    *outLen = static_cast<unsigned int>(strBytes.size());
    return ZEP_OK;
}

extern "C" unsigned int ZEP_CPYPT_Encrypt(unsigned int alg, const unsigned char* key,
                                          unsigned int keyLen, const unsigned char* iv,
                                          unsigned int ivLen, const unsigned char* in,
                                          unsigned int inLen, unsigned char* out,
                                          unsigned int* outLen)
{
    SeeSecret(in, inLen);
    const Call call("ZEP_CPYPT_Encrypt", alg, keyLen, ivLen, inLen, *outLen);
    if (call.Fails())
    {
        return call.Code();
    }
    if (alg != 0 || keyLen != 32 || ivLen != 16)
    {
        return ZEP_ERR_PARAM;
    }
    std::string strBytes(reinterpret_cast<const char*>(in), inLen);
    strBytes.append(16 - inLen % 16, static_cast<char>(16 - inLen % 16));
    for (size_t i = 0; i < strBytes.size(); ++i)
    {
        strBytes[i] = static_cast<char>(strBytes[i] ^ Mask(key, iv, i));
    }
    const LockedState state;
    return Give(strBytes, out, outLen);
}

static bool TakePaddingOff(std::string& strBytes)
{
    const auto ulPad = static_cast<unsigned char>(strBytes.back());
    if (ulPad < 1 || ulPad > 16 ||
        strBytes.substr(strBytes.size() - ulPad) != std::string(ulPad, static_cast<char>(ulPad)))
    {
        return false;
    }
    strBytes.resize(strBytes.size() - ulPad);
    return true;
}

extern "C" unsigned int ZEP_CPYPT_Decrypt(unsigned int alg, const unsigned char* key,
                                          unsigned int keyLen, const unsigned char* iv,
                                          unsigned int ivLen, const unsigned char* in,
                                          unsigned int inLen, unsigned char* out,
                                          unsigned int* outLen)
{
    const Call call("ZEP_CPYPT_Decrypt", alg, keyLen, ivLen, inLen, *outLen);
    if (call.Fails())
    {
        return call.Code();
    }
    State& state = TheState();
    std::unique_lock<std::mutex> lock(state.mutex);
    unsigned int ulRet = ZEP_OK;
    if (state.strUnsealed)
    {
        ulRet = Give(*state.strUnsealed, out, outLen);
    }
    else
    {
        if (alg != 0 || keyLen != 32 || ivLen != 16 || inLen == 0 || inLen % 16 != 0)
        {
            return ZEP_ERR_PARAM;
        }
        std::string strBytes(reinterpret_cast<const char*>(in), inLen);
        for (size_t i = 0; i < strBytes.size(); ++i)
        {
            strBytes[i] = static_cast<char>(strBytes[i] ^ Mask(key, iv, i));
        }
        ulRet = TakePaddingOff(strBytes) ? Give(strBytes, out, outLen) : unsigned{ZEP_ERR_CIPHER};
    }
    lock.unlock();
    SeeSecret(out, *outLen);
    return ulRet;
}

extern "C" int ZEP_Socket_Get_AF_INET6()
{
    const Call call("ZEP_Socket_Get_AF_INET6");
    return call.Fails() ? static_cast<int>(call.Code()) : AF_INET6;
}

extern "C" int zep_memcpy_s(void* dest, size_t destMax, const void* src, size_t count)
{
    SeeSecret(src, count);
    const Call call("zep_memcpy_s", static_cast<const void*>(dest), destMax, src, count);
    if (call.Fails())
    {
        return static_cast<int>(call.Code());
    }
    if (dest == nullptr || src == nullptr || count > destMax)
    {
        return dest == nullptr || src == nullptr ? ZEP_ERR_PARAM : ZEP_ERR_CAPACITY;
    }
    std::memmove(dest, src, count);
    SeeSecret(dest, count);
    return 0;
}

extern "C" int zep_memset_s(void* dest, size_t destMax, int c, size_t count)
{
    const Call call("zep_memset_s", static_cast<const void*>(dest), destMax, c, count);
    if (call.Fails())
    {
        return static_cast<int>(call.Code());
    }
    if (dest == nullptr || count > destMax)
    {
        Misuse("zep_memset_s of what it cannot fill");
        return dest == nullptr ? ZEP_ERR_PARAM : ZEP_ERR_CAPACITY;
    }
    std::memset(dest, c, count);
    WipeSecrets(dest, count);
    return 0;
}

extern "C" int zep_strncpy_s(char* dest, size_t destMax, const char* src, size_t count)
{
    const size_t ulLength = strnlen(src, count);
    SeeSecret(src, ulLength);
    const Call call("zep_strncpy_s", static_cast<const void*>(dest), destMax, src, count);
    if (call.Fails() || ulLength >= destMax)
    {
        dest[0] = '\0';
        return call.Fails() ? static_cast<int>(call.Code()) : ZEP_ERR_CAPACITY;
    }
    std::memcpy(dest, src, ulLength);
    dest[ulLength] = '\0';
    SeeSecret(dest, ulLength);
    return 0;
}
