// Compiled with full optimisation and looked at, never run. The helper's source is included so that
// the compiler sees into it, as link-time optimisation does.
#include "../../platform/zep/bounded.cpp"

extern "C"
{
    void FillSecret(unsigned char* secret);

    void WipedByTheHelper()
    {
        unsigned char secret[4096];
        FillSecret(secret);
        (void)zep_memset_s(secret, sizeof secret, 0, sizeof secret);
    }

    void WipedByPlainMemset()
    {
        unsigned char secret[4096];
        FillSecret(secret);
        memset(secret, 0, sizeof secret);
    }

}  // extern "C"
