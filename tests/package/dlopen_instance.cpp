// GetCorpDirInstance for a client that loads the library itself, and unloads it while the service's
// threads run: CORPDIR_LIBRARY names the library.
#include <dirent.h>
#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>

#include "ftpcorpdir.h"

namespace
{

void Require(bool holds, const char* what)
{
    if (holds)
        return;
    std::fprintf(stderr, "dlopen_instance: %s\n", what);
    std::_Exit(3);
}

int Threads()
{
    int count = 0;
    DIR* folder = opendir("/proc/self/task");
    while (const dirent* entry = readdir(folder))
        count += entry->d_name[0] != '.';
    closedir(folder);
    return count;
}

// Passes everything on to the library's service, which outlives its dlclose.
class UnloadedService final : public IFtpCorpDir
{
public:
    UnloadedService() : m_pLibrary(dlopen(std::getenv("CORPDIR_LIBRARY"), RTLD_NOW | RTLD_LOCAL))
    {
        Require(m_pLibrary != nullptr, "dlopen failed");
        void* entry = dlsym(m_pLibrary, "GetCorpDirInstance");
        Require(entry != nullptr, "dlsym failed");
        m_pService = reinterpret_cast<IFtpCorpDir* (*)()>(entry)();
    }

    unsigned int CorpDirInit(tag_CORPDIR_LOGINFO* pstLogInfo) override
    {
        return m_pService->CorpDirInit(pstLogInfo);
    }

    void CorpDirUninit() override
    {
        m_pService->CorpDirUninit();
    }

    unsigned int CorpDirDownloadNetaddr(tag_CORPDIR_DOWNLOADINFO* pstDownloadInfo,
                                        CORPDIR_DOWNLOAD_CB pfnDownloadCb) override
    {
        const unsigned int result =
            m_pService->CorpDirDownloadNetaddr(pstDownloadInfo, pfnDownloadCb);
        Require(result == 0, "the download was not started");
        Require(Threads() > 1, "the service has no threads");
        Require(dlclose(m_pLibrary) == 0, "dlclose failed");
        std::puts("unloaded");
        std::fflush(stdout);
        return result;
    }

    unsigned int CorpDirSetFtpCipherListToDirImpl(const int* piCipherList,
                                                  unsigned int ulCipherNum) override
    {
        return m_pService->CorpDirSetFtpCipherListToDirImpl(piCipherList, ulCipherNum);
    }

    unsigned int CorpDirAddFtpCipherListToDirImplByOne(int iCipher) override
    {
        return m_pService->CorpDirAddFtpCipherListToDirImplByOne(iCipher);
    }

    unsigned int CorpDirAddFtpCipherListToDirImpl(const int* piCipherList,
                                                  unsigned int ulCipherNum) override
    {
        return m_pService->CorpDirAddFtpCipherListToDirImpl(piCipherList, ulCipherNum);
    }

private:
    void* m_pLibrary;
    IFtpCorpDir* m_pService;
};

}  // namespace

extern "C" IFtpCorpDir* GetCorpDirInstance()
{
    static UnloadedService service;
    return &service;
}
