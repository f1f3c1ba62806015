// The unit under test is part of this file, so that its one object can be named here.
#include "ftpcorpdirimpl.cpp"

#include "service_secrets.h"

namespace
{

// An explicit instantiation may name private members; the friend that it defines hands them out.
template <auto pMember, class Tag>
struct Expose
{
    friend auto MemberOf(Tag)
    {
        return pMember;
    }
};

struct KeyTag
{
    friend auto MemberOf(KeyTag);
};
template struct Expose<&CFTPCorpDirImpl::m_aucKey, KeyTag>;

struct IvTag
{
    friend auto MemberOf(IvTag);
};
template struct Expose<&CFTPCorpDirImpl::m_aucIV, IvTag>;

}  // namespace

namespace integration
{

Secrets SealingSecrets()
{
    const unsigned char* const key = g_CorpDirInstance.*MemberOf(KeyTag{});
    const unsigned char* const iv = g_CorpDirInstance.*MemberOf(IvTag{});
    return {{key, KEY_SIZE / 2},
            {key + KEY_SIZE / 2, KEY_SIZE / 2},
            {iv, IV_SIZE / 2},
            {iv + IV_SIZE / 2, IV_SIZE / 2}};
}

}  // namespace integration
